/* Board controller driver: register access by ioctl on an open descriptor. */
#ifndef ZNPDK_PLATFORM_MBC_DRIVER_H
#define ZNPDK_PLATFORM_MBC_DRIVER_H

#include <stdint.h>

#define MBC_CABINET_BASE 0
#define MBC_CABINET_GPIO 1
#define MBC_MAX_CABINET 2

#define MBC_IOCTL_SP_BOARD_W_NUM 102
#define MBC_IOCTL_SP_BOARD_R_NUM 103

/* _IOWR('B', n, 16 bytes): fixed by the 32-bit driver ABI. */
#define MBC_IOCTL_SP_BOARD_R 0xC0104267UL
#define MBC_IOCTL_SP_BOARD_W 0xC0104266UL

typedef struct {
    uint32_t cabinet;
    uint32_t address;
    uint32_t size;
    void* data;
} mbc_reg_rw;

#ifdef __cplusplus
static_assert(sizeof(void*) != 4 || sizeof(mbc_reg_rw) == 16, "mbc_reg_rw is 16 bytes on the target");
extern "C" {
#endif

/* Descriptor of the board controller device, opened by the hosting process. */
extern int global_sbcfd_env;

#ifdef __cplusplus
}
#endif

#endif
