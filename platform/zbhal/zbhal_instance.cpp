// SPDX-License-Identifier: Apache-2.0
// The layer as the daemon has it. A test program brings a hal() of its own.
#include "oru_config.h"
#include "zbhal_core.h"

namespace corvane::zbhal {

namespace {

HalSetup configured() {
    const oruConfig_t &config = oruConfig_get();
    return {config.radio_event_descriptor, config.watchdog_seconds, config.radio_wait_for_adapter, productBackends()};
}

} // namespace

Hal &hal() {
    static auto *instance = new Hal(configured);
    return *instance;
}

} // namespace corvane::zbhal
