/* Component database: shared tree, records and cross-process write locks. */
#include <errno.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>
#include <vector>

#include "sim_internal.h"
#include "znpdklib_types.h"

namespace zsim {
namespace internal {
namespace {

const char* const kTypeNames[] = {
    "SYSTEM", "CMU",      "FRUROM",   "CPU",      "CORE",     "MAC",    "MEM",    "IOC",     "QNI",
    "QNR",    "SBCC",     "THRM",     "ADC",      "GPIO",     "POL",    "PSW",    "PCIESW",  "GBE",
    "SSD",    "PCIECARD", "IOCABLE",  "AOC",      "BIOU",     "BMCFW",  "BMC",    "BMCRAM",  "SBC_N",
    "SBC_C",  "SBC_B",    "SBCRAM_N", "SBCRAM_B", "IDIAGROM", "FWEMMC", "FWFMEM", "SBCFMEM", "RTC",
    "FANC",   "PSUC",     "IORC",     "SYSFMEM",  "PSU",      "FANU",   "FAN",    "ROUTER",  "NODE",
    "CMUC",   "BOBC",     "JOB",      "DMY1",     "DMY2",     "DMY3",   "DMY4",   "DMY5",    "GIOU",
};
static_assert(sizeof(kTypeNames) / sizeof(kTypeNames[0]) == COMPO_MODEL_DEPENDENT_END - COMPO_SYSTEM,
              "one name per machine type");

/* Per-process handles: stable, never freed. */
std::mutex g_handles_mutex;
sp::sysobj::Component** g_handles = nullptr; /* never freed: handles outlive everything */

std::mutex g_violations_mutex;
std::vector<std::string> g_violations;

/* Write locks held by threads of this process, for the check after each
 * step of a run: one entry per lock taken. */
std::mutex g_held_mutex;
std::vector<int> g_held;

/* The write locks a thread holds, the last taken at the back. They are
 * counted for the process too; a thread that ends holding one is a
 * violation (its lock would stay taken). */
struct HeldLocks : std::vector<int> {
    void push_back(int oid);
    iterator erase(iterator it);
    void clear();
    ~HeldLocks();
};

thread_local HeldLocks t_held;

void add_violation(const std::string& text)
{
    std::lock_guard<std::mutex> lock(g_violations_mutex);
    g_violations.push_back(text);
}

std::string describe(int oid)
{
    std::string p = path_of(oid);
    return "oid " + std::to_string(oid) + (p.empty() ? std::string() : " " + p);
}

/* Pre-order walk below `oid` (excluding it); stops when `visit` says so. */
template <typename Visit> void walk_below(Shared* s, int oid, Visit visit)
{
    ComponentEntry* start = entry(s, oid);
    if (start == nullptr) {
        return;
    }
    std::vector<int> stack;
    if (start->first_child != 0) {
        stack.push_back(start->first_child);
    }
    while (!stack.empty()) {
        int cur = stack.back();
        stack.pop_back();
        ComponentEntry* e = entry(s, cur);
        if (e == nullptr) {
            continue;
        }
        if (!visit(cur, *e)) {
            return;
        }
        if (e->next_sibling != 0) {
            stack.push_back(e->next_sibling);
        }
        if (e->first_child != 0) {
            stack.push_back(e->first_child);
        }
    }
}

sp::sysobj::Component* handle(int oid)
{
    if (oid <= 0 || oid > kMaxComponents) {
        return nullptr;
    }
    std::lock_guard<std::mutex> lock(g_handles_mutex);
    if (g_handles == nullptr) {
        g_handles = new sp::sysobj::Component*[kMaxComponents + 1]();
    }
    if (g_handles[oid] == nullptr) {
        g_handles[oid] = new sp::sysobj::Component(oid);
    }
    return g_handles[oid];
}

int first_below(int oid, int type, int no)
{
    Shared* s = shared();
    if (s == nullptr) {
        return -1;
    }
    MetaLock lock;
    int found = -1;
    walk_below(s, oid, [&](int cur, const ComponentEntry& e) {
        if (e.type == type && e.no == no) {
            found = cur;
            return false;
        }
        return true;
    });
    return found;
}

bool valid_key(int key)
{
    return key >= kFirstKey && key < kFirstKey + kKeyCount;
}

/* Stores a record (caller holds MetaLock); false when storage is exhausted. */
bool store_record(Shared* s, ComponentEntry* e, int key, const void* data, uint32_t len)
{
    int32_t& ref = e->records[key - kFirstKey];
    if (ref == 0) {
        if (s->record_count >= kMaxRecords) {
            return false;
        }
        ref = ++s->record_count;
    }
    RecordSlot& slot = s->slots[ref - 1];
    memset(slot.data, 0, sizeof(slot.data));
    if (len > 0 && data != nullptr) {
        memcpy(slot.data, data, len);
    }
    slot.len = len;
    return true;
}

/* Parses a decimal number without sign; false for anything else. */
bool parse_number(const std::string& text, int& out)
{
    if (text.empty() || text.size() > 9) {
        return false;
    }
    int v = 0;
    for (char c : text) {
        if (c < '0' || c > '9') {
            return false;
        }
        v = v * 10 + (c - '0');
    }
    out = v;
    return true;
}

/* A child reached from `parent` in a path: a tree child first, else a
 * component that names `parent` among its further parents. */
int child_named(Shared* s, int parent, int type, int no)
{
    for (int c = s->components[parent].first_child; c != 0; c = s->components[c].next_sibling) {
        if (s->components[c].type == type && s->components[c].no == no) {
            return c;
        }
    }
    for (int c = 2; c <= s->component_count && c <= kMaxComponents; ++c) {
        const ComponentEntry& e = s->components[c];
        if (e.used == 0 || e.type != type || e.no != no) {
            continue;
        }
        for (int p : e.extra_parents) {
            if (p == parent) {
                return c;
            }
        }
    }
    return 0;
}

void HeldLocks::push_back(int oid)
{
    std::vector<int>::push_back(oid);
    std::lock_guard<std::mutex> lock(g_held_mutex);
    g_held.push_back(oid);
}

HeldLocks::iterator HeldLocks::erase(iterator it)
{
    {
        std::lock_guard<std::mutex> lock(g_held_mutex);
        auto h = std::find(g_held.begin(), g_held.end(), *it);
        if (h != g_held.end()) {
            g_held.erase(h);
        }
    }
    return std::vector<int>::erase(it);
}

void HeldLocks::clear()
{
    while (!empty()) {
        erase(end() - 1);
    }
}

HeldLocks::~HeldLocks()
{
    for (int oid : *this) {
        add_violation("thread " + std::to_string(thread_id()) + " ended holding the write lock of " +
                      describe(oid));
    }
    clear();
}

} // namespace

ComponentEntry* entry(Shared* s, int oid)
{
    if (s == nullptr || oid <= 0 || oid > kMaxComponents || oid > s->component_count) {
        return nullptr;
    }
    ComponentEntry* e = &s->components[oid];
    return e->used != 0 ? e : nullptr;
}

void reset_db_shared(Shared* s)
{
    ComponentEntry& root = s->components[1];
    root.used = 1;
    root.type = COMPO_SYSTEM;
    root.no = 0;
    s->component_count = 1;
}

void reset_db_local()
{
    std::lock_guard<std::mutex> lock(g_violations_mutex);
    g_violations.clear();
    t_held.clear();
    std::lock_guard<std::mutex> held(g_held_mutex);
    g_held.clear();
}

int resolve_path(const std::string& path)
{
    if (path.empty() || path[0] != '/') {
        return -1;
    }
    int cur = 0;
    size_t pos = 1;
    for (;;) {
        size_t slash = path.find('/', pos);
        std::string step = path.substr(pos, slash == std::string::npos ? std::string::npos : slash - pos);
        size_t hash = step.find('#');
        if (hash == std::string::npos) {
            return -1;
        }
        int type = type_from_name(step.substr(0, hash));
        int no = 0;
        if (type < 0 || !parse_number(step.substr(hash + 1), no)) {
            return -1;
        }
        Shared* s = shared();
        MetaLock lock;
        if (cur == 0) {
            ComponentEntry* root = entry(s, 1);
            if (root == nullptr || root->type != type || root->no != no) {
                return -1;
            }
            cur = 1;
        } else {
            int next = child_named(s, cur, type, no);
            if (next == 0) {
                return -1;
            }
            cur = next;
        }
        if (slash == std::string::npos) {
            return cur;
        }
        pos = slash + 1;
    }
}

int read_record(int oid, int key, void* buffer, unsigned int length)
{
    if (buffer == nullptr) {
        return -1;
    }
    Shared* s = shared();
    MetaLock lock;
    ComponentEntry* e = entry(s, oid);
    uint32_t stored = 0;
    const uint8_t* data = nullptr;
    if (e != nullptr) {
        __atomic_add_fetch(&e->reads, 1u, __ATOMIC_RELAXED);
        if (valid_key(key) && e->records[key - kFirstKey] != 0) {
            RecordSlot& slot = s->slots[e->records[key - kFirstKey] - 1];
            stored = slot.len;
            data = slot.data;
        }
    }
    uint32_t n = std::min<uint32_t>(stored, length);
    if (n > 0) {
        memcpy(buffer, data, n);
    }
    if (length > n) {
        memset(static_cast<uint8_t*>(buffer) + n, 0, length - n);
    }
    return data != nullptr ? 0 : -1;
}

} // namespace internal

using internal::ComponentEntry;
using internal::entry;
using internal::MetaLock;
using internal::Shared;
using internal::shared;

std::string type_name(int type)
{
    if (type == COMPO_MODEL_DEPENDENT_START) {
        return "";
    }
    if (type >= COMPO_SYSTEM && type < COMPO_MODEL_DEPENDENT_END) {
        return internal::kTypeNames[type - COMPO_SYSTEM];
    }
    return "";
}

int type_from_name(const std::string& name)
{
    for (int t = COMPO_SYSTEM; t < COMPO_MODEL_DEPENDENT_END; ++t) {
        if (name == internal::kTypeNames[t - COMPO_SYSTEM]) {
            return t;
        }
    }
    if (name == "BMCB") {
        return COMPO_BMCB;
    }
    if (name == "BMCIF") {
        return COMPO_BMCIF;
    }
    return -1;
}

int add_component(int type, int no, const std::vector<int>& parents)
{
    Shared* s = shared();
    MetaLock lock;
    int tree_parent = parents.empty() ? 1 : parents[0];
    ComponentEntry* p = entry(s, tree_parent);
    if (p == nullptr || s->component_count >= internal::kMaxComponents) {
        return -1;
    }
    int oid = ++s->component_count;
    ComponentEntry& e = s->components[oid];
    memset(&e, 0, sizeof(e));
    e.used = 1;
    e.type = type;
    e.no = no;
    e.parent = tree_parent;
    for (size_t i = 1; i < parents.size() && i <= static_cast<size_t>(internal::kMaxParents); ++i) {
        e.extra_parents[i - 1] = parents[i];
    }
    if (p->last_child == 0) {
        p->first_child = oid;
    } else {
        s->components[p->last_child].next_sibling = oid;
    }
    p->last_child = oid;
    return oid;
}

void remove_component(int oid)
{
    Shared* s = shared();
    MetaLock lock;
    ComponentEntry* e = entry(s, oid);
    if (e == nullptr) {
        return;
    }
    ComponentEntry* p = entry(s, e->parent);
    if (p != nullptr) {
        int prev = 0;
        for (int c = p->first_child; c != 0; prev = c, c = s->components[c].next_sibling) {
            if (c != oid) {
                continue;
            }
            if (prev == 0) {
                p->first_child = e->next_sibling;
            } else {
                s->components[prev].next_sibling = e->next_sibling;
            }
            if (p->last_child == oid) {
                p->last_child = prev;
            }
            break;
        }
    }
    std::vector<int> doomed;
    internal::walk_below(s, oid, [&](int cur, const ComponentEntry&) {
        doomed.push_back(cur);
        return true;
    });
    doomed.push_back(oid);
    for (int d : doomed) {
        s->components[d].used = 0;
    }
}

int find(int type, int no)
{
    Shared* s = shared();
    {
        MetaLock lock;
        ComponentEntry* root = entry(s, 1);
        if (root != nullptr && root->type == type && root->no == no) {
            return 1;
        }
    }
    return internal::first_below(1, type, no);
}

int find_below(int parent, int type, int no)
{
    return internal::first_below(parent, type, no);
}

int find_path(const std::string& path)
{
    return internal::resolve_path(path);
}

std::string path_of(int oid)
{
    Shared* s = shared();
    MetaLock lock;
    std::string out;
    for (int guard = 0; guard <= internal::kMaxComponents; ++guard) {
        ComponentEntry* e = entry(s, oid);
        if (e == nullptr) {
            return guard == 0 ? std::string() : out;
        }
        std::string name = type_name(e->type);
        if (name.empty()) {
            name = std::to_string(e->type);
        }
        out = "/" + name + "#" + std::to_string(e->no) + out;
        oid = e->parent;
    }
    return out;
}

sp::sysobj::Component* component(int oid)
{
    {
        MetaLock lock;
        if (entry(shared(), oid) == nullptr) {
            return nullptr;
        }
    }
    return internal::handle(oid);
}

void set_record(int oid, int key, const void* data, size_t len)
{
    if (!internal::valid_key(key) || len > internal::kMaxRecord) {
        return;
    }
    Shared* s = shared();
    MetaLock lock;
    ComponentEntry* e = entry(s, oid);
    if (e != nullptr) {
        internal::store_record(s, e, key, data, static_cast<uint32_t>(len));
    }
}

std::vector<uint8_t> record(int oid, int key)
{
    Shared* s = shared();
    MetaLock lock;
    ComponentEntry* e = entry(s, oid);
    if (e == nullptr || !internal::valid_key(key) || e->records[key - internal::kFirstKey] == 0) {
        return {};
    }
    const internal::RecordSlot& slot = s->slots[e->records[key - internal::kFirstKey] - 1];
    return std::vector<uint8_t>(slot.data, slot.data + slot.len);
}

int property_reads(int oid)
{
    MetaLock lock;
    ComponentEntry* e = entry(shared(), oid);
    return e == nullptr ? 0 : static_cast<int>(__atomic_load_n(&e->reads, __ATOMIC_RELAXED));
}

int property_writes(int oid)
{
    MetaLock lock;
    ComponentEntry* e = entry(shared(), oid);
    return e == nullptr ? 0 : static_cast<int>(__atomic_load_n(&e->writes, __ATOMIC_RELAXED));
}

std::vector<std::string> locks_held()
{
    std::vector<std::string> out;
    for (int inst : internal::sensor_mutexes_held()) {
        out.push_back("the sensor mutex of instance " + std::to_string(inst));
    }
    std::vector<int> held;
    {
        std::lock_guard<std::mutex> lock(internal::g_held_mutex);
        held = internal::g_held;
    }
    for (int oid : held) {
        out.push_back("the write lock of " + internal::describe(oid));
    }
    for (const TakenSemaphore& t : semaphores_taken()) {
        if (t.pid == getpid()) {
            out.push_back("the semaphore " + t.name);
        }
    }
    return out;
}

std::vector<std::string> lock_violations()
{
    std::lock_guard<std::mutex> lock(internal::g_violations_mutex);
    return internal::g_violations;
}

} // namespace zsim

