/* Values of scenario files read once, checked where they stand: instances,
 * numbers, component paths, records and changes to their fields. */
#include "scenario/scenario_parts.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <set>

#include "run/runner.h"
#include "znpdk_sim/sim.h"
#include "znpdklib_types.h"

namespace zcmd {

namespace {

/* Every path by which a component of the machine is reached, kept while a
 * scenario is read so that steps name components that exist then. */
std::set<std::string>* g_machine = nullptr;

/* Past the last machine component type (names are looked up, gaps skipped). */
constexpr int kLastType = COMPO_SYSTEM + 128;

/* Every path of one component: through its tree parent and through each
 * further parent (a node is reached below its CMU and below the root). */
void paths_of(sp::sysobj::Component* c, std::map<int, std::vector<std::string>>& memo)
{
    int oid = c->getComponentId();
    if (memo.count(oid)) {
        return;
    }
    std::vector<std::string>& mine = memo[oid];
    std::string canonical = zsim::path_of(oid);
    std::string step = canonical.substr(canonical.rfind('/'));
    for (int type = COMPO_SYSTEM; type < kLastType; ++type) {
        if (zsim::type_name(type).empty()) {
            continue;
        }
        std::vector<sp::sysobj::Component*> parents;
        c->getParents(type, parents);
        for (sp::sysobj::Component* p : parents) {
            paths_of(p, memo);
            for (const std::string& pp : memo[p->getComponentId()]) {
                mine.push_back(pp + step);
            }
        }
    }
    if (mine.empty()) {
        mine.push_back(canonical);
    }
}

std::string machine_listing()
{
    std::map<int, std::vector<std::string>> memo;
    std::vector<sp::sysobj::Component*> all;
    sp::sysobj::Component::getRoot()->getComponent(all, true);
    std::string out;
    for (sp::sysobj::Component* c : all) {
        paths_of(c, memo);
        for (const std::string& p : memo[c->getComponentId()]) {
            out += p + "\n";
        }
    }
    return out;
}

/* The default machine's paths, from a machine built in a child process
 * (this process's own machine, if any, stays as it is). */
std::set<std::string> default_machine_paths()
{
    std::set<std::string> paths;
    int fds[2];
    if (pipe(fds) != 0) {
        return paths;
    }
    std::fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        char tmpl[] = "/tmp/znpdk-sim-XXXXXX";
        std::string out;
        if (char* dir = mkdtemp(tmpl); dir != nullptr) {
            zsim::init(dir);
            zsim::build_default_machine();
            out = machine_listing();
            std::error_code ec;
            std::filesystem::remove_all(dir, ec);
        }
        for (size_t done = 0; done < out.size();) {
            ssize_t n = write(fds[1], out.data() + done, out.size() - done);
            if (n <= 0) {
                break;
            }
            done += static_cast<size_t>(n);
        }
        _exit(0);
    }
    close(fds[1]);
    std::string text;
    char buf[4096];
    for (ssize_t n; (n = read(fds[0], buf, sizeof buf)) > 0;) {
        text.append(buf, static_cast<size_t>(n));
    }
    close(fds[0]);
    if (pid > 0) {
        waitpid(pid, nullptr, 0);
    }
    for (size_t at = 0, nl; (nl = text.find('\n', at)) != std::string::npos; at = nl + 1) {
        paths.insert(text.substr(at, nl - at));
    }
    if (!paths.empty()) {
        paths.insert("/SYSTEM#0");
    }
    return paths; /* empty: the machine could not be built, paths go unchecked */
}

} // namespace

bool& machine_rebooted()
{
    static bool rebooted = false;
    return rebooted;
}

MachineModel::MachineModel(bool default_machine)
{
    machine_rebooted() = false;
    static const std::set<std::string> kDefault = default_machine_paths();
    paths_ = default_machine ? kDefault : std::set<std::string>{"/SYSTEM#0"};
    g_machine = paths_.empty() ? nullptr : &paths_;
}

MachineModel::~MachineModel()
{
    g_machine = nullptr;
}

void require_component(const Node& n, const std::string& path)
{
    if (g_machine != nullptr && g_machine->count(full_path(path)) == 0) {
        n.fail("the machine has no component " + full_path(path) +
               " at this step (\"znpdk-sim machine\" lists the default machine; add_component adds one)");
    }
}

std::string existing_component(const Node& n)
{
    std::string p = path_of(n);
    require_component(n, p);
    return p;
}

void machine_added(const std::string& path, const std::vector<std::string>& parents)
{
    if (g_machine == nullptr) {
        return;
    }
    std::string step = path.substr(path.rfind('/'));
    g_machine->insert(full_path(path));
    for (const std::string& p : parents) {
        g_machine->insert(full_path(p) + step);
    }
}

