#include "report/timeline.h"

#include <algorithm>
#include <cstdio>
#include <map>

namespace zcmd {

namespace {

constexpr int kLabelWidth = 300;
constexpr int kPlotWidth = 1000;
constexpr int kLaneHeight = 22;
constexpr int kTop = 56;
const char* const kPalette[] = {"#9e9e9e", "#66bb6a", "#ffca28", "#ef5350", "#ab47bc",
                                "#42a5f5", "#8d6e63", "#26a69a", "#ec407a"};

std::string esc(const std::string& s)
{
    std::string out;
    for (char c : s) {
        switch (c) {
        case '&':
            out += "&amp;";
            break;
        case '<':
            out += "&lt;";
            break;
        case '>':
            out += "&gt;";
            break;
        case '"':
            out += "&quot;";
            break;
        default:
            out += c;
        }
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

/* A colour per state: by the lowest asserted offset, so that states of one kind look alike. */
const char* colour(uint64_t v)
{
    if (v == 0) {
        return "none";
    }
    int bit = 0;
    while (((v >> bit) & 1) == 0) {
        ++bit;
    }
    return kPalette[bit % (sizeof kPalette / sizeof kPalette[0])];
}

uint32_t tick_step(uint32_t end)
{
    for (uint32_t s : {1u, 2u, 5u, 10u, 20u, 30u, 60u, 120u, 300u, 600u, 1200u, 3600u}) {
        if (end / s <= 12) {
            return s;
        }
    }
    return 7200;
}

std::string attrs(uint32_t t, const std::string& process)
{
    return " data-t=\"" + std::to_string(t) + "\"" +
           (process.empty() ? "" : " data-process=\"" + esc(process) + "\"");
}

/* Where things go: times to x, the picture's height. */
struct Canvas {
    uint32_t end = 1;
    double scale = 1;
    int height = 0;
    int x(uint32_t t) const { return kLabelWidth + static_cast<int>(t * scale); }
};

std::string ticks(const Canvas& c)
{
    std::string svg;
    for (uint32_t t = 0, step = tick_step(c.end); t <= c.end; t += step) {
        svg += "<g class=\"tick\"" + attrs(t, "") + "><line x1=\"" + std::to_string(c.x(t)) + "\" y1=\"" +
               std::to_string(kTop - 8) + "\" x2=\"" + std::to_string(c.x(t)) + "\" y2=\"" +
               std::to_string(c.height - 24) + "\" stroke=\"#ddd\"/><text x=\"" + std::to_string(c.x(t)) +
               "\" y=\"" + std::to_string(kTop - 12) + "\">t=" + std::to_string(t) + "</text></g>\n";
    }
    return svg;
}

std::string lane_head(const std::string& name, int y)
{
    return "<g class=\"lane\" data-name=\"" + esc(name) + "\"><text x=\"8\" y=\"" + std::to_string(y + 15) +
           "\">" + esc(name) + "</text>\n";
}

/* A value over time: one bar per state, the new value written at each change. */
std::string value_lane(const Canvas& c, const Lane& l, int y)
{
    std::string svg = lane_head(l.name, y);
    uint64_t value = l.first;
    uint32_t from = 0;
    for (size_t i = 0; i <= l.changes.size(); ++i) {
        uint32_t to = i < l.changes.size() ? l.changes[i].t : c.end;
        svg += "<rect x=\"" + std::to_string(c.x(from)) + "\" y=\"" + std::to_string(y + 3) + "\" width=\"" +
               std::to_string(std::max(1, c.x(to) - c.x(from))) + "\" height=\"" +
               std::to_string(kLaneHeight - 6) + "\" fill=\"" + colour(value) + "\" stroke=\"#bbb\"/>\n";
        if (i < l.changes.size()) {
            const Change& ch = l.changes[i];
            svg += "<g class=\"change\"" + attrs(ch.t, ch.process) + " data-value=\"" +
                   std::to_string(ch.value) + "\"><title>t=" + std::to_string(ch.t) +
                   (ch.process.empty() ? "" : " " + esc(ch.process) + ":") + " " + esc(ch.text) +
                   "</title><text x=\"" + std::to_string(c.x(ch.t) + 2) + "\" y=\"" + std::to_string(y + 15) +
                   "\">" + hex(ch.value, 0) + "</text></g>\n";
            value = ch.value;
            from = ch.t;
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
        svg += "<rect class=\"bulk\"" + attrs(b.t, b.process) + " x=\"" + std::to_string(c.x(b.t) - 3) +
               "\" y=\"" + std::to_string(y + 5) +
               "\" width=\"6\" height=\"12\" fill=\"#78909c\"><title>t=" + std::to_string(b.t) +
               " instance " + std::to_string(b.inst) + ": " + std::to_string(b.count) +
               " sensors changed</title></rect>\n";
    }
    return svg + "</g>\n";
}

std::string restart_lines(const Canvas& c, const std::vector<StepReport>& steps)
{
    std::string svg;
    for (const StepReport& r : steps) {
        if (!r.kills.empty()) {
            int x = c.x(r.t_end);
            svg += "<g class=\"kill\"" + attrs(r.t_end, r.kills) + "><line x1=\"" + std::to_string(x) +
                   "\" y1=\"" + std::to_string(kTop - 4) + "\" x2=\"" + std::to_string(x) + "\" y2=\"" +
                   std::to_string(c.height - 24) + "\" stroke=\"#c62828\" stroke-width=\"2\"/><text x=\"" +
                   std::to_string(x + 3) + "\" y=\"" + std::to_string(c.height - 10) +
                   "\" fill=\"#c62828\">" + esc("kill " + r.kills) + "</text></g>\n";
        }
        if (r.restarts.empty()) {
            continue;
        }
        std::string what = r.restarts == "*" ? r.text : "restart " + r.restarts;
        int x = c.x(r.t_start);
        svg += "<g class=\"restart\"" + attrs(r.t_start, r.restarts == "*" ? "" : r.restarts) +
               "><line x1=\"" + std::to_string(x) + "\" y1=\"" + std::to_string(kTop - 4) + "\" x2=\"" +
               std::to_string(x) + "\" y2=\"" + std::to_string(c.height - 24) +
               "\" stroke=\"#000\" stroke-dasharray=\"4 3\"/><text x=\"" + std::to_string(x + 3) + "\" y=\"" +
               std::to_string(c.height - 10) + "\">" + esc(what) + "</text></g>\n";
    }
    return svg;
}

} // namespace

std::string timeline_svg(const std::string& title, const std::vector<StepReport>& steps)
{
    LaneMap lanes;
    std::vector<std::pair<const Event*, std::string>> marks;
    std::vector<Bulk> bulk;
    collect(steps, lanes, marks, bulk);
    Canvas c;
    for (const StepReport& r : steps) {
        c.end = std::max(c.end, r.t_end);
    }
    c.scale = double(kPlotWidth) / c.end;
    c.height = kTop + static_cast<int>(lanes.size() + 2) * kLaneHeight + 30;
    std::string svg = "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" +
                      std::to_string(kLabelWidth + kPlotWidth + 40) + "\" height=\"" +
                      std::to_string(c.height) + "\" font-family=\"sans-serif\" font-size=\"11\">\n";
    svg += "<text x=\"8\" y=\"18\" font-size=\"14\">" + esc(title) + "</text>\n" + ticks(c);
    int y = kTop;
    for (const auto& kv : lanes) {
        svg += value_lane(c, kv.second, y);
        y += kLaneHeight;
    }
    svg += log_lane(c, marks, y) + bulk_lane(c, bulk, y + kLaneHeight) + restart_lines(c, steps);
    return svg + "</svg>\n";
}

} // namespace zcmd
