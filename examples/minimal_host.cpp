/*
 * The smallest host program on the simulated platform: set and read a
 * sensor state, check PSU redundancy. Built against an installed kit:
 *   c++ -std=c++17 minimal_host.cpp $(pkg-config --cflags --libs znpdk znpdk_sim)
 */
#include <stdio.h>
#include <stdlib.h>

#include "znpdk_sim/psu.h"
#include "znpdk_sim/sim.h"
#include "znpdklib.h"

int main()
{
    char root[] = "/tmp/znpdk-minimal-XXXXXX";
    if (mkdtemp(root) == nullptr) {
        return 2;
    }
    zsim::init(root);              /* a new simulated machine below root */
    zsim::build_default_machine(); /* healthy chassis, 18 PSUs */
    ZNAPI_MemSensorAreaInit();     /* once per process, before any sensor call */

    INT8U rc = znpdklib_exSetSensorWoS(0x49, 5, 17); /* FRUE Environment: offset 5 */
    INT16U word = 0;
    znpdklib_getDiscreteStatusSensorStatus(0x49, &word, 17);
    printf("set rc=%d state=0x%04x\n", rc, word & 0x7FFF);

    int before = znpdklib_check_psu_redundancy(3);
    zsim::set_psu_present(0, false);
    zsim::set_psu_present(1, false);
    int after = znpdklib_check_psu_redundancy(3);
    znpdklib_getDiscreteStatusSensorStatus(0x81, &word, 17);
    printf("psu redundancy %d -> %d state=0x%04x\n", before, after, word & 0x7FFF);

    int ok = rc == 0 && before == 0 && after == 1 && (word & 0x7FFF) == 0x0004;
    printf("%s\n", ok ? "ok" : "FAILED");
    return ok ? 0 : 1;
}
