// SPDX-License-Identifier: Apache-2.0
// Scenario files: refused with a position, or within the ranges the mesh relies on.
#include "fuzz_input.h"
#include "virtual/device.h"
#include "virtual/scenario.h"
#include <set>

using namespace corvane::mesh;

static bool isShare(double value) {
    return value >= 0.0 && value <= 1.0;
}

static void checkDevice(const DeviceSpec &spec) {
    fuzz::require(spec.link_quality >= 1 && !spec.name.empty(), "a name and a link");
    fuzz::require(spec.model.size() <= 32 && spec.manufacturer_name.size() <= 32, "texts fit into an attribute");
    fuzz::require(!spec.install_code || corvane::zigbee::isInstallCodeValid(*spec.install_code),
                  "a sound install code");
    for (const EndpointSpec &endpoint : spec.endpoints) {
        fuzz::require(endpoint.id >= 1 && endpoint.id <= 240, "endpoint numbers");
    }
    Device device(spec);
    device.setNodeId(0x1234);
    (void)device.announce();
    (void)device.describe();
    for (const ReportSpec &report : device.spec().reports) {
        fuzz::require(report.interval_ms >= 100, "report intervals");
        (void)device.report(report, 12345);
    }
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Scenario scenario;
    scenario.name = "before";
    ScenarioError error;
    if (!parseScenario(std::string(data, data + size), "file", scenario, error)) {
        fuzz::require(error.message.rfind("file", 0) == 0, "an error names the file");
        fuzz::require(scenario.name == "before" && scenario.devices.empty(), "a refused scenario changes nothing");
        return 0;
    }
    fuzz::require(scenario.speed >= 0.1 && scenario.speed <= 100.0, "speed");
    fuzz::require(isShare(scenario.air.loss) && isShare(scenario.air.interference) && isShare(scenario.air.pta_denial),
                  "probabilities");
    std::set<Eui64> addresses{scenario.coordinator.eui64};
    std::set<std::string> names;
    for (const DeviceSpec &spec : scenario.devices) {
        fuzz::require(addresses.insert(spec.eui64).second && names.insert(spec.name).second, "devices differ");
        checkDevice(spec);
    }
    return 0;
}
