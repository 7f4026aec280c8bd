/* Field tables of the shared records and of the structures that the
 * exported functions take: every field addressable by a dotted path with
 * indices ("psuc.bob[1].FRUStatus", "quordata.phyPort[3].online"). */
#ifndef ZNPDK_SIM_TOOL_FIELDS_H
#define ZNPDK_SIM_TOOL_FIELDS_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "scenario/jsonutil.h"

namespace zcmd {

enum class Scalar { U8, I8, U16, I16, U32, I32, U64, Char, Pointer };

struct Type;

struct Member {
    std::string name;
    size_t offset;
    const Type* type;
    std::vector<size_t> dims; /* array dimensions, outermost first */
};

struct Type {
    std::string name;
    size_t size = 0;
    bool is_struct = false;
    Scalar scalar = Scalar::U8;
    std::vector<Member> members;
};

/* A resolved place inside a record: an element type with the array
 * dimensions still open (none for a single element). */
struct Ref {
    size_t offset = 0;
    const Type* type = nullptr;
    std::vector<size_t> dims;
    size_t size() const;
};

/* The type of that name ("current_system_info_t", ...), or null. */
const Type* find_type(const std::string& name);
/* Every type of the table, for listings and tests. */
std::vector<const Type*> all_types();

/* Resolves "a.b[2]" below `root`; throws std::invalid_argument naming the bad part. */
Ref resolve(const Type& root, const std::string& path);
Ref whole(const Type& t);

/* The value at `ref` of the bytes at `base` as JSON: numbers, texts for
 * char arrays, lists for arrays, objects for structures. */
json to_json(const uint8_t* base, const Ref& ref);
/* Stores a JSON value at `ref`: numbers (or integer strings), texts for
 * char arrays, lists or hex strings for byte arrays, objects for
 * structures (only the members named, which may be paths). */
void from_json(uint8_t* base, const Ref& ref, const Node& value);
/* The same for a whole structure given as {"path": value, ...} or as
 * {"hex": "..."} for raw bytes. */
void fill(uint8_t* base, const Type& t, const Node& value);
/* Every leaf path of a type, arrays shown as "[n]" with their sizes. */
std::vector<std::string> describe(const Type& t);

/* Component records by short name. */
struct RecordKind {
    const char* name;
    int key;
    const Type* type;
    const char* holder;
};
const std::vector<RecordKind>& record_kinds();
const RecordKind* find_record(const std::string& name);

} // namespace zcmd

#endif
