/* Reading a scenario file: its members, the set-up and the steps, each
 * step's action and expectations, checked as they are read. */
#include "scenario/scenario.h"

#include <algorithm>
#include <memory>

#include "run/functions.h"
#include "run/runner.h"
#include "scenario/scenario_parts.h"
#include "znpdk_sim/sim.h"

namespace zcmd {

namespace {

/* `part`: a step of a kill or "together" step, which runs in the process that step names. */
Step parse_step(const Node& n, bool in_setup, bool part = false);

/* The names of a table, for hints. */
template <typename Table> std::vector<std::string> names_of(const Table& t)
{
    std::vector<std::string> out;
    for (const auto& kv : t) {
        out.push_back(kv.first);
    }
    return out;
}

/* The points a named process can be killed at, by the names scenarios use. */
const std::map<std::string, zsim::KillPoint>& kill_points()
{
    static const std::map<std::string, zsim::KillPoint> t = {
        {"holding save-area semaphore", zsim::KillPoint::SaveAreaSemHeld},
        {"writing component record", zsim::KillPoint::RecordWrite},
        {"rebuilding escalation table", zsim::KillPoint::EscalationWrite},
        {"fan check poll", zsim::KillPoint::FanCheckPoll},
    };
    return t;
}

/* A step that runs in a named process as part of a kill or "together" step. */
Step part_step(const Node& n, const std::string& process)
{
    size_t before = mistakes_noted();
    Step p = parse_step(n, false, true);
    if (mistakes_noted() != before) {
        return p; /* a step with mistakes tells nothing sure about its process */
    }
    if (!process.empty() && p.process.empty()) {
        p.process = process;
    }
    if (p.process.empty() || (!process.empty() && p.process != process)) {
        n.fail(process.empty() ? "each step here names its process (\"process\": \"...\")"
                               : "this step runs in the process that is killed, " + process);
    }
    if (p.kind == "kill" || p.kind == "together" || p.kind == "expect" || !p.restarts.empty() ||
        p.background || (!process.empty() && !p.checks.empty())) {
        n.fail(
            "here a step is an action run in its process (a call, a sensor change, ...), not a kill, "
            "restart, \"together\", background call or bare expectation; a killed step's expectations go on "
            "the kill step");
    }
    return p;
}

/* {"kill": {"process": P, "while": POINT, "at": N, "during": STEP}}: P dies by
 * SIGKILL at the N-th visit of POINT while it runs STEP. */
Action act_kill(const Node& v, Step& st)
{
    ObjReader r(v);
    std::string name = get_string(r.at("process"), "a process name");
    Node w = r.at("while");
    std::string point = get_string(w, "a kill point");
    auto k = kill_points().find(point);
    if (k == kill_points().end()) {
        w.fail("unknown kill point \"" + point + "\"" +
               name_hint(point, names_of(kill_points()), "kill points"));
    }
    st.kill_visit = static_cast<int>(opt_int(r, "at", 1, 1, 1000000, "the visit of the point to die at"));
    st.parts.push_back(part_step(r.at("during"), name));
    r.finish();
    st.kill_point = static_cast<int>(k->second);
    st.kill_while = point;
    st.text = "process " + name + " is killed while " + point + " during " + st.parts[0].text;
    return [](Runner& run, StepReport& rep) { run.processes().kill(*rep.step, run, rep); };
}

/* {"together": [STEP, ...]}: steps of different processes start at one barrier. */
Action act_together(const Node& v, Step& st)
{
    if (!v->is_array() || v->size() < 2) {
        v.fail("expected a list of two or more steps, each in its own process");
    }
    for (size_t i = 0; i < v->size(); ++i) {
        read_on([&] {
            Step p = part_step(v.at(i), "");
            for (const Step& q : st.parts) {
                if (q.process == p.process) {
                    v.at(i).fail("process " + p.process + " has a step here already; one step per process");
                }
            }
            st.text += (st.text.empty() ? "together: " : "; ") + p.process + ": " + p.text;
            st.parts.push_back(std::move(p));
        });
    }
    return [](Runner& run, StepReport& rep) { run.processes().together(*rep.step, run, rep); };
}

const ActionTable& action_parsers()
{
    static const ActionTable t = [] {
        ActionTable all;
        add_machine_actions(all);
        add_device_actions(all);
        add_procedure_actions(all);
        all["kill"] = act_kill;
        all["together"] = act_together;
        return all;
    }();
    return t;
}

std::string listed(const std::vector<std::string>& names)
{
    std::string s;
    for (const std::string& n : names) {
        s += (s.empty() ? "" : ", ") + n;
    }
    return s;
}

/* What a step holds besides its action. */
const std::vector<std::string> kStepMembers = {"label", "process", "report", "args", "background", "expect"};

/* A name that is neither an action nor a member of a step, with the
 * nearest of both (a misspelt action or member alike). */
ScenarioError unknown_step(const Node& n, const std::string& key, const ActionTable& actions)
{
    std::vector<std::string> names = names_of(actions);
    std::vector<std::string> all = names;
    all.insert(all.end(), kStepMembers.begin(), kStepMembers.end());
    std::string hint = did_you_mean(key, all);
    return Node{&(*n)[key], ptr_add(n.ptr, key)}.mistake(
        "unknown step \"" + key + "\"" + (hint.empty() ? name_hint(key, names, "steps") : hint), true);
}

/* The one action key of a step ("" for a step of expectations only). */
std::string step_kind(const Node& n, const ActionTable& actions)
{
    std::string kind;
    for (auto it = n->begin(); it != n->end(); ++it) {
        if (actions.count(it.key())) {
            if (!kind.empty()) {
                n.fail("a step does one thing: both \"" + kind + "\" and \"" + it.key() + "\" given");
            }
            kind = it.key();
        }
    }
    return kind;
}

void read_presentation(ObjReader& r, Step& st)
{
    read_on([&] {
        if (Node l = r.opt("label"); l.j) {
            st.label = get_string(l, "a label");
        }
    });
    read_on([&] {
        if (Node p = r.opt("process"); p.j) {
            st.process = get_string(p, "a process name");
            if (st.process.empty() ||
                st.process.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789_-") != std::string::npos) {
                p.fail("a process name is a word of lower-case letters, digits, \"_\" and \"-\", such as "
                       "\"fan\"");
            }
        }
    });
    read_on([&] {
        if (Node rp = r.opt("report"); rp.j) {
            st.report = get_string(rp, "full, summary or quiet");
            if (st.report != "full" && st.report != "summary" && st.report != "quiet") {
                rp.fail("expected \"full\", \"summary\" or \"quiet\"");
            }
        }
    });
}

/* A call step: the arguments are a sibling of "call". */
void read_call(ObjReader& r, const Node& v, Step& st)
{
    const Function* f = find_function(v->get<std::string>());
    st.function = f->name;
    st.callee = f;
    auto arg_list = std::make_shared<std::vector<ArgSpec>>(parse_args(*f, r.opt("args")));
    st.text = call_text(*f, *arg_list);
    for (const ArgSpec& a : *arg_list) {
        st.arg_bits.push_back(a.bits);
    }
    st.action = [f, arg_list](Runner& run, StepReport& rep) {
        CallResult res = call_function(*f, *arg_list);
        rep.has_call = true;
        run.has_call = res.error.empty();
        run.last_ret = res.ret;
        run.last_out = res.out;
        rep.ret = res.ret;
        rep.out = res.out;
        if (!res.error.empty()) {
            run.fail(rep, rep.where, res.error);
        }
    };
    if (Node b = r.opt("background"); b.j) {
        st.background = get_bool(b, "true or false");
        /* A named process hands its states back when the step ends, so its threads end with it. */
        if (st.background && !st.process.empty()) {
            b.fail("a step in a named process waits for the library's threads; \"background\" is for the "
                   "runner's own process");
        }
    }
}

void read_expectations(const Node& e, Step& st)
{
    ObjReader er(e);
    const CheckTable& checks = expectation_parsers();
    for (auto it = e->begin(); it != e->end(); ++it) {
        auto p = checks.find(it.key());
        if (p == checks.end()) {
            note(Node{&it.value(), ptr_add(e.ptr, it.key())}.mistake(
                "unknown expectation \"" + it.key() + "\"" +
                    name_hint(it.key(), names_of(checks), "expectations"),
                true));
            continue;
        }
        read_on([&] { p->second(er.at(it.key()), st.checks, st); });
    }
}

Step parse_step(const Node& n, bool in_setup, bool part)
{
    Step st;
    st.where = n.ptr;
    ObjReader r(n);
    const ActionTable& actions = action_parsers();
    std::string kind = step_kind(n, actions);
    bool unknown = false;
    for (auto it = n->begin(); kind.empty() && it != n->end(); ++it) {
        if (std::find(kStepMembers.begin(), kStepMembers.end(), it.key()) == kStepMembers.end()) {
            note(unknown_step(n, it.key(), actions));
            r.mark_read(it.key());
            unknown = true;
        }
    }
    if (kind.empty() && !unknown && !(r.has("expect") && !in_setup)) {
        n.fail("a step needs one of: " + listed(names_of(actions)) +
               (in_setup ? "" : " (or only \"expect\")"));
    }
    read_presentation(r, st);
    st.kind = kind.empty() ? "expect" : kind;
    if (!kind.empty()) {
        Node v = r.at(kind);
        bool read = read_on([&] {
            st.action = actions.at(kind)(v, st);
            if (kind == "call") {
                read_call(r, v, st);
            }
        });
        if (!read && kind == "call") {
            r.mark_read("args"); /* they belong to a call that cannot be read */
            r.mark_read("background");
        }
    }
    bool& rebooted = machine_rebooted();
    if (kind == "call" && st.process.empty() && rebooted && !part) {
        note(n.mistake("after a BMC reboot or AC power cycle the runner's own process holds the library of "
                       "before; name the process this call runs in (\"process\": \"...\")"));
    }
    if (st.restarts == "*") {
        rebooted = true;
    }
    if (Node e = r.opt("expect"); e.j) {
        read_on([&] {
            if (in_setup) {
                e.fail("the set-up has no expectations; put them in a step");
            }
            read_expectations(e, st);
        });
    }
    r.finish();
    return st;
}

std::vector<Step> parse_steps(const Node& n, bool in_setup)
{
    if (!n->is_array()) {
        n.fail("expected a list of steps");
    }
    std::vector<Step> out;
    for (size_t i = 0; i < n->size(); ++i) {
        read_on([&] { out.push_back(parse_step(n.at(i), in_setup)); });
    }
    return out;
}

} // namespace

std::vector<std::string> missing_functions(const Scenario& s)
{
    std::vector<std::string> out;
    for (const std::vector<Step>* list : {&s.setup, &s.steps}) {
        for (const Step& st : *list) {
            if (!st.function.empty() && library_symbol(st.function) == nullptr &&
                std::find(out.begin(), out.end(), st.function) == out.end()) {
                out.push_back(st.function);
            }
        }
    }
    if (s.save_area && library_symbol("ZNAPI_MemSensorAreaInit") == nullptr) {
        out.push_back("ZNAPI_MemSensorAreaInit");
    }
    return out;
}

namespace {

/* A text that is no JSON: nothing after the mistake can be read. */
ScenarioError syntax_error(const std::string& text, size_t offset, const std::string& what)
{
    std::pair<size_t, size_t> lc = line_column(text, offset);
    ScenarioError e("line " + std::to_string(lc.first) + ", column " + std::to_string(lc.second), what);
    e.set_mistakes({Mistake{"", what, lc.first, lc.second}});
    return e;
}

void read_scenario(const json& doc, Scenario& s)
{
    Node root{&doc, ""};
    ObjReader r(root);
    read_on([&] { s.name = get_string(r.at("name"), "the scenario's name"); });
    read_on([&] {
        if (Node d = r.opt("description"); d.j) {
            s.description = get_string(d, "a description");
        }
    });
    read_on([&] {
        if (Node m = r.opt("machine"); m.j) {
            std::string v = get_string(m, "\"default\" or \"empty\"");
            if (v != "default" && v != "empty") {
                m.fail("expected \"default\" (the fully populated chassis) or \"empty\" (only the root)");
            }
            s.default_machine = v == "default";
        }
    });
    read_on([&] {
        if (Node a = r.opt("save_area"); a.j) {
            s.save_area = get_bool(a, "true or false");
        }
    });
    read_on([&] {
        s.sem_wait_ms =
            static_cast<int>(opt_int(r, "sem_wait_ms", 0, 1, 600000, "milliseconds of real time"));
    });
    read_on([&] {
        if (Node inv = r.opt("invariants"); inv.j) {
            s.invariants = get_bool(inv, "true or false");
        }
    });
    MachineModel machine(s.default_machine);
    if (Node st = r.opt("setup"); st.j) {
        read_on([&] { s.setup = parse_steps(st, true); });
    }
    read_on([&] { s.steps = parse_steps(r.at("steps"), false); });
    r.finish();
}

} // namespace

Scenario load_scenario(const std::string& text, const std::string& file)
{
    json doc;
    try {
        doc = json::parse(text);
    } catch (const json::parse_error& e) {
        std::string msg = e.what();
        size_t cut = msg.find("syntax error");
        throw syntax_error(text, e.byte == 0 ? 0 : e.byte - 1,
                           cut == std::string::npos ? msg : msg.substr(cut));
    } catch (const json::out_of_range& e) {
        // A number too large for a double: the reader names it but gives no byte, so find it.
        std::string msg = e.what();
        size_t open = msg.find('\'');
        size_t close = open == std::string::npos ? open : msg.find('\'', open + 1);
        size_t at = close == std::string::npos ? 0 : text.find(msg.substr(open + 1, close - open - 1));
        throw syntax_error(text, at == std::string::npos ? 0 : at,
                           "number out of range: " +
                               (close == std::string::npos ? msg : msg.substr(open, close - open + 1)));
    }
    Scenario s;
    s.file = file;
    MistakeList noted;
    read_on([&] { read_scenario(doc, s); });
    if (!noted.errors.empty()) {
        std::vector<Mistake> all = place_mistakes(text, noted.errors);
        ScenarioError first(all[0].where, all[0].what);
        first.set_mistakes(std::move(all));
        throw first;
    }
    return s;
}

} // namespace zcmd