/* ---- The database interface -------------------------------------------- */

namespace sp {
namespace sysobj {

using zsim::internal::ComponentEntry;
using zsim::internal::entry;
using zsim::internal::MetaLock;
using zsim::internal::shared;

Component* Component::getRoot()
{
    return zsim::component(1);
}

Component* Component::getComponent(int type, int no)
{
    int oid = zsim::internal::first_below(oid_, type, no);
    return oid > 0 ? zsim::internal::handle(oid) : nullptr;
}

void Component::getComponent(int type, std::vector<Component*>& list)
{
    std::vector<int> found;
    {
        MetaLock lock;
        zsim::internal::walk_below(shared(), oid_, [&](int cur, const ComponentEntry& e) {
            if (e.type == type) {
                found.push_back(cur);
            }
            return true;
        });
    }
    for (int oid : found) {
        list.push_back(zsim::internal::handle(oid));
    }
}

void Component::getComponent(std::vector<Component*>& list, bool recursive)
{
    std::vector<int> found;
    {
        MetaLock lock;
        zsim::internal::Shared* s = shared();
        if (recursive) {
            zsim::internal::walk_below(s, oid_, [&](int cur, const ComponentEntry&) {
                found.push_back(cur);
                return true;
            });
        } else if (ComponentEntry* e = entry(s, oid_)) {
            for (int c = e->first_child; c != 0; c = s->components[c].next_sibling) {
                found.push_back(c);
            }
        }
    }
    for (int oid : found) {
        list.push_back(zsim::internal::handle(oid));
    }
}

void Component::getParents(int type, std::vector<Component*>& list)
{
    std::vector<int> found;
    {
        MetaLock lock;
        zsim::internal::Shared* s = shared();
        ComponentEntry* e = entry(s, oid_);
        if (e != nullptr) {
            int candidates[1 + zsim::internal::kMaxParents] = {e->parent};
            std::copy(e->extra_parents, e->extra_parents + zsim::internal::kMaxParents, candidates + 1);
            for (int p : candidates) {
                ComponentEntry* pe = entry(s, p);
                if (pe != nullptr && pe->type == type) {
                    found.push_back(p);
                }
            }
        }
    }
    for (int oid : found) {
        list.push_back(zsim::internal::handle(oid));
    }
}

Component* Component::getParent()
{
    int parent = 0;
    {
        MetaLock lock;
        ComponentEntry* e = entry(shared(), oid_);
        parent = e != nullptr ? e->parent : 0;
    }
    return zsim::component(parent);
}

int Component::getType()
{
    MetaLock lock;
    ComponentEntry* e = entry(shared(), oid_);
    return e != nullptr ? e->type : -1;
}

int Component::getNo()
{
    MetaLock lock;
    ComponentEntry* e = entry(shared(), oid_);
    return e != nullptr ? e->no : -1;
}

int Component::getComponentId()
{
    return oid_;
}

int Component::getProperty(int key, void* buffer, unsigned int length)
{
    return zsim::internal::read_record(oid_, key, buffer, length);
}

int Component::setProperty(int key, const void* buffer, unsigned int length)
{
    if (!zsim::internal::valid_key(key) || length > zsim::internal::kMaxRecord ||
        (buffer == nullptr && length > 0)) {
        return -1;
    }
    zsim::internal::reach(zsim::KillPoint::RecordWrite);
    bool stored = false;
    {
        zsim::internal::Shared* s = shared();
        MetaLock lock;
        ComponentEntry* e = entry(s, oid_);
        if (e == nullptr) {
            return -1;
        }
        __atomic_add_fetch(&e->writes, 1u, __ATOMIC_RELAXED);
        stored = zsim::internal::store_record(s, e, key, buffer, length);
    }
    zsim::internal::reach(zsim::KillPoint::RecordWrite);
    return stored ? 0 : -1;
}

void Component::writeLock()
{
    using zsim::internal::t_held;
    if (!t_held.empty()) {
        zsim::internal::add_violation("thread " + std::to_string(zsim::internal::thread_id()) +
                                      " took the write lock of " + zsim::internal::describe(oid_) +
                                      " while holding " + zsim::internal::describe(t_held.back()));
    }
    zsim::internal::SharedLock* l = nullptr;
    {
        MetaLock lock;
        ComponentEntry* e = entry(shared(), oid_);
        if (e != nullptr) {
            l = &e->lock;
        }
    }
    if (l == nullptr) {
        return;
    }
    /* A second lock by the holder reports instead of hanging. */
    if (zsim::internal::lock_shared(l, oid_) == 0) {
        t_held.push_back(oid_);
    }
}

void Component::writeUnlock()
{
    using zsim::internal::t_held;
    auto it = std::find(t_held.rbegin(), t_held.rend(), oid_);
    if (it == t_held.rend()) {
        zsim::internal::add_violation("thread " + std::to_string(zsim::internal::thread_id()) +
                                      " released the write lock of " + zsim::internal::describe(oid_) +
                                      " that it does not hold");
        return;
    }
    t_held.erase(std::next(it).base());
    MetaLock lock;
    ComponentEntry* e = entry(shared(), oid_);
    if (e != nullptr) {
        zsim::internal::unlock_shared(&e->lock);
    }
}

TreePath::TreePath(const std::string path) : compo_(nullptr)
{
    int oid = zsim::internal::resolve_path(path);
    if (oid > 0) {
        compo_ = zsim::internal::handle(oid);
    }
}

TreePath::~TreePath() = default;

Component* TreePath::getComponent()
{
    return compo_;
}

} // namespace sysobj
} // namespace sp
