// SPDX-License-Identifier: Apache-2.0
// What reaches a device of the mesh: ZDO and ZCL frames, and lines of the control socket.
#include "fuzz_input.h"
#include "virtual/control.h"
#include "virtual/device.h"

using namespace corvane::mesh;

namespace {

constexpr size_t MAX_STEPS = 64;

class OneDevice : public SimTarget {
public:
    explicit OneDevice(Device &device) : device_(device) {}
    std::vector<SimDevice> list() override {
        return {{"d", {2, 0, 0, 0, 0, 0, 0, 9}, Role::router, true, 0x1234, "coordinator", 200, device_.describe()}};
    }
    std::string join(const std::string &) override { return ""; }
    std::string rejoin(const std::string &, bool) override { return ""; }
    std::string leave(const std::string &) override { return ""; }
    std::string announce(const std::string &) override { return ""; }
    std::string changeAddress(const std::string &) override { return ""; }
    std::string report(const std::string &name) override { return "no device named " + name; }
    std::string setPower(const std::string &, bool) override { return ""; }
    std::string setAttribute(const std::string &, uint8_t endpoint, uint16_t cluster, uint16_t attribute,
                             int64_t value) override {
        const bool done = device_.setAttribute(endpoint, cluster, attribute, value);
        (void)device_.takePending();
        return done ? "" : "refused";
    }
    std::string setFaults(const std::string &, const Faults &faults) override {
        return (device_.faults() = faults, "");
    }
    std::string getFaults(const std::string &, Faults &faults) override { return (faults = device_.faults(), ""); }
    std::string setAir(const AirSpec &air) override { return (air_ = air, ""); }
    AirSpec getAir() override { return air_; }
    std::string refuseNext(const std::string &, uint32_t, int32_t) override { return ""; }
    std::string adapterReset() override { return ""; }
    std::string adapterFatalError() override { return ""; }
    std::string adapterHang(uint32_t) override { return ""; }

private:
    Device &device_;
    AirSpec air_;
};

const Scenario &home() {
    static const Scenario scenario = [] {
        Scenario loaded;
        ScenarioError error;
        fuzz::require(loadScenario(CORVANE_HOME_SCENARIO, loaded, error), "the example scenario");
        return loaded;
    }();
    return scenario;
}

void hear(Device &device, fuzz::Input &input) {
    ApsMessage frame;
    frame.profile_id = input.u16();
    frame.cluster_id = input.u16();
    frame.source_endpoint = input.u8();
    frame.destination_endpoint = input.u8();
    frame.payload = input.sized8();
    const DeviceActions actions = device.receive(frame, frame.destination_endpoint == 0xFF);
    for (const ApsMessage &answer : actions.answers) {
        fuzz::require(answer.payload.size() <= 512, "an answer fits into frames");
    }
    fuzz::require(device.spec().reports.size() <= Device::kMaxReports, "reports are bounded");
}

void ask(Device &device, fuzz::Input &input) {
    OneDevice target(device);
    const fuzz::Bytes line = input.sized16();
    const std::string answer = handleControlLine({line.begin(), line.end()}, target);
    fuzz::require(answer.size() > 2 && answer.front() == '{' && answer.find('\n') == std::string::npos,
                  "one line of JSON comes back");
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::Input input(data, size);
    Device device(home().devices.at(input.u8() % home().devices.size()));
    device.setNodeId(0x1234);
    for (size_t step = 0; step < MAX_STEPS && !input.empty(); ++step) {
        if (input.u8() % 4 == 3) {
            ask(device, input);
        } else {
            hear(device, input);
        }
    }
    const std::vector<ReportSpec> reports = device.spec().reports;
    for (const ReportSpec &report : reports) {
        (void)device.report(report, size);
    }
    (void)device.describe();
    return 0;
}
