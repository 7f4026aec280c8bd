/* The path splitter is internal to the library; its source is built in here. */
#include <gtest/gtest.h>

#include "../component/znpdklib_upid.cpp"

namespace {

using Pieces = std::vector<std::string>;

TEST(Split, EveryDelimiterEndsAPiece)
{
    struct Case {
        std::string line;
        char delim;
        Pieces want;
    } cases[] = {
        {"a,b", ',', {"a", "b"}},
        {"a,", ',', {"a", ""}},
        {"", ',', {""}},
        {",", ',', {"", ""}},
        {",,a,,", ',', {"", "", "a", "", ""}},
        {"/SYSTEM#0/ROUTER#3,/SYSTEM#0/CMUC#1", ',', {"/SYSTEM#0/ROUTER#3", "/SYSTEM#0/CMUC#1"}},
        {"/SYSTEM#0/CMU#3", '/', {"", "SYSTEM#0", "CMU#3"}},
        {"no delimiter", ',', {"no delimiter"}},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.want, split(c.line, c.delim)) << "\"" << c.line << "\"";
    }
}

} // namespace
