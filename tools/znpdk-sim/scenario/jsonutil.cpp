#include "scenario/jsonutil.h"

#include <cctype>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <algorithm>
#include <map>
#include <regex>
#include <string_view>

namespace zcmd {

std::string ptr_add(const std::string& ptr, const std::string& token)
{
    std::string out = ptr + "/";
    for (char c : token) {
        if (c == '~') {
            out += "~0";
        } else if (c == '/') {
            out += "~1";
        } else {
            out += c;
        }
    }
    return out;
}

std::string ptr_add(const std::string& ptr, size_t index)
{
    return ptr + "/" + std::to_string(index);
}

Node Node::at(size_t i) const
{
    return Node{&(*j)[i], ptr_add(ptr, i)};
}

ScenarioError Node::mistake(const std::string& what, bool at_name) const
{
    return ScenarioError(ptr.empty() ? "/" : ptr, what, at_name);
}

void Node::fail(const std::string& what) const
{
    throw mistake(what);
}

void Node::fail_name(const std::string& what) const
{
    throw mistake(what, true);
}

ObjReader::ObjReader(const Node& n) : node_(n)
{
    if (!n->is_object()) {
        n.fail("expected an object, got " + n->dump());
    }
}

bool ObjReader::has(const std::string& key) const
{
    return node_->contains(key);
}

Node ObjReader::at(const std::string& key)
{
    asked_.insert(key);
    if (!has(key)) {
        node_.fail("missing member \"" + key + "\"");
    }
    used_.insert(key);
    return Node{&(*node_)[key], ptr_add(node_.ptr, key)};
}

Node ObjReader::opt(const std::string& key)
{
    asked_.insert(key);
    if (!has(key)) {
        return Node{nullptr, ptr_add(node_.ptr, key)};
    }
    return at(key);
}

void ObjReader::mark_read(const std::string& key)
{
    used_.insert(key);
}

int64_t opt_int(ObjReader& r, const std::string& key, int64_t dflt, int64_t min, int64_t max,
                const char* what)
{
    Node n = r.opt(key);
    return n.j != nullptr ? get_int(n, min, max, what) : dflt;
}

bool opt_on(ObjReader& r, const std::string& key)
{
    Node n = r.opt(key);
    return n.j != nullptr && get_bool(n, "true or false");
}

void ObjReader::finish() const
{
    const std::vector<std::string> known(asked_.begin(), asked_.end());
    for (auto it = node_->begin(); it != node_->end(); ++it) {
        if (!used_.count(it.key())) {
            note(Node{&it.value(), ptr_add(node_.ptr, it.key())}.mistake(
                "unknown member \"" + it.key() + "\"" + did_you_mean(it.key(), known), true));
        }
    }
}

namespace {
/* Splits an optional sign and radix prefix off integer text. */
bool split_number(const std::string& s, bool& neg, int& base, std::string& digits)
{
    size_t i = 0;
    neg = false;
    if (i < s.size() && (s[i] == '-' || s[i] == '+')) {
        neg = s[i] == '-';
        ++i;
    }
    base = 10;
    if (s.size() >= i + 2 && s[i] == '0' && (s[i + 1] == 'x' || s[i + 1] == 'X')) {
        base = 16;
        i += 2;
    } else if (s.size() >= i + 2 && s[i] == '0' && (s[i + 1] == 'b' || s[i + 1] == 'B')) {
        base = 2;
        i += 2;
    }
    digits.clear();
    for (; i < s.size(); ++i) {
        if (s[i] != '_') {
            digits += s[i];
        }
    }
    if (digits.empty()) {
        return false;
    }
    for (char c : digits) {
        int d = (c >= '0' && c <= '9')   ? c - '0'
                : (c >= 'a' && c <= 'f') ? c - 'a' + 10
                : (c >= 'A' && c <= 'F') ? c - 'A' + 10
                                         : 99;
        if (d >= base) {
            return false;
        }
    }
    return true;
}
} // namespace

bool parse_uint_text(const std::string& s, uint64_t& v)
{
    bool neg;
    int base;
    std::string digits;
    if (!split_number(s, neg, base, digits) || neg) {
        return false;
    }
    errno = 0;
    v = std::strtoull(digits.c_str(), nullptr, base);
    return errno == 0;
}

bool parse_int_text(const std::string& s, int64_t& v)
{
    bool neg;
    int base;
    std::string digits;
    if (!split_number(s, neg, base, digits)) {
        return false;
    }
    errno = 0;
    uint64_t u = std::strtoull(digits.c_str(), nullptr, base);
    if (errno != 0 || u > (neg ? uint64_t(INT64_MAX) + 1 : uint64_t(INT64_MAX))) {
        return false;
    }
    v = neg ? static_cast<int64_t>(0 - u) : static_cast<int64_t>(u);
    return true;
}

int64_t get_int(const Node& n, int64_t min, int64_t max, const char* what)
{
    int64_t v = 0;
    bool ok = false;
    if (n->is_number_integer()) {
        if (n->is_number_unsigned() && n->get<uint64_t>() > uint64_t(INT64_MAX)) {
            ok = false;
        } else {
            v = n->get<int64_t>();
            ok = true;
        }
    } else if (n->is_string()) {
        ok = parse_int_text(n->get<std::string>(), v) || constant_value(n->get<std::string>(), v);
    }
    if (!ok || v < min || v > max) {
        n.fail(std::string("expected ") + what + " (an integer from " + std::to_string(min) + " to " +
               std::to_string(max) + "), got " + n->dump());
    }
    return v;
}

uint64_t get_uint(const Node& n, uint64_t max, const char* what)
{
    uint64_t v = 0;
    bool ok = false;
    if (n->is_number_unsigned()) {
        v = n->get<uint64_t>();
        ok = true;
    } else if (n->is_string()) {
        ok = parse_uint_text(n->get<std::string>(), v);
    }
    if (!ok || v > max) {
        n.fail(std::string("expected ") + what + " (an integer from 0 to " + hex(max, 0) + "), got " +
               n->dump());
    }
    return v;
}

std::string get_string(const Node& n, const char* what)
{
    if (!n->is_string()) {
        n.fail(std::string("expected ") + what + " (a string), got " + n->dump());
    }
    return n->get<std::string>();
}

bool get_bool(const Node& n, const char* what)
{
    if (!n->is_boolean()) {
        n.fail(std::string("expected ") + what + " (true or false), got " + n->dump());
    }
    return n->get<bool>();
}

namespace {

/* The value of a hex digit, or -1. */
int hex_digit(char c)
{
    return c >= '0' && c <= '9'   ? c - '0'
           : c >= 'a' && c <= 'f' ? c - 'a' + 10
           : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                  : -1;
}

} // namespace

bool parse_hex_bytes(const std::string& s, std::vector<uint8_t>& out)
{
    size_t i = 0;
    if (s.size() >= 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X')) {
        i = 2;
    }
    std::vector<uint8_t> bytes;
    bytes.reserve((s.size() - i) / 2);
    int high = -1;
    for (; i < s.size(); ++i) {
        char c = s[i];
        if (c == ' ' || c == ':' || c == '-' || c == '_' || c == '\n') {
            continue;
        }
        int d = hex_digit(c);
        if (d < 0) {
            return false;
        }
        if (high < 0) {
            high = d;
        } else {
            bytes.push_back(static_cast<uint8_t>(high << 4 | d));
            high = -1;
        }
    }
    if (high >= 0) {
        return false;
    }
    out = std::move(bytes);
    return true;
}

std::string hex_bytes(const uint8_t* p, size_t n)
{
    static const char kDigits[] = "0123456789abcdef";
    std::string out(n == 0 ? 0 : 3 * n - 1, ' ');
    for (size_t i = 0; i < n; ++i) {
        out[3 * i] = kDigits[p[i] >> 4];
        out[3 * i + 1] = kDigits[p[i] & 0xF];
    }
    return out;
}

std::string hex(uint64_t v, int width)
{
    char buf[32];
    std::snprintf(buf, sizeof buf, "0x%0*" PRIx64, width, v);
    return buf;
}

std::vector<PathStep> split_path(const std::string& path)
{
    std::vector<PathStep> steps;
    size_t i = 0;
    while (i < path.size()) {
        PathStep st;
        st.at = i;
        if (path[i] == '[') {
            size_t close = path.find(']', i);
            if (close == std::string::npos) {
                throw std::invalid_argument("missing \"]\" in \"" + path + "\"");
            }
            std::string text = path.substr(i + 1, close - i - 1);
            if (!parse_uint_text(text, st.index)) {
                throw std::invalid_argument("bad index \"" + text + "\" in \"" + path + "\"");
            }
            st.is_index = true;
            st.name = text;
            i = close + 1;
        } else {
            if (path[i] == '.') {
                ++i;
            }
            size_t end = path.find_first_of(".[", i);
            st.name = path.substr(i, end == std::string::npos ? std::string::npos : end - i);
            if (st.name.empty()) {
                throw std::invalid_argument("empty field name in \"" + path + "\"");
            }
            i = end == std::string::npos ? path.size() : end;
        }
        steps.push_back(st);
    }
    return steps;
}

std::pair<size_t, size_t> line_column(const std::string& text, size_t offset)
{
    size_t line = 1, col = 1;
    for (size_t i = 0; i < offset && i < text.size(); ++i) {
        if (text[i] == '\n') {
            ++line;
            col = 1;
        } else {
            ++col;
        }
    }
    return {line, col};
}

std::string Mistake::text(const std::string& file) const
{
    return file + ":" + std::to_string(line) + ":" + std::to_string(column) + ": " +
           (where.empty() ? "" : where + ": ") + what;
}

namespace {

MistakeList* g_mistakes = nullptr;

/*
 * Where the member names and values of a JSON text begin, by JSON pointer.
 * nlohmann::json keeps no positions, so one pass over the text (which has
 * parsed already) tells its tokens apart: strings, the brackets, commas
 * and colons, and the scalars between them. Member names are decoded as the
 * parser decodes them, and a repeated name takes the later place, as the
 * parser keeps the later value. Only the values on the way to a wanted
 * pointer are entered (the rest is skipped whole), so deep nesting costs no
 * more than the text's length. The pass stays in bounds whatever it reads.
 */
class TextPlaces {
  public:
    TextPlaces(const std::string& text, const std::set<std::string>& wanted);
    /* The offset of the value at `ptr` (of its name with `name`); a pointer
     * the text lacks gets the place of the nearest value around it. */
    size_t find(std::string ptr, bool name) const;

