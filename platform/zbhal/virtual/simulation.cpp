// SPDX-License-Identifier: Apache-2.0
// The virtual adapter as a whole: scenario, coordinator, and the control socket that drives the simulation.
#include "adapter_decorator.h"
#include "coordinator.h"
#include "oru_log.h"
#include "virtual_adapter.h"

namespace corvane::mesh {

namespace {

using zbhal::AdapterFaults;
using zbhal::FaultyAdapter;
using zbhal::SimulationOwner;
using zbhal::SteppedAdapter;
using zbhal::VirtualSettings;

// The simulation behind the control socket, in step with whoever else uses the coordinator.
class Simulation final : public SimTarget {
public:
    Simulation(CoordinatorRadio &radio, SimulationOwner &owner) : radio_(radio), owner_(owner) {}

    std::vector<SimDevice> list() override;
    std::string join(const std::string &name) override {
        return with(name, [this](size_t index) { return mesh().join(index); });
    }
    std::string rejoin(const std::string &name, bool secured) override {
        return with(name, [=, this](size_t index) { return mesh().rejoin(index, secured); });
    }
    std::string leave(const std::string &name) override {
        return with(name, [this](size_t index) { return mesh().leave(index, false); });
    }
    std::string announce(const std::string &name) override {
        return with(name, [this](size_t index) { return mesh().announce(index); });
    }
    std::string changeAddress(const std::string &name) override {
        return with(name, [this](size_t index) { return mesh().changeAddress(index); });
    }
    std::string report(const std::string &name) override {
        return with(name, [this](size_t index) { return mesh().report(index); });
    }
    std::string setPower(const std::string &name, bool on) override {
        return with(name, [=, this](size_t index) { return mesh().setPower(index, on); });
    }
    std::string setAttribute(const std::string &name, uint8_t endpoint, uint16_t cluster_id, uint16_t attribute_id,
                             int64_t value) override;
    std::string setFaults(const std::string &name, const Faults &faults) override {
        return with(name, [&](size_t index) {
            mesh().nodes()[index].device.faults() = faults;
            return std::string();
        });
    }
    std::string getFaults(const std::string &name, Faults &faults) override {
        return with(name, [&](size_t index) {
            faults = mesh().nodes()[index].device.faults();
            return std::string();
        });
    }
    std::string setAir(const AirSpec &air) override;
    AirSpec getAir() override;
    std::string refuseNext(const std::string &operation, uint32_t count, int32_t status) override {
        return owner_.refuseNext(operation, count, status);
    }
    std::string adapterReset() override;
    std::string adapterFatalError() override;
    std::string adapterHang(uint32_t milliseconds) override {
        owner_.hang(milliseconds);
        return {};
    }

private:
    Mesh &mesh() { return radio_.mesh(); }

    template <typename Work>
    std::string with(const std::string &name, Work work) {
        std::string result;
        owner_.locked([&] {
            const int index = mesh().indexOf(name);
            result = index < 0 ? "no device is named \"" + name + "\"" : work(static_cast<size_t>(index));
        });
        return result;
    }

    CoordinatorRadio &radio_;
    SimulationOwner &owner_;
};

std::vector<SimDevice> Simulation::list() {
    std::vector<SimDevice> rows;
    owner_.locked([&] {
        for (const MeshNode &node : mesh().nodes()) {
            SimDevice row;
            row.name = node.device.spec().name;
            row.eui64 = node.device.spec().eui64;
            row.role = node.device.spec().role;
            row.in_network = node.joined;
            row.node_id = node.node_id;
            row.parent = mesh().parentName(node);
            row.link_quality = node.joined ? node.link_quality : 0;
            row.state = node.powered ? node.device.describe() : "switched off";
            rows.push_back(std::move(row));
        }
    });
    return rows;
}

std::string Simulation::setAttribute(const std::string &name, uint8_t endpoint, uint16_t cluster_id,
                                     uint16_t attribute_id, int64_t value) {
    return with(name, [&](size_t index) -> std::string {
        if (!mesh().nodes()[index].device.setAttribute(endpoint, cluster_id, attribute_id, value)) {
            return "the device has no such attribute, or the value is outside its range";
        }
        mesh().sendPending(index);
        return {};
    });
}

std::string Simulation::setAir(const AirSpec &air) {
    for (const double probability : {air.loss, air.interference, air.pta_denial}) {
        if (!(probability >= 0.0 && probability <= 1.0)) {
            return "a probability lies between 0.0 and 1.0";
        }
    }
    owner_.locked([&] { radio_.setAir(air); });
    return {};
}

AirSpec Simulation::getAir() {
    AirSpec air;
    owner_.locked([&] { air = radio_.air(); });
    return air;
}

std::string Simulation::adapterReset() {
    oru_status_t status = ORU_STATUS_OK;
    owner_.locked([&] { status = radio_.reset(); });
    return status == ORU_STATUS_OK ? "" : "the adapter is disabled";
}

std::string Simulation::adapterFatalError() {
    bool running = false;
    owner_.locked([&] { running = radio_.fatalError(); });
    return running ? "" : "the adapter is disabled";
}

// What the parts of a virtual adapter have in common, before all that uses it.
struct VirtualParts {
    VirtualParts(const Scenario &scenario, const VirtualSettings &settings, AdapterHost &host)
        : faults(settings.faults == nullptr ? std::make_shared<AdapterFaults>() : settings.faults),
          radio(scenario, settings, host, *faults), stepped(radio, host) {}

