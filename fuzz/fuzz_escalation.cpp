/* Escalation table files of any content and length, searched with any query;
 * the result is compared with a straightforward search of the same bytes. */
#include <stdio.h>

#include <cstring>
#include <vector>

#include "fuzz_support.h"
#include "znpdklib.h"

namespace {

constexpr int kInstances = 18;
constexpr size_t kTableSize = 4096;

struct Entry {
    int valid;
    int inst;
    int sensor;
};

Entry entry(const std::vector<uint8_t>& t, int s, int target)
{
    const uint8_t* e = &t[static_cast<size_t>(s * 4 + target) * 4];
    return {static_cast<int8_t>(e[0]), static_cast<int8_t>(e[1]), e[2]};
}

bool same(const std::vector<Esc_Sensor_t>& want, const Esc_Sensor_t* got, int count)
{
    if (static_cast<size_t>(count) != want.size() || got == nullptr) {
        return false;
    }
    for (size_t i = 0; i < want.size(); ++i) {
        if (want[i].esc_spec != got[i].esc_spec || want[i].BMCInst != got[i].BMCInst ||
            want[i].Sensor_No != got[i].Sensor_No) {
            return false;
        }
    }
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const bool ready = (zsim::init(zfuzz::root()), true);
    (void)ready;
    zfuzz::Bytes in{data, size};
    Esc_Sensor_t query;
    query.esc_spec = static_cast<int>(in.u32());
    query.BMCInst = static_cast<int>(in.u32());
    query.Sensor_No = static_cast<int>(in.u32());

    /* Chunks: one byte picks the instance's file, two give its length. */
    std::vector<std::vector<uint8_t>> tables(kInstances, std::vector<uint8_t>(kTableSize, 0));
    std::vector<bool> present(kInstances, false);
    for (int f = 1; f < kInstances; ++f) {
        char name[64];
        snprintf(name, sizeof(name), "/var/nvrdisk/current/sensor/esctable_inst%02d", f);
        zsim::remove_file(name);
    }
    while (in.n > 0) {
        const int f = in.u8() % (kInstances - 1) + 1;
        size_t len = in.u8();
        len |= static_cast<size_t>(in.u8()) << 8;
        len = len < in.n ? len : in.n;
        std::vector<uint8_t> bytes(in.p, in.p + len);
        in.p += len;
        in.n -= len;
        char name[64];
        snprintf(name, sizeof(name), "/var/nvrdisk/current/sensor/esctable_inst%02d", f);
        zsim::write_file(name, bytes);
        present[f] = true;
        bytes.resize(kTableSize, 0);
        tables[f] = bytes;
    }

    std::vector<Esc_Sensor_t> matched, nodes, chassis;
    const int wanted = query.esc_spec;
    if (wanted >= 0 && wanted <= 3 && query.BMCInst >= 0 && query.BMCInst < kInstances) {
        bool found[kInstances] = {};
        bool chassis_found = false;
        auto match = [&](const std::vector<uint8_t>& t, int s, int target) {
            Entry e = entry(t, s, target);
            return e.valid != 0 && e.inst == query.BMCInst && e.sensor == query.Sensor_No;
        };
        auto record = [&](const std::vector<uint8_t>& t, int f, int s) {
            matched.push_back({0xFF, f, s});
            for (int target = 1; target <= 3; ++target) {
                Entry e = entry(t, s, target);
                if (e.valid == 0 || e.inst < 0 || e.inst >= kInstances) {
                    continue;
                }
                if (target < 3 && !found[e.inst]) {
                    nodes.push_back({target, e.inst, e.sensor});
                    found[e.inst] = true;
                } else if (target == 3 && !chassis_found) {
                    chassis.push_back({target, e.inst, e.sensor});
                    chassis_found = true;
                }
            }
        };
        for (int f = 1; f < kInstances; ++f) {
            for (int s = 0; s < 256; ++s) {
                if (match(tables[f], s, wanted)) {
                    record(tables[f], f, s);
                }
                if ((wanted == 1 || wanted == 2) && match(tables[f], s, 3 - wanted)) {
                    record(tables[f], f, s);
                }
            }
        }
    }
    nodes.insert(nodes.end(), chassis.begin(), chassis.end());

    Esc_Table_t out;
    memset(&out, 0xA5, sizeof(out));
    znpdklib_get_escalation_info(&query, &out);
    zfuzz::expect(same(matched, out.frue_list, out.frue_count), "matched FRU error sensors");
    zfuzz::expect(same(nodes, out.esc_list, out.esc_count), "escalation targets");
    free(out.frue_list);
    free(out.esc_list);
    zsim::clear_traces();
    return 0;
}
