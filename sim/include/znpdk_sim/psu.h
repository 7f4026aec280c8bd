/*
 * PSU controller model of the simulated platform: the register image that
 * the procedure "BOB_R_BOBC_PSUC" (mode "READ") on BOBC#0 reads, one image
 * for the whole machine. Like the procedure handlers it lives in this
 * process (a forked child starts from its parent's image). init() and
 * attach() put it back to the healthy default: all 18 PSUs present, AC-OK,
 * PS-ON and controlled, FRU status 1.
 */
#ifndef ZNPDK_SIM_PSU_H
#define ZNPDK_SIM_PSU_H

#include <stdint.h>

#include "znpdklib_types.h"

namespace zsim {

/* ---- Where a PSU sits in the registers (psuno 0 to 17) ------------------ */
/* The BoB block (0 to 2) that controls PSU n on the simulated machine. */
int psu_ctlbob(int psuno);
/* Mask of PSU n in common.PresentSts / common.ACOKSts. */
uint32_t psu_word_mask(int psuno);
/* Mask of PSU n in bob[psu_ctlbob(n)].PSONAndCntl. */
uint32_t psu_byte_mask(int psuno);
/* Shift of PSU n's 4-bit FRU status in the FRUStatus word as the controller
 * delivers it (the word is byte-reversed against the nibble order). */
int psu_fru_shift(int psuno);

/* ---- The register image -------------------------------------------------- */
psuc_all_t psuc_image();
void set_psuc_image(const psuc_all_t& image);
/* Back to the healthy default. */
void reset_psuc_image();

/* One PSU's bits; PSUs outside 0 to 17 are ignored. */
void set_psu_present(int psuno, bool on);
void set_psu_acok(int psuno, bool on);
/* PS-ON and the power control both on (bob[ctlbob].PSONAndCntl). */
void set_psu_pson(int psuno, bool on);
/* FRU status nibble (bit 3 maintenance target, bits 0-2 status). */
void set_psu_fru_status(int psuno, uint32_t status);
/* All four at once. */
void set_psu(int psuno, bool present, bool acok, bool pson, uint32_t fru_status);

/* ---- Failures and bookkeeping --------------------------------------------- */
/* The next `count` reads fail with result `code` and fill nothing
 * (count < 0: every read until called again with count 0). */
void fail_psuc_read(int code, int count = 1);
/* Reads served (also the failed ones) since init()/attach(). */
int psuc_reads();

} // namespace zsim

#endif
