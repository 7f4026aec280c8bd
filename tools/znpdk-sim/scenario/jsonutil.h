/* Reading scenario JSON with the place of every value (a JSON pointer), and
 * matching seen values against expected ones. */
#ifndef ZNPDK_SIM_TOOL_JSONUTIL_H
#define ZNPDK_SIM_TOOL_JSONUTIL_H

#include <nlohmann/json.hpp>

#include <cstdint>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace zcmd {

using json = nlohmann::json;

/* A mistake in a scenario file: `where` is the JSON pointer of the value. */
class ScenarioError : public std::runtime_error {
  public:
    ScenarioError(std::string where, const std::string& what)
        : std::runtime_error(what), where_(std::move(where))
    {
    }
    const std::string& where() const { return where_; }

  private:
    std::string where_;
};

/* A value of the scenario together with its JSON pointer. */
struct Node {
    const json* j;
    std::string ptr;

    const json& operator*() const { return *j; }
    const json* operator->() const { return j; }
    Node at(size_t i) const;
    [[noreturn]] void fail(const std::string& what) const;
};

/* Appends one reference token to a JSON pointer (escaping "~" and "/"). */
std::string ptr_add(const std::string& ptr, const std::string& token);
std::string ptr_add(const std::string& ptr, size_t index);

/* Reads the members of one object; finish() refuses members nobody asked for. */
class ObjReader {
  public:
    explicit ObjReader(const Node& n);
    bool has(const std::string& key) const;
    Node at(const std::string& key);
    /* The member if present (j == nullptr otherwise). */
    Node opt(const std::string& key);
    void finish() const;
    const Node& node() const { return node_; }

  private:
    Node node_;
    std::set<std::string> used_;
};

/* Integers are JSON numbers or strings such as "0x1F", "-3", "0b101". */
int64_t get_int(const Node& n, int64_t min, int64_t max, const char* what);
uint64_t get_uint(const Node& n, uint64_t max, const char* what);
std::string get_string(const Node& n, const char* what);
bool get_bool(const Node& n, const char* what);
/* An optional integer member of `r`: `dflt` when it is absent. */
int64_t opt_int(ObjReader& r, const std::string& key, int64_t dflt, int64_t min, int64_t max,
                const char* what);
/* An optional boolean member that switches something on: false when absent. */
bool opt_on(ObjReader& r, const std::string& key);
/* Parses an integer written as text; false when the text is not one. */
bool parse_int_text(const std::string& s, int64_t& v);
bool parse_uint_text(const std::string& s, uint64_t& v);
/* Names that integers may be given by ("COMPO_NODE", "PROP_SETUP_INFO", ...). */
bool constant_value(const std::string& name, int64_t& value);
/* "0a 1b ..." or "0x0a1b..." as bytes; false when not hex. */
bool parse_hex_bytes(const std::string& s, std::vector<uint8_t>& out);
std::string hex_bytes(const uint8_t* p, size_t n);
std::string hex(uint64_t v, int width);

/* One step of a member path such as "a.b[2]": a name or an index; `at`
 * is where the step begins in the path. Throws std::invalid_argument for a
 * malformed path. */
struct PathStep {
    bool is_index = false;
    uint64_t index = 0;
    std::string name;
    size_t at = 0;
};
std::vector<PathStep> split_path(const std::string& path);

/* Where a parse error sits in the text: "line L, column C". */
std::string text_position(const std::string& text, size_t byte);

/*
 * Compares a seen value with an expected one. Objects match when every
 * expected member matches (member names may be paths such as "a.b[2]");
 * arrays match element by element and in length; numbers match numbers or
 * integer strings; a string matches a byte array written in hex. Where a
 * scalar is seen, the expected value may be a matcher object:
 * {"contains": s}, {"matches": regex}, {"mask": m, "value": v},
 * {"any_bits": m}, {"no_bits": m}, {"not": x}, {"one_of": [...]},
 * {"min": a, "max": b}. Returns "" on a match, else what differs.
 */
std::string match(const json& expected, const json& seen, const std::string& path = "");
/* Checks that an expected value only uses forms match() understands;
 * with `scalar` the value stands for a single number or text. */
void check_matcher(const Node& expected, bool scalar = false);
/* The same for an expected number of a type: plain values and the values
 * of one_of, not, min and max must lie in the type's range; text matchers
 * are refused. */
void check_number(const Node& expected, int64_t min, int64_t max, const char* what);

} // namespace zcmd

#endif
