/* PSU controller model: the register image behind "BOB_R_BOBC_PSUC". */
#include "znpdk_sim/psu.h"

#include <string.h>

#include <mutex>

#include "znpdk_sim/detail.h"

namespace zsim {

namespace {

constexpr int kPsus = 18;
constexpr int kBobFields = 13;
constexpr int kCommonFields = 8;
constexpr int kWords = 3 * kBobFields + kCommonFields;
static_assert(sizeof(psuc_all_t) == kWords * sizeof(uint32_t), "register image is a plain word array");

/* Positions per PSU as the controller lays them out. */
constexpr int kWordBit[kPsus] = {0, 1, 2, 8, 9, 10, 16, 17, 18, 4, 5, 6, 12, 13, 14, 20, 21, 22};
constexpr int kByteBit[kPsus] = {0, 1, 2, 0, 1, 2, 0, 1, 2, 4, 5, 6, 4, 5, 6, 4, 5, 6};
/* Start of the nibble in the byte-reversed FRUStatus word. */
constexpr int kFruSwappedBit[kPsus] = {0, 4, 8, 0, 4, 8, 0, 4, 8, 16, 20, 24, 16, 20, 24, 16, 20, 24};
constexpr int kCtlBob[kPsus] = {0, 0, 0, 1, 1, 1, 2, 2, 2, 0, 0, 0, 1, 1, 1, 2, 2, 2};

struct PsucModel {
    std::mutex mu;
    psuc_all_t image{};
    int fail_code = 0;
    int fail_count = 0;
    int reads = 0;
};

PsucModel& model()
{
    static PsucModel* m = new PsucModel; /* outlives every static destructor */
    return *m;
}

bool valid_psu(int psuno)
{
    return psuno >= 0 && psuno < kPsus;
}

void set_bit(uint32_t& word, uint32_t mask, bool on)
{
    word = on ? (word | mask) : (word & ~mask);
}

void put_fru(psuc_all_t& image, int psuno, uint32_t status)
{
    uint32_t& word = image.bob[kCtlBob[psuno]].FRUStatus;
    int shift = psu_fru_shift(psuno);
    word = (word & ~(0xFu << shift)) | ((status & 0xFu) << shift);
}

psuc_all_t healthy_image()
{
    psuc_all_t image{};
    for (int n = 0; n < kPsus; ++n) {
        image.common.PresentSts |= psu_word_mask(n);
        image.common.ACOKSts |= psu_word_mask(n);
        image.common.PWOKSts |= psu_word_mask(n);
        image.common.PSONSts |= psu_word_mask(n);
        image.bob[kCtlBob[n]].PSONCntl |= psu_byte_mask(n);
        image.bob[kCtlBob[n]].PSONAndCntl |= psu_byte_mask(n);
        put_fru(image, n, 1);
    }
    return image;
}

template <typename F> void with_psu(int psuno, F change)
{
    if (!valid_psu(psuno)) {
        return;
    }
    std::lock_guard<std::mutex> lock(model().mu);
    change(model().image);
}

/* Fills only the fields that the four selection masks name. */
int read_handler(const HapCall& call, uint32_t* data)
{
    PsucModel& m = model();
    std::lock_guard<std::mutex> lock(m.mu);
    m.reads++;
    if (m.fail_count != 0) {
        if (m.fail_count > 0) {
            m.fail_count--;
        }
        return m.fail_code;
    }
    if (data == nullptr) {
        return 0;
    }
    uint32_t words[kWords];
    memcpy(words, &m.image, sizeof(words));
    for (int block = 0; block < 4; ++block) {
        uint32_t mask = block < static_cast<int>(call.para.size()) ? call.para[block] : 0;
        int first = block * kBobFields;
        int fields = block < 3 ? kBobFields : kCommonFields;
        for (int f = 0; f < fields; ++f) {
            if (mask & (1u << f)) {
                data[first + f] = words[first + f];
            }
        }
    }
    return 0;
}

void reset_model()
{
    {
        PsucModel& m = model();
        std::lock_guard<std::mutex> lock(m.mu);
        m.image = healthy_image();
        m.fail_code = 0;
        m.fail_count = 0;
        m.reads = 0;
    }
    detail::set_builtin_hap("BOB_R_BOBC_PSUC", "READ",
                            [](const HapCall& call, uint32_t* data, splog_info*, splog_linkup_info*) {
                                return read_handler(call, data);
                            });
}

const bool registered = (detail::register_model("psuc", reset_model), true);

} // namespace

int psu_ctlbob(int psuno)
{
    return valid_psu(psuno) ? kCtlBob[psuno] : -1;
}

uint32_t psu_word_mask(int psuno)
{
    return valid_psu(psuno) ? (1u << kWordBit[psuno]) : 0;
}

uint32_t psu_byte_mask(int psuno)
{
    return valid_psu(psuno) ? (1u << kByteBit[psuno]) : 0;
}

int psu_fru_shift(int psuno)
{
    if (!valid_psu(psuno)) {
        return -1;
    }
    /* Byte k of the reversed word is byte 3 - k of the delivered one. */
    int swapped = kFruSwappedBit[psuno];
    return 8 * (3 - swapped / 8) + swapped % 8;
}

psuc_all_t psuc_image()
{
    std::lock_guard<std::mutex> lock(model().mu);
    return model().image;
}

void set_psuc_image(const psuc_all_t& image)
{
    std::lock_guard<std::mutex> lock(model().mu);
    model().image = image;
}

void reset_psuc_image()
{
    set_psuc_image(healthy_image());
}

void set_psu_present(int psuno, bool on)
{
    with_psu(psuno, [&](psuc_all_t& im) { set_bit(im.common.PresentSts, psu_word_mask(psuno), on); });
}

void set_psu_acok(int psuno, bool on)
{
    with_psu(psuno, [&](psuc_all_t& im) { set_bit(im.common.ACOKSts, psu_word_mask(psuno), on); });
}

void set_psu_pson(int psuno, bool on)
{
    with_psu(psuno,
             [&](psuc_all_t& im) { set_bit(im.bob[kCtlBob[psuno]].PSONAndCntl, psu_byte_mask(psuno), on); });
}

void set_psu_fru_status(int psuno, uint32_t status)
{
    with_psu(psuno, [&](psuc_all_t& im) { put_fru(im, psuno, status); });
}

void set_psu(int psuno, bool present, bool acok, bool pson, uint32_t fru_status)
{
    set_psu_present(psuno, present);
    set_psu_acok(psuno, acok);
    set_psu_pson(psuno, pson);
    set_psu_fru_status(psuno, fru_status);
}

void fail_psuc_read(int code, int count)
{
    std::lock_guard<std::mutex> lock(model().mu);
    model().fail_code = code;
    model().fail_count = count;
}

int psuc_reads()
{
    std::lock_guard<std::mutex> lock(model().mu);
    return model().reads;
}

} // namespace zsim