    std::shared_ptr<AdapterFaults> faults;
    CoordinatorRadio radio;
    SteppedAdapter stepped;
};

// The coordinator kept in step, with ordered faults, its simulation and, from the first enable on, the control server.
class VirtualAdapter final : private VirtualParts,
                             private SimulationOwner,
                             public FaultyAdapter,
                             public zbhal::Simulator {
public:
    VirtualAdapter(const Scenario &scenario, const VirtualSettings &settings, AdapterHost &host)
        : VirtualParts(scenario, settings, host), FaultyAdapter(stepped, *faults), simulation_(radio, *this) {
        if (!settings.control_directory.empty()) {
            control_path_ = settings.control_directory + "/corvane-sim.sock";
        }
    }

    SimTarget &target() override { return simulation_; }
    void holdConfirmations(bool hold) override {
        stepped.locked([&] { radio.holdConfirmations(hold); });
    }
    void stop() override {
        FaultyAdapter::stop();
        const std::lock_guard lock(server_mutex_);
        server_.reset();
    }
    oru_status_t enable() override {
        const oru_status_t status = FaultyAdapter::enable();
        const std::lock_guard lock(server_mutex_);
        if (status == ORU_STATUS_OK && server_ == nullptr && !control_path_.empty()) {
            server_ = startControlServer(control_path_, simulation_);
        }
        return status;
    }

private:
    void locked(const std::function<void()> &work) override { stepped.locked(work); }
    std::string refuseNext(const std::string &operation, uint32_t count, int32_t status) override {
        return faults->refuseNext(operation, count, status);
    }
    void hang(uint32_t milliseconds) override { faults->hang(milliseconds); }

    Simulation simulation_;
    std::string control_path_;
    std::mutex server_mutex_; // guards server_, whose thread takes other locks only
    std::unique_ptr<ControlServer, void (*)(ControlServer *)> server_{nullptr, nullptr};
};

} // namespace

} // namespace corvane::mesh

namespace corvane::zbhal {

Made makeVirtualAdapter(const std::string &scenario_path, const VirtualSettings &settings, AdapterHost &host) {
    const std::string failed = "the virtual mesh cannot start: ";
    try {
        if (settings.scenario != nullptr) {
            return {std::make_unique<mesh::VirtualAdapter>(*settings.scenario, settings, host)};
        }
        mesh::Scenario loaded;
        mesh::ScenarioError fault;
        if (!mesh::loadScenario(scenario_path, loaded, fault)) {
            return {nullptr, ORU_STATUS_BAD_PARAM, failed + fault.message};
        }
        oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_INFO, "zbhal", "virtual mesh \"%s\" with %zu devices", loaded.name.c_str(),
                   loaded.devices.size());
        return {std::make_unique<mesh::VirtualAdapter>(loaded, settings, host)};
    } catch (const std::bad_alloc &) {
        return {nullptr, ORU_STATUS_BAD_PARAM, failed + "out of memory"};
    }
}

std::unique_ptr<mesh::SimTarget> makeSimulation(mesh::CoordinatorRadio &radio, SimulationOwner &owner) {
    return std::make_unique<mesh::Simulation>(radio, owner);
}

Simulator *simulatorOf(Adapter *adapter) {
    return dynamic_cast<Simulator *>(adapter);
}

} // namespace corvane::zbhal