  private:
    struct Open {
        std::string ptr;
        bool array;
        size_t count;
    };
    struct Place {
        size_t name = 0;
        size_t value = 0;
    };
    bool member(Open& o, std::string& ptr);
    bool string(std::string* decoded);
    void skip_value();
    void space();

    const std::string& text_;
    size_t pos_ = 0;
    std::map<std::string, Place> places_;
};

TextPlaces::TextPlaces(const std::string& text, const std::set<std::string>& wanted) : text_(text)
{
    if (text_.compare(0, 3, "\xEF\xBB\xBF") == 0) {
        pos_ = 3; /* the parser skips a byte order mark */
    }
    space();
    places_[""].name = pos_;
    std::vector<Open> open;
    std::string ptr;
    bool value_next = true;
    while (pos_ < text_.size()) {
        if (value_next) {
            value_next = false;
            if (!wanted.count(ptr)) {
                skip_value();
                continue;
            }
            places_[ptr].value = pos_;
            char c = text_[pos_];
            if (c == '{' || c == '[') {
                ++pos_;
                space();
                open.push_back({ptr, c == '[', 0});
                if (pos_ < text_.size() && (text_[pos_] == '}' || text_[pos_] == ']')) {
                    continue; /* empty: closed below */
                }
                if (!member(open.back(), ptr)) {
                    return;
                }
                value_next = true;
            } else {
                skip_value();
            }
            continue;
        }
        space();
        if (open.empty() || pos_ >= text_.size()) {
            return;
        }
        char c = text_[pos_++];
        if (c == ',') {
            space();
            if (!member(open.back(), ptr)) {
                return;
            }
            value_next = true;
        } else {
            open.pop_back();
        }
    }
}

/* The next element of an open array or object: its pointer, and for a
 * member its name, read up to the value. */
bool TextPlaces::member(Open& o, std::string& ptr)
{
    size_t at = pos_;
    if (o.array) {
        ptr = ptr_add(o.ptr, o.count++);
    } else {
        std::string key;
        if (!string(&key)) {
            return false;
        }
        space();
        if (pos_ >= text_.size() || text_[pos_] != ':') {
            return false;
        }
        ++pos_;
        space();
        ptr = ptr_add(o.ptr, key);
    }
    places_[ptr].name = at;
    return true;
}

bool TextPlaces::string(std::string* decoded)
{
    size_t end = pos_ + 1;
    bool escaped = false;
    while (end < text_.size() && text_[end] != '"') {
        escaped = escaped || text_[end] == '\\';
        end += text_[end] == '\\' ? 2 : 1;
    }
    if (pos_ >= text_.size() || text_[pos_] != '"' || end >= text_.size()) {
        return false;
    }
    if (decoded != nullptr) {
        *decoded = text_.substr(pos_ + 1, end - pos_ - 1);
        if (escaped) {
            json j = json::parse(text_.substr(pos_, end + 1 - pos_), nullptr, false);
            *decoded = j.is_string() ? j.get<std::string>() : *decoded;
        }
    }
    pos_ = end + 1;
    return true;
}

/* Past a value: a string, a scalar, or brackets and all they hold. */
void TextPlaces::skip_value()
{
    size_t depth = 0;
    while (pos_ < text_.size()) {
        char c = text_[pos_];
        if (c == '"') {
            if (!string(nullptr)) {
                pos_ = text_.size();
            }
        } else if (c == '{' || c == '[') {
            ++depth;
            ++pos_;
        } else if (depth > 0) {
            depth -= c == '}' || c == ']' ? 1 : 0;
            ++pos_;
        } else if (std::string_view(",]} \t\r\n").find(c) == std::string_view::npos) {
            ++pos_;
        } else {
            return;
        }
        if (depth == 0 && (c == '}' || c == ']' || c == '"')) {
            return;
        }
    }
}

void TextPlaces::space()
{
    while (pos_ < text_.size() && std::string_view(" \t\r\n").find(text_[pos_]) != std::string_view::npos) {
        ++pos_;
    }
}

size_t TextPlaces::find(std::string ptr, bool name) const
{
    if (ptr == "/") {
        ptr.clear(); /* how a mistake of the whole document is named */
    }
    for (;;) {
        auto it = places_.find(ptr);
        if (it != places_.end()) {
            return name ? it->second.name : it->second.value;
        }
        if (ptr.empty()) {
            return 0;
        }
        size_t slash = ptr.rfind('/');
        ptr.erase(slash == std::string::npos ? 0 : slash);
        name = false;
    }
}

} // namespace

MistakeList::MistakeList() : outer_(g_mistakes)
{
    g_mistakes = this;
}

MistakeList::~MistakeList()
{
    g_mistakes = outer_;
}

void note(const ScenarioError& e)
{
    if (g_mistakes == nullptr) {
        throw e;
    }
    g_mistakes->errors.push_back(e);
}

bool read_on(const std::function<void()>& reader)
{
    try {
        reader();
        return true;
    } catch (const ScenarioError& e) {
        note(e);
        return false;
    }
}

size_t mistakes_noted()
{
    return g_mistakes == nullptr ? 0 : g_mistakes->errors.size();
}

std::vector<Mistake> place_mistakes(const std::string& text, const std::vector<ScenarioError>& errors)
{
    std::set<std::string> wanted = {""};
    for (const ScenarioError& e : errors) {
        for (size_t slash = e.where().find('/', 1); slash != std::string::npos;
             slash = e.where().find('/', slash + 1)) {
            wanted.insert(e.where().substr(0, slash));
        }
        wanted.insert(e.where());
    }
    TextPlaces places(text, wanted);
    std::vector<std::pair<size_t, Mistake>> placed;
    for (const ScenarioError& e : errors) {
        size_t at = places.find(e.where(), e.at_name());
        std::pair<size_t, size_t> lc = line_column(text, at);
        placed.push_back({at, Mistake{e.where(), e.what(), lc.first, lc.second}});
    }
    std::stable_sort(placed.begin(), placed.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    std::vector<Mistake> out;
    for (auto& p : placed) {
        out.push_back(std::move(p.second));
    }
    return out;
}

size_t edit_distance(const std::string& a, const std::string& b)
{
    auto same = [](char x, char y) {
        return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
    };
    /* Three rows: the one before the previous is needed for a swap. */
    std::vector<size_t> back(b.size() + 1), prev(b.size() + 1), cur(b.size() + 1);
    for (size_t j = 0; j <= b.size(); ++j) {
        prev[j] = j;
    }
    for (size_t i = 1; i <= a.size(); ++i) {
        cur[0] = i;
        for (size_t j = 1; j <= b.size(); ++j) {
            cur[j] =
                std::min({prev[j] + 1, cur[j - 1] + 1, prev[j - 1] + (same(a[i - 1], b[j - 1]) ? 0 : 1)});
            if (i > 1 && j > 1 && same(a[i - 1], b[j - 2]) && same(a[i - 2], b[j - 1])) {
                cur[j] = std::min(cur[j], back[j - 2] + 1);
            }
        }
        std::swap(back, prev);
        std::swap(prev, cur);
    }
    return prev[b.size()];
}

std::vector<std::string> nearest_names(const std::string& name, const std::vector<std::string>& known)
{
    /* Near enough: a third of the name may be wrong (two edits at least),
     * but never all of it. */
    size_t best = std::min(std::max<size_t>(2, name.size() / 3), name.size() - (name.empty() ? 0 : 1));
    std::vector<std::string> out;
    for (const std::string& k : known) {
        size_t d = edit_distance(name, k);
        if (d < best) {
            best = d;
            out.clear();
        }
        if (d == best && out.size() < 3 && std::find(out.begin(), out.end(), k) == out.end()) {
            out.push_back(k);
        }
    }
    return out;
}

std::string did_you_mean(const std::string& name, const std::vector<std::string>& known)
{
    std::vector<std::string> near = nearest_names(name, known);
    std::string s;
    for (size_t i = 0; i < near.size(); ++i) {
        s += (i == 0 ? " (did you mean \"" : i + 1 == near.size() ? " or \"" : ", \"") + near[i] + "\"";
    }
    return s.empty() ? s : s + "?)";
}

std::string name_hint(const std::string& name, const std::vector<std::string>& known,
                      const std::string& kinds)
{
    std::string hint = did_you_mean(name, known);
    if (!hint.empty()) {
        return hint;
    }
    for (const std::string& k : known) {
        hint += (hint.empty() ? " (" + kinds + ": \"" : ", \"") + k + "\"";
    }
    return hint + ")";
}

namespace {

/* Walks a member path such as "a.b[2][1]" through seen JSON. */
const json* walk(const json& seen, const std::string& path)
{
    std::vector<PathStep> steps;
    try {
        steps = split_path(path);
    } catch (const std::invalid_argument&) {
        return nullptr;
    }
    const json* cur = &seen;
    for (const PathStep& st : steps) {
        if (st.is_index ? !cur->is_array() || st.index >= cur->size()
                        : !cur->is_object() || !cur->contains(st.name)) {
            return nullptr;
        }
        cur = st.is_index ? &(*cur)[st.index] : &(*cur)[st.name];
    }
    return cur;
}

bool as_int(const json& j, int64_t& v, bool& is_unsigned_big, uint64_t& u)
{
    is_unsigned_big = false;
    if (j.is_boolean()) {
        v = j.get<bool>() ? 1 : 0;
        return true;
    }
    if (j.is_number_unsigned()) {
        u = j.get<uint64_t>();
        if (u > uint64_t(INT64_MAX)) {
            is_unsigned_big = true;
            return true;
        }
        v = static_cast<int64_t>(u);
        return true;
    }
    if (j.is_number_integer()) {
        v = j.get<int64_t>();
        return true;
    }
    if (j.is_string()) {
        const std::string s = j.get<std::string>();
        if (parse_int_text(s, v)) {
            return true;
        }
        if (parse_uint_text(s, u)) {
            is_unsigned_big = true;
            return true;
        }
    }
    return false;
}

/* Two integers as unsigned 64-bit patterns (so -1 and 0xFFFFFFFFFFFFFFFF agree only deliberately). */
bool int_equal(const json& a, const json& b, bool& comparable)
{
    int64_t va = 0, vb = 0;
    uint64_t ua = 0, ub = 0;
    bool ba, bb;
    comparable = as_int(a, va, ba, ua) && as_int(b, vb, bb, ub);
    if (!comparable) {
        return false;
    }
    if (ba || bb) {
        uint64_t xa = ba ? ua : static_cast<uint64_t>(va);
        uint64_t xb = bb ? ub : static_cast<uint64_t>(vb);
        return xa == xb && (ba || va >= 0) && (bb || vb >= 0);
    }
    return va == vb;
}

uint64_t as_bits(const json& j)
{
    int64_t v = 0;
    uint64_t u = 0;
    bool big;
    if (!as_int(j, v, big, u)) {
        return 0;
    }
    return big ? u : static_cast<uint64_t>(v);
}

const std::set<std::string> kMatcherKeys = {"contains", "matches", "mask",   "value", "any_bits",
                                            "no_bits",  "not",     "one_of", "min",   "max"};

bool is_matcher(const json& e)
{
    if (!e.is_object() || e.empty()) {
        return false;
    }
    for (auto it = e.begin(); it != e.end(); ++it) {
        if (!kMatcherKeys.count(it.key())) {
            return false;
        }
    }
    return true;
}

std::string show(const json& j)
{
    std::string s = j.dump();
    if (s.size() > 200) {
        s = s.substr(0, 197) + "...";
    }
    return s;
}

std::string differ(const std::string& path, const json& expected, const json& seen)
{
    return (path.empty() ? std::string() : path + ": ") + "expected " + show(expected) + ", seen " +
           show(seen);
}

std::string match_scalar_matcher(const json& e, const json& seen, const std::string& path)
{
    for (auto it = e.begin(); it != e.end(); ++it) {
        const std::string& k = it.key();
        const json& v = it.value();
        bool ok = true;
        if (k == "contains") {
            ok = seen.is_string() && seen.get<std::string>().find(v.get<std::string>()) != std::string::npos;
        } else if (k == "matches") {
            ok = seen.is_string() &&
                 std::regex_search(seen.get<std::string>(), std::regex(v.get<std::string>()));
        } else if (k == "mask") {
            ok = (as_bits(seen) & as_bits(v)) == as_bits(e.value("value", json(0)));
        } else if (k == "value") {
            if (!e.contains("mask")) {
                ok = match(v, seen, path).empty();
            }
        } else if (k == "any_bits") {
            ok = (as_bits(seen) & as_bits(v)) != 0;
        } else if (k == "no_bits") {
            ok = (as_bits(seen) & as_bits(v)) == 0;
        } else if (k == "not") {
            ok = !match(v, seen, path).empty();
        } else if (k == "one_of") {
            ok = false;
            for (const auto& alt : v) {
                ok = ok || match(alt, seen, path).empty();
            }
        } else if (k == "min" || k == "max") {
            int64_t a = 0, b = 0;
            uint64_t ua, ub;
            bool big_a, big_b;
            ok = as_int(seen, a, big_a, ua) && as_int(v, b, big_b, ub) && !big_a && !big_b &&
                 (k == "min" ? a >= b : a <= b);
        }
        if (!ok) {
            return differ(path, e, seen);
        }
    }
    return "";
}

} // namespace

std::string match(const json& expected, const json& seen, const std::string& path)
{
    if (is_matcher(expected) && !seen.is_object()) {
        return match_scalar_matcher(expected, seen, path);
    }
    if (expected.is_object()) {
        if (!seen.is_object()) {
            return differ(path, expected, seen);
        }
        for (auto it = expected.begin(); it != expected.end(); ++it) {
            const json* s = walk(seen, it.key());
            std::string sub = path.empty() ? it.key() : path + "." + it.key();
            if (s == nullptr) {
                return sub + ": no such member in " + show(seen);
            }
            std::string d = match(it.value(), *s, sub);
            if (!d.empty()) {
                return d;
            }
        }
        return "";
    }
    if (expected.is_array()) {
        if (!seen.is_array()) {
            return differ(path, expected, seen);
        }
        if (expected.size() != seen.size()) {
            return differ(path, expected, seen) + " (" + std::to_string(expected.size()) +
                   " elements expected, " + std::to_string(seen.size()) + " seen)";
        }
        for (size_t i = 0; i < expected.size(); ++i) {
            std::string d = match(expected[i], seen[i], path + "[" + std::to_string(i) + "]");
            if (!d.empty()) {
                return d;
            }
        }
        return "";
    }
    if (expected.is_string() && seen.is_array()) {
        std::vector<uint8_t> bytes;
        if (parse_hex_bytes(expected.get<std::string>(), bytes) && bytes.size() == seen.size()) {
            for (size_t i = 0; i < bytes.size(); ++i) {
                if (!seen[i].is_number_integer() || seen[i].get<int64_t>() != bytes[i]) {
                    return differ(path, expected, seen);
                }
            }
            return "";
        }
        return differ(path, expected, seen);
    }
    if (expected.is_string() && seen.is_string()) {
        return expected == seen ? "" : differ(path, expected, seen);
    }
    bool comparable = false;
    if (int_equal(expected, seen, comparable) || (!comparable && expected == seen)) {
        return "";
    }
    return differ(path, expected, seen);
}

void check_matcher(const Node& e, bool scalar)
{
    if (scalar && (e->is_array() || (e->is_object() && !is_matcher(*e)))) {
        for (auto it = e->is_object() ? e->begin() : e->end(); it != e->end(); ++it) {
            if (!kMatcherKeys.count(it.key())) {
                std::string hint = did_you_mean(
                    it.key(), std::vector<std::string>(kMatcherKeys.begin(), kMatcherKeys.end()));
                Node{&it.value(), ptr_add(e.ptr, it.key())}.fail_name(
                    "unknown matcher \"" + it.key() + "\"" +
                    (hint.empty()
                         ? " (a single value is matched by a value or by contains, matches, mask/value, "
                           "any_bits, no_bits, not, one_of, min, max)"
                         : hint));
            }
        }
        e.fail("expected a single value or a matcher, got " + e->dump());
    }
    if (e->is_array()) {
        for (size_t i = 0; i < e->size(); ++i) {
            check_matcher(e.at(i));
        }
        return;
    }
    if (!e->is_object()) {
        if (e->is_number_float()) {
            e.fail("numbers are integers here, got " + e->dump());
        }
        return;
    }
    if (is_matcher(*e)) {
        for (auto it = e->begin(); it != e->end(); ++it) {
            Node v{&it.value(), ptr_add(e.ptr, it.key())};
            if (it.key() == "contains" || it.key() == "matches") {
                std::string s = get_string(v, "a text");
                if (it.key() == "matches") {
                    try {
                        std::regex re(s);
                    } catch (const std::regex_error& ex) {
                        v.fail(std::string("not a regular expression: ") + ex.what());
                    }
                }
            } else if (it.key() == "one_of") {
                if (!v->is_array()) {
                    v.fail("expected a list of alternatives");
                }
                check_matcher(v);
            } else if (it.key() == "not") {
                check_matcher(v);
            } else {
                get_int(v, INT64_MIN, INT64_MAX, "an integer");
            }
        }
        return;
    }
    for (auto it = e->begin(); it != e->end(); ++it) {
        check_matcher(Node{&it.value(), ptr_add(e.ptr, it.key())});
    }
}

void check_number(const Node& e, int64_t min, int64_t max, const char* what)
{
    check_matcher(e, true);
    const std::string range = " (an integer from " + std::to_string(min) + " to " + std::to_string(max) + ")";
    if (e->is_boolean()) {
        if (min != 0 || max != 1) {
            e.fail(std::string("expected ") + what + range + ", got " + e->dump());
        }
        return;
    }
    if (!e->is_object()) {
        get_int(e, min, max, what);
        return;
    }
    for (auto it = e->begin(); it != e->end(); ++it) {
        Node v{&it.value(), ptr_add(e.ptr, it.key())};
        if (it.key() == "contains" || it.key() == "matches") {
            v.fail("\"" + it.key() + "\" compares texts, but " + what + " is a number" + range);
        } else if (it.key() == "one_of") {
            for (size_t i = 0; i < v->size(); ++i) {
                check_number(v.at(i), min, max, what);
            }
        } else if (it.key() == "not" || it.key() == "min" || it.key() == "max") {
            check_number(v, min, max, what);
        }
    }
}

} // namespace zcmd
