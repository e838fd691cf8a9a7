// SPDX-License-Identifier: Apache-2.0
#include "oru_config.h"
#include "config_internal.h"
#include <cstdlib>
#include <string_view>

namespace {

// systemd hands several directories in one variable, separated by colons; the first is the unit's main one.
std::string directoryFromEnvironment(const char *variable, const char *fallback) {
    const char *value = getenv(variable); // NOLINT(concurrency-mt-unsafe): start-up, one thread
    const std::string_view text = value != nullptr ? value : "";
    const std::string_view first = text.substr(0, text.find(':'));
    return std::string(first.empty() ? fallback : first);
}

// Never deleted: layer threads may still read the settings while exit() runs.
oruConfig_t &settings() {
    static oruConfig_t *const instance = new oruConfig_t(oruConfig_defaults());
    return *instance;
}

} // namespace

oruConfig_t oruConfig_defaults() {
    oruConfig_t config;
    config.state_directory = directoryFromEnvironment("STATE_DIRECTORY", "/var/lib/corvane");
    config.runtime_directory = directoryFromEnvironment("RUNTIME_DIRECTORY", "/run/corvane");
    return config;
}

const oruConfig_t &oruConfig_get() {
    return settings();
}

void oruConfig_replace(const oruConfig_t &config) {
    settings() = config;
}
