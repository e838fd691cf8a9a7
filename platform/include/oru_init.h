// SPDX-License-Identifier: Apache-2.0
#pragma once
#include "oru_status.h"
#include <cstdint>
#include <cstdio>

struct oruThread_prio_config {
    uint32_t idle;
    uint32_t low;
    uint32_t below_normal;
    uint32_t normal;
    uint32_t above_normal;
    uint32_t high;
    uint32_t realtime;
};
static_assert(sizeof(oruThread_prio_config) == 28, "seven 32-bit priorities");

struct oruUserConfig_config_t {
    uint32_t version;                   // the service stores 1
    oruThread_prio_config *thread_prio; // the service stores null; the parser may attach a malloc'ed table
};

extern "C" {
oru_status_t oru_init(void);
oru_status_t oru_initWithConfig(const oruUserConfig_config_t *config);
oru_status_t oruUserConfig_parser(FILE *file, oruUserConfig_config_t *config);
}
