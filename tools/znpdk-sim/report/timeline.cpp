#include "report/timeline.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <set>

namespace zcmd {

namespace {

constexpr int kLabelWidth = 300;
constexpr int kPlotWidth = 1000;
constexpr int kWidth = kLabelWidth + kPlotWidth + 40;
constexpr int kLaneHeight = 22;
constexpr int kBar = kLaneHeight - 6; /* a bar's height */
constexpr int kTop = 56;
constexpr int kRow = 14;  /* a line of text below the lanes */
constexpr int kFont = 11; /* the picture's font size; the title's is 14 */
constexpr int kGap = 4;   /* between two texts, and a text and the edge */
const char* const kPalette[] = {"#9e9e9e", "#66bb6a", "#ffca28", "#ef5350", "#ab47bc",
                                "#42a5f5", "#8d6e63", "#26a69a", "#ec407a"};

std::string esc(const std::string& s)
{
    std::string out;
    for (char c : s) {
        out += c == '&'   ? "&amp;"
               : c == '<' ? "&lt;"
               : c == '>' ? "&gt;"
               : c == '"' ? "&quot;"
                          : std::string(1, c);
    }
    return out;
}

/* One change of a lane's value. */
struct Change {
    uint32_t t;
    uint64_t value;
    std::string process;
    std::string text;
};

struct Lane {
    std::string name;
    uint64_t first = 0; /* the value before the first change */
    std::vector<Change> changes;
};

/* Lanes keyed so that sensors come first (by instance and number), then the
 * LED, the reasons and the phase. */
using LaneMap = std::map<std::pair<int, int>, Lane>;

void add_change(LaneMap& lanes, std::pair<int, int> key, const std::string& name, const Event& e,
                const std::string& process)
{
    Lane& l = lanes[key];
    if (l.changes.empty()) {
        l.name = name;
        l.first = e.data["old"].get<uint64_t>();
    }
    l.changes.push_back({e.t, e.data["new"].get<uint64_t>(), process, e.text});
}

/* Many sensors of one instance changed by one step. */
struct Bulk {
    uint32_t t;
    int inst;
    int count;
    std::string process;
};

void collect(const std::vector<StepReport>& steps, LaneMap& lanes,
             std::vector<std::pair<const Event*, std::string>>& marks, std::vector<Bulk>& bulk)
{
    for (const StepReport& r : steps) {
        /* As in the printed report, large sets of changes of one instance are counted, not drawn. */
        std::map<int, int> per_inst;
        for (const Event& e : r.events) {
            if (e.kind == "sensor") {
                per_inst[e.data["inst"].get<int>()]++;
            }
        }
        std::map<int, bool> marked;
        for (const Event& e : r.events) {
            int inst = e.kind == "sensor" ? e.data["inst"].get<int>() : -1;
            int n = inst >= 0 ? per_inst[inst] : 0;
            if (n > 0 && r.report != "full" && (r.report != "auto" || n > 12)) {
                if (!marked[inst]) {
                    marked[inst] = true; /* one mark per instance and step */
                    bulk.push_back({e.t, inst, n, r.process});
                }
                continue;
            }
            if (e.kind == "sensor") {
                int num = e.data["num"].get<int>();
                char label[48];
                std::snprintf(label, sizeof label, "%d/0x%02x ", inst, num);
                add_change(lanes, {inst, num}, label + e.data["name"].get<std::string>(), e, r.process);
            } else if (e.kind == "led") {
                add_change(lanes, {100, 0}, "BoB alarm LED", e, r.process);
            } else if (e.kind == "fanfull_reason") {
                add_change(lanes, {100, 1}, "fan full-speed reasons", e, r.process);
            } else if (e.kind == "fan_check_phase") {
                add_change(lanes, {100, 2}, "fan check phase", e, r.process);
            } else if (e.kind == "sel" || e.kind == "ras") {
                marks.emplace_back(&e, r.process);
            }
        }
    }
}

/* Texts are monospace, 0.6 em per character, so that where a text ends is
 * known without the font (a test measures the picture the same way). In
 * whole pixels, rounded up, the same on every machine. */
int text_width(const std::string& s, int size = kFont)
{
    int chars = 0;
    for (char ch : s) {
        chars += (static_cast<unsigned char>(ch) & 0xC0) != 0x80;
    }
    return (6 * size * chars + 9) / 10;
}

/* `s` cut to `width` pixels at a character's start, "..." marking the cut. */
std::string fit(const std::string& s, int width, int size = kFont)
{
    if (text_width(s, size) <= width) {
        return s;
    }
    size_t keep = static_cast<size_t>(std::max(0, 10 * width / (6 * size) - 3)), at = 0;
    for (size_t n = 0; at < s.size(); ++at) {
        if ((static_cast<unsigned char>(s[at]) & 0xC0) != 0x80 && n++ == keep) {
            break;
        }
    }
    return s.substr(0, at) + "...";
}

/* A text starting at `want`, moved inside the picture as far as its width needs. */
std::string text(int want, int y, const std::string& s, const std::string& more = "")
{
    int x = std::max(kGap, std::min(want, kWidth - kGap - text_width(s)));
    return "<text x=\"" + std::to_string(x) + "\" y=\"" + std::to_string(y) + "\"" + more + ">" + esc(s) +
           "</text>";
}

/* The lowest set bit, -1 for none: states of one kind get one colour. */
int low_bit(uint64_t v)
{
    return v == 0 ? -1 : __builtin_ctzll(v);
}

const char* colour(int bit)
{
    return bit < 0 ? "none" : kPalette[bit % (sizeof kPalette / sizeof kPalette[0])];
}

uint32_t tick_step(uint32_t end)
{
    for (uint32_t s : {1u, 2u, 5u, 10u, 20u, 30u, 60u, 120u, 300u, 600u, 1200u, 3600u}) {
        if (end / s <= 12) {
            return s;
        }
    }
    uint32_t s = 7200;
    while (end / s > 12) {
        s *= 2;
    }
    return s;
}

std::string attrs(uint32_t t, const std::string& process)
{
    return " data-t=\"" + std::to_string(t) + "\"" +
           (process.empty() ? "" : " data-process=\"" + esc(process) + "\"");
}

std::string rect(int x, int y, int w, int h, const std::string& fill, const std::string& more = "")
{
    return "<rect" + more + " x=\"" + std::to_string(x) + "\" y=\"" + std::to_string(y) + "\" width=\"" +
           std::to_string(w) + "\" height=\"" + std::to_string(h) + "\" fill=\"" + fill + "\"";
}

std::string vline(int x, int y1, int y2, const char* style)
{
    return "<line x1=\"" + std::to_string(x) + "\" y1=\"" + std::to_string(y1) + "\" x2=\"" +
           std::to_string(x) + "\" y2=\"" + std::to_string(y2) + "\" " + style + "/>";
}

constexpr const char* kRestartStyle = "stroke=\"#000\" stroke-dasharray=\"4 3\"";
constexpr const char* kKillStyle = "stroke=\"#c62828\" stroke-width=\"2\"";
constexpr const char* kChangeFill = "#37474f";
constexpr const char* kBulkFill = "#78909c";

/* Where things go: times to x, where the lanes end. */
struct Canvas {
    uint32_t end = 1;
    double scale = 1;
    int bottom = 0;
    int x(uint32_t t) const { return kLabelWidth + static_cast<int>(t * scale); }
};

std::string ticks(const Canvas& c)
{
    std::string svg;
    for (uint64_t t = 0, step = tick_step(c.end); t <= c.end; t += step) {
        std::string label = "t=" + std::to_string(t);
        int x = c.x(static_cast<uint32_t>(t));
        svg += "<g class=\"tick\"" + attrs(static_cast<uint32_t>(t), "") + ">" +
               vline(x, kTop - 8, c.bottom, "stroke=\"#ddd\"") +
               text(x - text_width(label) / 2, kTop - 12, label) + "</g>\n";
    }
    return svg;
}

std::string lane_head(const std::string& name, int y)
{
    return "<g class=\"lane\" data-name=\"" + esc(name) + "\">" +
           text(8, y + 15, fit(name, kLabelWidth - 8 - kGap)) + "\n";
}

/* A value over time: one bar per state, then a mark per change with its
 * report line, and the new value where it has room. */
std::string value_lane(const Canvas& c, const Lane& l, int y, std::set<int>& bits)
{
    std::string svg = lane_head(l.name, y);
    const size_t n = l.changes.size();
    for (size_t i = 0; i <= n; ++i) {
        uint32_t from = i > 0 ? l.changes[i - 1].t : 0, to = i < n ? l.changes[i].t : c.end;
        int bit = low_bit(i > 0 ? l.changes[i - 1].value : l.first);
        if (c.x(to) > c.x(from)) {
            bits.insert(bit); /* the legend names the colours one can see */
        }
        svg += rect(c.x(from), y + 3, std::max(1, c.x(to) - c.x(from)), kBar, colour(bit)) +
               " stroke=\"#bbb\"/>\n";
    }
    /* Values are written from the last change back, each only where it stays
     * clear of the next one written: of changes at one moment the value the
     * lane keeps is shown. One that has no room after its mark goes before it. */
    std::vector<std::string> labels(n);
    int next = kWidth;
    for (size_t i = n; i-- > 0;) {
        std::string v = hex(l.changes[i].value, 0);
        int w = text_width(v), x = c.x(l.changes[i].t) + 2;
        x = std::max(kLabelWidth, x + w > kWidth - kGap ? x - 4 - w : x);
        if (x + w + kGap <= next) {
            labels[i] = text(x, y + 15, v);
            next = x;
        }
    }
    /* Marks of changes at one x share the bar's height, so that each can be hovered. */
    for (size_t first = 0, last = 0; first < n; first = last) {
        while (last < n && c.x(l.changes[last].t) == c.x(l.changes[first].t)) {
            ++last;
        }
        for (size_t i = first; i < last; ++i) {
            const Change& ch = l.changes[i];
            int top = y + 3 + static_cast<int>(kBar * (i - first) / (last - first));
            int bottom = y + 3 + static_cast<int>(kBar * (i - first + 1) / (last - first));
            svg += "<g class=\"change\"" + attrs(ch.t, ch.process) + " data-value=\"" +
                   std::to_string(ch.value) + "\"><title>t=" + std::to_string(ch.t) +
                   (ch.process.empty() ? "" : " " + esc(ch.process) + ":") + " " + esc(ch.text) + "</title>" +
                   rect(c.x(ch.t) - 1, top, 2, bottom - top, kChangeFill) + "/>" + labels[i] + "</g>\n";
        }
    }
    return svg + "</g>\n";
}

std::string log_lane(const Canvas& c, const std::vector<std::pair<const Event*, std::string>>& marks, int y)
{
    std::string svg = lane_head("SEL records and RAS logs", y);
    for (const auto& m : marks) {
        const Event& e = *m.first;
        svg += "<circle class=\"" + e.kind + "\"" + attrs(e.t, m.second) + " cx=\"" +
               std::to_string(c.x(e.t)) + "\" cy=\"" + std::to_string(y + 11) + "\" r=\"5\" fill=\"" +
               (e.kind == "ras" ? "#d32f2f" : "#1976d2") + "\"><title>t=" + std::to_string(e.t) + " " +
               esc(e.text) + "</title></circle>\n";
    }
    return svg + "</g>\n";
}

std::string bulk_lane(const Canvas& c, const std::vector<Bulk>& bulk, int y)
{
    std::string svg = lane_head("many sensors of an instance", y);
    for (const Bulk& b : bulk) {
        svg += rect(c.x(b.t) - 3, y + 5, 6, 12, kBulkFill, " class=\"bulk\"" + attrs(b.t, b.process)) +
               "><title>t=" + std::to_string(b.t) + " instance " + std::to_string(b.inst) + ": " +
               std::to_string(b.count) + " sensors changed</title></rect>\n";
    }
    return svg + "</g>\n";
}

/* The texts of each row below the lanes, from where to where. */
using Rows = std::vector<std::vector<std::pair<int, int>>>;

/* A text below the lanes, in the first row where it meets no other. */
std::string below(int x, int y, const std::string& s, Rows& rows, const std::string& more)
{
    std::string cut = fit(s, kWidth - 2 * kGap);
    int w = text_width(cut);
    x = std::max(kGap, std::min(x, kWidth - kGap - w));
    size_t r = 0;
    for (; r < rows.size(); ++r) {
        if (std::none_of(rows[r].begin(), rows[r].end(), [&](const std::pair<int, int>& o) {
                return x < o.second + kGap && o.first < x + w + kGap;
            })) {
            break;
        }
    }
    rows.resize(std::max(rows.size(), r + 1));
    rows[r].push_back({x, x + w});
    return text(x, y + static_cast<int>(r) * kRow, cut, more);
}

std::string restart_lines(const Canvas& c, const std::vector<StepReport>& steps, Rows& rows)
{
    std::string svg;
    auto line = [&](const char* what, uint32_t t, const std::string& process, const char* style,
                    const std::string& label, const std::string& more) {
        int x = c.x(t);
        svg += "<g class=\"" + std::string(what) + "\"" + attrs(t, process) + ">" +
               vline(x, kTop - 4, c.bottom, style) + below(x + 3, c.bottom + kRow, label, rows, more) +
               "</g>\n";
    };
    for (const StepReport& r : steps) {
        if (!r.kills.empty()) {
            line("kill", r.t_end, r.kills, kKillStyle, "kill " + r.kills, " fill=\"#c62828\"");
        }
        if (!r.restarts.empty()) {
            bool all = r.restarts == "*";
            line("restart", r.t_start, all ? "" : r.restarts, kRestartStyle,
                 all ? r.text : "restart " + r.restarts, "");
        }
    }
    return svg;
}

/* What the colours and marks of this picture mean: the lanes' first, then
 * the other marks on rows of their own from `y` on; `y` ends on the last. */
std::string legend(const std::set<int>& bits, const std::set<std::string>& drawn, int& y)
{
    struct Key {
        std::string glyph; /* drawn around (0, 0), 10 wide, left of the text */
        std::string text;
    };
    std::vector<Key> keys;
    if (!bits.empty()) {
        keys = {{rect(-1, -6, 2, 12, kChangeFill) + "/>",
                 "a change (hover for its report line), its new value in hex where there is room"},
                {"", "colour by the lowest set bit:"}};
    }
    for (int bit : bits) {
        keys.push_back({rect(-5, -5, 10, 10, colour(bit)) + " stroke=\"#bbb\"/>",
                        bit < 0 ? "none" : std::to_string(bit)});
    }
    const size_t lane_keys = keys.size();
    const std::pair<const char*, Key> marks[] = {
        {"sel", {"<circle r=\"5\" fill=\"#1976d2\"/>", "SEL record"}},
        {"ras", {"<circle r=\"5\" fill=\"#d32f2f\"/>", "RAS log"}},
        {"bulk", {rect(-3, -6, 6, 12, kBulkFill) + "/>", "many sensors of one instance at once"}},
        {"restart", {vline(0, -6, 6, kRestartStyle), "process restart"}},
        {"kill", {vline(0, -6, 6, kKillStyle), "process killed"}}};
    for (const auto& m : marks) {
        if (drawn.count(m.first) != 0) {
            keys.push_back(m.second);
        }
    }
    std::string svg = "<g class=\"legend\">\n";
    int x = 8;
    for (size_t i = 0; i < keys.size(); ++i) {
        const Key& k = keys[i];
        int glyph = k.glyph.empty() ? 0 : 16, w = glyph + text_width(k.text);
        if (x > 8 && (i == lane_keys || x + w > kWidth - kGap)) {
            x = 8;
            y += kRow + 4; /* room between the glyphs of two rows */
        }
        if (glyph > 0) {
            svg += "<g transform=\"translate(" + std::to_string(x + 5) + " " + std::to_string(y - 4) +
                   ")\">" + k.glyph + "</g>";
        }
        svg += text(x + glyph, y, k.text) + "\n";
        x += w + 3 * kGap;
    }
    return svg + "</g>\n";
}

} // namespace

std::string timeline_svg(const std::string& title, const std::vector<StepReport>& steps)
{
    LaneMap lanes;
    std::vector<std::pair<const Event*, std::string>> marks;
    std::vector<Bulk> bulk;
    collect(steps, lanes, marks, bulk);
    Canvas c;
    std::set<std::string> drawn = {bulk.empty() ? "" : "bulk"}; /* kinds of marks, for the legend */
    for (const StepReport& r : steps) {
        c.end = std::max(c.end, r.t_end);
        drawn.insert({r.restarts.empty() ? "" : "restart", r.kills.empty() ? "" : "kill"});
    }
    for (const auto& m : marks) {
        drawn.insert(m.first->kind);
    }
    c.scale = double(kPlotWidth) / c.end;
    c.bottom = kTop + static_cast<int>(lanes.size() + 2) * kLaneHeight + 6;
    std::string body = ticks(c);
    std::set<int> bits;
    int y = kTop;
    for (const auto& kv : lanes) {
        body += value_lane(c, kv.second, y, bits);
        y += kLaneHeight;
    }
    Rows rows;
    body += log_lane(c, marks, y) + bulk_lane(c, bulk, y + kLaneHeight) + restart_lines(c, steps, rows);
    y = c.bottom + kRow * static_cast<int>(rows.size() + 2);
    body += legend(bits, drawn, y);
    return "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" + std::to_string(kWidth) + "\" height=\"" +
           std::to_string(y + 8) + "\" font-family=\"monospace\" font-size=\"" + std::to_string(kFont) +
           "\">\n" + text(8, 18, fit(title, kWidth - 16, 14), " font-size=\"14\"") + "\n" + body + "</svg>\n";
}

} // namespace zcmd
