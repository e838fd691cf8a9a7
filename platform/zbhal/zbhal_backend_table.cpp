// SPDX-License-Identifier: Apache-2.0
// The backends of the daemon, set up by the configuration.
#include "oru_config.h"
#include "virtual/virtual_adapter.h"
#include "zbhal_backends.h"
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace corvane::zbhal {

namespace {

Made makeVirtual(const std::string &scenario_path, AdapterHost &host) {
    const oruConfig_t &config = oruConfig_get();
    VirtualSettings settings;
    settings.state_directory = config.state_directory;
    if (config.radio_seed_set) {
        settings.seed = config.radio_seed;
    }
    if (config.simulation_control) {
        settings.control_directory = config.runtime_directory;
    }
    return makeVirtualAdapter(scenario_path, settings, host);
}

// There is no backend for devices yet: says what is wrong with the name.
Made explainDevicePath(const std::string &path, AdapterHost & /*host*/) {
    const std::string advice = "use -p virtual:<scenario.toml> for the virtual mesh";
    if (path.empty()) {
        return {nullptr, ORU_STATUS_BAD_PARAM, "no radio adapter is named: " + advice};
    }
    const int descriptor = open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (descriptor < 0) {
        return {nullptr, ORU_STATUS_NOT_FOUND,
                "cannot open the radio adapter " + path + ": " + std::strerror(errno) + "; check the path or " +
                    advice};
    }
    close(descriptor);
    return {nullptr, ORU_STATUS_NOT_SUPPORTED,
            "cannot use the radio adapter " + path + ": this version has no backend for serial adapters; " + advice,
            true};
}

} // namespace

std::vector<Backend> productBackends() {
    return {{"virtual:", makeVirtual}, {"", explainDevicePath}};
}

} // namespace corvane::zbhal