void machine_removed(const std::string& path)
{
    if (g_machine == nullptr) {
        return;
    }
    std::string p = full_path(path);
    for (auto it = g_machine->lower_bound(p); it != g_machine->end() && it->compare(0, p.size(), p) == 0;) {
        bool below = it->size() == p.size() || (*it)[p.size()] == '/';
        it = below ? g_machine->erase(it) : std::next(it);
    }
}

int inst_of(const Node& n)
{
    return static_cast<int>(get_int(n, 0, 17, "a BMC instance"));
}
uint8_t u8_of(const Node& n, const char* what)
{
    return static_cast<uint8_t>(get_int(n, 0, 255, what));
}
uint32_t u32_of(const Node& n, const char* what)
{
    return static_cast<uint32_t>(get_int(n, INT32_MIN, UINT32_MAX, what));
}
int i32_of(const Node& n, const char* what)
{
    return static_cast<int>(get_int(n, INT32_MIN, INT32_MAX, what));
}

/* A component path checked for its form ("/SYSTEM#0/TYPE#n/..." or without the root). */
std::string path_of(const Node& n)
{
    std::string p = get_string(n, "a component path");
    if (p.empty() || p[0] != '/') {
        n.fail("a component path begins with \"/\", such as \"/SYSTEM#0/PSU#3\"");
    }
    size_t i = 1;
    while (i < p.size()) {
        size_t end = p.find('/', i);
        std::string step = p.substr(i, end == std::string::npos ? std::string::npos : end - i);
        size_t hash = step.find('#');
        uint64_t no;
        if (hash == std::string::npos || !parse_uint_text(step.substr(hash + 1), no)) {
            n.fail("\"" + step + "\" is not a component step of the form TYPE#number");
        }
        if (zsim::type_from_name(step.substr(0, hash)) <= 0) {
            std::vector<std::string> types;
            for (int type = COMPO_SYSTEM; type < kLastType; ++type) {
                if (!zsim::type_name(type).empty()) {
                    types.push_back(zsim::type_name(type));
                }
            }
            n.fail("unknown component type \"" + step.substr(0, hash) + "\"" +
                   did_you_mean(step.substr(0, hash), types));
        }
        i = end == std::string::npos ? p.size() : end + 1;
    }
    return p;
}

const RecordKind& record_of(const Node& n)
{
    std::string name = get_string(n, "a record name");
    const RecordKind* k = find_record(name);
    if (k == nullptr) {
        std::vector<std::string> known;
        for (const RecordKind& r : record_kinds()) {
            known.emplace_back(r.name);
        }
        n.fail("unknown record \"" + name + "\"" + name_hint(name, known, "records"));
    }
    return *k;
}

void check_fields(const Type& t, const Node& fields)
{
    std::vector<uint8_t> scratch(t.size, 0);
    fill(scratch.data(), t, fields);
}

Ref bits_field(const Type& t, const Node& key_node, const std::string& key)
{
    Ref r;
    try {
        r = resolve(t, key);
    } catch (const std::invalid_argument& e) {
        key_node.fail_name(std::string("unknown field: ") + e.what());
    }
    if (r.type->is_struct || !r.dims.empty() || r.type->scalar == Scalar::Pointer) {
        key_node.fail("\"" + key + "\" is not a single number");
    }
    return r;
}

/* set / set_bits / clear_bits of one record, checked now, applied later. */
void RecordChange::parse(ObjReader& r)
{
    where = r.node().ptr;
    Node s = r.opt("set");
    if (s.j != nullptr) {
        check_fields(*type, s);
        set = *s;
    }
    for (const char* which : {"set_bits", "clear_bits"}) {
        Node b = r.opt(which);
        if (b.j == nullptr) {
            continue;
        }
        ObjReader br(b);
        for (auto it = b->begin(); it != b->end(); ++it) {
            Node v = br.at(it.key());
            Ref ref = bits_field(*type, v, it.key());
            uint64_t mask = get_uint(v, UINT64_MAX, "a bit mask");
            (std::strcmp(which, "set_bits") == 0 ? set_bits : clear_bits).emplace_back(ref, mask);
        }
    }
}
void RecordChange::apply(std::vector<uint8_t>& bytes) const
{
    bytes.resize(type->size, 0);
    if (!set.is_null()) {
        fill(bytes.data(), *type, Node{&set, where + "/set"});
    }
    auto update = [&](const Ref& ref, uint64_t mask, bool on) {
        uint64_t v = 0;
        std::memcpy(&v, bytes.data() + ref.offset, ref.type->size);
        v = on ? (v | mask) : (v & ~mask);
        std::memcpy(bytes.data() + ref.offset, &v, ref.type->size);
    };
    for (const auto& b : set_bits) {
        update(b.first, b.second, true);
    }
    for (const auto& b : clear_bits) {
        update(b.first, b.second, false);
    }
}

Action sequence(std::vector<Action> parts)
{
    return [parts](Runner& run, StepReport& rep) {
        for (const Action& a : parts) {
            a(run, rep);
        }
    };
}

} // namespace zcmd
