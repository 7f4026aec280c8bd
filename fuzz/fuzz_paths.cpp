/* Component paths and path lists from outside: unit position ids, the
 * emergency-outage check of a procedure's target list, and record clearing
 * with any unit number and mask, on the default machine. */
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "fuzz_support.h"
#include "znpdklib.h"

namespace {

bool all_zero(const unit_position_id_t& id)
{
    static const unit_position_id_t zero{};
    return memcmp(&id, &zero, sizeof(id)) == 0;
}

/* Unused layers stay 0. */
bool layers_tidy(const unit_position_id_t& id)
{
    for (int i = id.count; i < 6; ++i) {
        if (id.partLayer[i] != 0) {
            return false;
        }
    }
    return id.count >= 1 && id.count <= 3;
}

int layers_of_code(int up)
{
    static const std::pair<int, int> kLayers[] = {{1, 1},  {2, 1},  {3, 1},   {4, 1},  {5, 1},
                                                  {7, 1},  {8, 1},  {128, 1}, {23, 2}, {19, 3},
                                                  {20, 3}, {33, 3}, {34, 3}};
    for (const auto& [code, layers] : kLayers) {
        if (code == up) {
            return layers;
        }
    }
    return 0;
}

std::vector<std::string> split(const std::string& s)
{
    std::vector<std::string> out(1);
    for (char c : s) {
        if (c == ',') {
            out.emplace_back();
        } else {
            out.back() += c;
        }
    }
    return out;
}

int expected_outage_answer(const std::string& list)
{
    for (const std::string& e : split(list)) {
        const int oid = zsim::find_path(e);
        if (oid < 0) {
            return -1;
        }
        const int type = zsim::component(oid)->getType();
        if (type != COMPO_BOBC && type != COMPO_CMUC && type != COMPO_NODE && type != COMPO_ROUTER) {
            return -1;
        }
    }
    return 0; /* nothing on the default machine is in emergency outage */
}

void clear_records(int which, int no, uint32_t offbit)
{
    static void (*const kClear[])(int, uint32_t) = {
        znpdklib_cleardb_biou, znpdklib_cleardb_giou,   znpdklib_cleardb_psu, znpdklib_cleardb_cmu,
        znpdklib_cleardb_iorc, znpdklib_cleardb_system, znpdklib_cleardb_fanu};
    static const int kType[] = {COMPO_BIOU, COMPO_GIOU,   COMPO_PSU, COMPO_CMU,
                                COMPO_IORC, COMPO_SYSTEM, COMPO_FANU};
    const int n = static_cast<int>(sizeof(kType) / sizeof(kType[0]));
    which %= n;
    /* BIOU and the root have one instance each: the number is not used. */
    const int unit =
        kType[which] == COMPO_SYSTEM ? 1 : zsim::find(kType[which], kType[which] == COMPO_BIOU ? 0 : no);
    const uint32_t before =
        unit < 0 ? 0 : zsim::get<current_common_info_t>(unit, PROP_CURRENT_COMMON_INFO).status;
    kClear[which](no, offbit);
    if (unit >= 0) {
        zfuzz::expect(zsim::get<current_common_info_t>(unit, PROP_CURRENT_COMMON_INFO).status ==
                          (before & ~offbit),
                      "unit's status bits cleared");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const bool ready = [] {
        zsim::init(zfuzz::root());
        zsim::build_default_machine();
        zsim::script_hap("FUZZ_HAP", "",
                         [](const zsim::HapCall&, uint32_t*, splog_info* info, splog_linkup_info*) {
                             if (info != nullptr) {
                                 strcpy(info->ras_code, "FUZZ_HAP");
                             }
                             return -5;
                         });
        return true;
    }();
    (void)ready;
    zfuzz::Bytes in{data, size};
    const uint8_t op = in.u8();
    const int a = static_cast<int>(in.u32());
    const uint32_t b = in.u32();
    std::string text = in.rest();
    text = text.substr(0, strlen(text.c_str())); /* the callee sees a C string */
    std::vector<char> path(text.begin(), text.end());
    path.push_back('\0');
    const std::string full = text.compare(0, 9, "/SYSTEM#0") == 0 ? text : "/SYSTEM#0" + text;

    unit_position_id_t id;
    memset(&id, 0xA5, sizeof(id));
    switch (op % 5) {
    case 0: {
        const int rc = znpdklib_path2upid(path.data(), &id);
        zfuzz::expect(rc == 0 || rc == -1, "path2upid result");
        zfuzz::expect(rc == 0 ? layers_tidy(id) : all_zero(id), "path2upid id");
        zfuzz::expect(zsim::find_path(full) >= 0 || rc == -1, "path2upid of no component");
        break;
    }
    case 1: {
        const int rc = znpdklib_upid2upid_pc(a, static_cast<int>(b), path.data(), &id);
        const int layers = layers_of_code(a);
        zfuzz::expect(rc == 0 || rc == -1, "upid2upid_pc result");
        zfuzz::expect(layers > 0 || rc == -1, "upid2upid_pc refuses unknown codes");
        if (rc == 0) {
            zfuzz::expect(id.nameID == (a & 0xFF) && id.count == layers && layers_tidy(id) &&
                              id.partLayer[layers - 1] == (b & 0xFF),
                          "upid2upid_pc id");
        } else {
            zfuzz::expect(all_zero(id), "upid2upid_pc refused id");
        }
        break;
    }
    case 2:
        zfuzz::expect(znpdklib_checkEmergencyOutageByPath(path.data()) == expected_outage_answer(text),
                      "outage check of a path list");
        break;
    case 3: {
        uint32_t out[16] = {};
        zsim::clear_ras_logs();
        zsim::clear_hap_calls();
        zfuzz::expect(znpdklib_exechap(path.data(), "FUZZ_HAP", "READ", &b, out) == -5, "failed procedure");
        zfuzz::expect(zsim::ras_logs().size() == 1 && zsim::hap_calls().size() == 1 &&
                          zsim::hap_calls()[0].target == text,
                      "one error log, target passed on");
        break;
    }
    default:
        clear_records(op / 5, a, b);
        break;
    }
    zfuzz::expect(zsim::lock_violations().empty(), "component write-lock rules");
    zsim::clear_traces();
    return 0;
}
