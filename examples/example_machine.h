/*
 * What every example shares: a simulated machine in a temporary directory
 * (the default, healthy chassis, with the sensor save area set up) and an
 * exact-result check that makes the program fail.
 */
#ifndef ZNPDK_EXAMPLE_MACHINE_H
#define ZNPDK_EXAMPLE_MACHINE_H

#include <stdio.h>
#include <stdlib.h>

#include <filesystem>
#include <string>

#include "znpdk_sim/sim.h"
#include "znpdklib.h"

static int g_failures = 0;

#define CHECK_EQ(actual, expected)                                                                           \
    do {                                                                                                     \
        long long a_ = static_cast<long long>(actual), e_ = static_cast<long long>(expected);                \
        if (a_ != e_) {                                                                                      \
            fprintf(stderr, "%s:%d: %s is %lld (0x%llx), expected %lld\n", __FILE__, __LINE__, #actual, a_,  \
                    static_cast<unsigned long long>(a_), e_);                                                \
            ++g_failures;                                                                                    \
        }                                                                                                    \
    } while (0)

class ExampleMachine {
  public:
    ExampleMachine()
    {
        char tmpl[] = "/tmp/znpdk-example-XXXXXX";
        if (mkdtemp(tmpl) == nullptr) {
            perror("mkdtemp");
            exit(2);
        }
        root_ = tmpl;
        zsim::init(root_);
        zsim::build_default_machine();
        ZNAPI_MemSensorAreaInit(); /* once per process, before any sensor function */
    }
    ~ExampleMachine()
    {
        std::error_code ec;
        std::filesystem::remove_all(root_, ec);
    }
    ExampleMachine(const ExampleMachine&) = delete;
    ExampleMachine& operator=(const ExampleMachine&) = delete;

    static int finish(const char* name)
    {
        printf("%s: %s\n", name, g_failures == 0 ? "ok" : "FAILED");
        return g_failures == 0 ? 0 : 1;
    }

  private:
    std::string root_;
};

/* State word as callers compare it: bit 15 of the read-back word masked off. */
static inline uint16_t state_of(uint8_t sensor, int inst)
{
    INT16U word = 0;
    znpdklib_getDiscreteStatusSensorStatus(sensor, &word, inst);
    return static_cast<uint16_t>(word & 0x7FFF);
}

#endif
