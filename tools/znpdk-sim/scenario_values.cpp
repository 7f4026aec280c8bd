/* Values of scenario files read once, checked where they stand: instances,
 * numbers, component paths, records and changes to their fields. */
#include "scenario_parts.h"

#include <cstring>

#include "znpdk_sim/sim.h"

namespace zcmd {

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
            n.fail("unknown component type \"" + step.substr(0, hash) + "\"");
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
        std::string names;
        for (const RecordKind& r : record_kinds()) {
            names += (names.empty() ? "" : ", ") + std::string(r.name);
        }
        n.fail("unknown record \"" + name + "\" (records: " + names + ")");
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
        key_node.fail(std::string("unknown field: ") + e.what());
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
