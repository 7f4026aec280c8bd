/* Internal helpers of the unit position id code shared with other library files. */
#ifndef ZNPDK_COMPONENT_UPID_H
#define ZNPDK_COMPONENT_UPID_H

#include <string>
#include <vector>

/* Splits `line` at every `delim`; empty pieces are kept, an empty text gives one empty piece. */
std::vector<std::string> split(const std::string& line, char delim);

#endif
