/* Reading scenario JSON with the place of every value (a JSON pointer), and
 * matching seen values against expected ones. */
#ifndef ZNPDK_SIM_TOOL_JSONUTIL_H
#define ZNPDK_SIM_TOOL_JSONUTIL_H

#include <nlohmann/json.hpp>

#include <cstdint>
#include <functional>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace zcmd {

using json = nlohmann::json;

/* One mistake placed in the file's text: line and column count from 1
 * (columns in bytes); `where` is its JSON pointer, "" for a syntax error. */
struct Mistake {
    std::string where;
    std::string what;
    size_t line = 0;
    size_t column = 0;
    /* "FILE:LINE:COLUMN: WHERE: WHAT", as compilers print theirs. */
    std::string text(const std::string& file) const;
};

/* A mistake in a scenario file: `where` is the JSON pointer of the value;
 * with `at_name` the mistake is the member's name (an unknown key), which
 * is where its line and column point. */
class ScenarioError : public std::runtime_error {
  public:
    ScenarioError(std::string where, const std::string& what, bool at_name = false)
        : std::runtime_error(what), where_(std::move(where)), at_name_(at_name)
    {
    }
    const std::string& where() const { return where_; }
    bool at_name() const { return at_name_; }
    /* Every mistake of the file in the order of its text, as load_scenario
     * throws them; the first is this one. */
    const std::vector<Mistake>& mistakes() const { return mistakes_; }
    void set_mistakes(std::vector<Mistake> m) { mistakes_ = std::move(m); }

  private:
    std::string where_;
    bool at_name_;
    std::vector<Mistake> mistakes_;
};

/* The mistakes of one load. While one lives, note() keeps each mistake
 * and reading goes on past the member or step it spoils; without one a
 * mistake is thrown, so readers used on their own stop at the first. */
class MistakeList {
  public:
    MistakeList();
    ~MistakeList();
    MistakeList(const MistakeList&) = delete;
    MistakeList& operator=(const MistakeList&) = delete;
    std::vector<ScenarioError> errors;

  private:
    MistakeList* outer_;
};
void note(const ScenarioError& e);
/* Runs one reader; a mistake it throws is noted. False when it threw. */
bool read_on(const std::function<void()>& reader);
/* How many mistakes the load has noted so far. */
size_t mistakes_noted();
/* The noted mistakes placed in the (well-formed) text, in its order. */
std::vector<Mistake> place_mistakes(const std::string& text, const std::vector<ScenarioError>& errors);

/* Edit distance ignoring case; two neighbours swapped count as one edit. */
size_t edit_distance(const std::string& a, const std::string& b);
/* The known names nearest to `name` (up to three as near), when near
 * enough to be a slip of the keyboard. */
std::vector<std::string> nearest_names(const std::string& name, const std::vector<std::string>& known);
/* ' (did you mean "x"?)' naming those, or "" when no known name is near. */
std::string did_you_mean(const std::string& name, const std::vector<std::string>& known);
/* did_you_mean(), or when no name is near, ' (KINDS: "a", "b", ...)' listing every known one. */
std::string name_hint(const std::string& name, const std::vector<std::string>& known,
                      const std::string& kinds);

/* A value of the scenario together with its JSON pointer. */
struct Node {
    const json* j;
    std::string ptr;

    const json& operator*() const { return *j; }
    const json* operator->() const { return j; }
    Node at(size_t i) const;
    ScenarioError mistake(const std::string& what, bool at_name = false) const;
    [[noreturn]] void fail(const std::string& what) const;
    /* The member's name is the mistake (an unknown key). */
    [[noreturn]] void fail_name(const std::string& what) const;
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
    /* Takes a member as read without reading it (its reader gave up). */
    void mark_read(const std::string& key);
    /* Notes each member nobody read, with the nearest name asked for. */
    void finish() const;
    const Node& node() const { return node_; }

  private:
    Node node_;
    std::set<std::string> used_;
    std::set<std::string> asked_;
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

/* Line and column (from 1) of a byte offset of the text. */
std::pair<size_t, size_t> line_column(const std::string& text, size_t offset);

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
