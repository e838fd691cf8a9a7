// SPDX-License-Identifier: Apache-2.0
// The virtual adapter as a whole: scenario, coordinator, and the control socket that drives the simulation.
#include "coordinator.h"
#include "oru_log.h"
#include "virtual_adapter.h"

namespace corvane::mesh {

namespace {

// The simulation behind the control socket. Every call runs with the layer's lock held.
class Simulation final : public SimTarget {
public:
    Simulation(CoordinatorRadio &radio, AdapterHost &host) : radio_(radio), host_(host) {}

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
        return host_.refuseNext(operation, count, status);
    }
    std::string adapterReset() override;
    std::string adapterFatalError() override;
    std::string adapterHang(uint32_t milliseconds) override {
        host_.hang(milliseconds);
        return {};
    }

private:
    Mesh &mesh() { return radio_.mesh(); }

    template <typename Work>
    std::string with(const std::string &name, Work work) {
        std::string result;
        host_.locked([&] {
            const int index = mesh().indexOf(name);
            result = index < 0 ? "no device is named \"" + name + "\"" : work(static_cast<size_t>(index));
        });
        return result;
    }

    CoordinatorRadio &radio_;
    AdapterHost &host_;
};

std::vector<SimDevice> Simulation::list() {
    std::vector<SimDevice> rows;
    host_.locked([&] {
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
    host_.locked([&] { radio_.setAir(air); });
    return {};
}

AirSpec Simulation::getAir() {
    AirSpec air;
    host_.locked([&] { air = radio_.air(); });
    return air;
}

std::string Simulation::adapterReset() {
    oru_status_t status = ORU_STATUS_OK;
    host_.locked([&] { status = radio_.reset(); });
    return status == ORU_STATUS_OK ? "" : "the adapter is disabled";
}

std::string Simulation::adapterFatalError() {
    bool running = false;
    host_.locked([&] { running = radio_.fatalError(); });
    return running ? "" : "the adapter is disabled";
}

// The coordinator with its simulation and, from the first enable on, the control server.
class VirtualAdapter final : public CoordinatorRadio {
public:
    VirtualAdapter(const Scenario &scenario, const AdapterSettings &settings, AdapterHost &host)
        : CoordinatorRadio(scenario, settings, host), simulation_(*this, host) {
        if (settings.simulation_control) {
            control_path_ = settings.runtime_directory + "/corvane-sim.sock";
        }
    }

    SimTarget &simulation() { return simulation_; }

    void stop() override { server_.reset(); }
    oru_status_t enable() override {
        const oru_status_t status = CoordinatorRadio::enable();
        if (status == ORU_STATUS_OK && server_ == nullptr && !control_path_.empty()) {
            server_ = startControlServer(control_path_, simulation_);
        }
        return status;
    }

private:
    Simulation simulation_;
    std::string control_path_;
    std::unique_ptr<ControlServer, void (*)(ControlServer *)> server_{nullptr, nullptr};
};

} // namespace

} // namespace corvane::mesh

namespace corvane::zbhal {

std::unique_ptr<Adapter> makeVirtualAdapter(const std::string &scenario_path, const mesh::Scenario *scenario,
                                            const AdapterSettings &settings, AdapterHost &host, std::string &error) {
    try {
        if (scenario != nullptr) {
            return std::make_unique<mesh::VirtualAdapter>(*scenario, settings, host);
        }
        mesh::Scenario loaded;
        mesh::ScenarioError fault;
        if (!mesh::loadScenario(scenario_path, loaded, fault)) {
            error = fault.message;
            return nullptr;
        }
        oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_INFO, "zbhal", "virtual mesh \"%s\" with %zu devices", loaded.name.c_str(),
                   loaded.devices.size());
        return std::make_unique<mesh::VirtualAdapter>(loaded, settings, host);
    } catch (const std::bad_alloc &) {
        error = "out of memory";
        return nullptr;
    }
}

mesh::SimTarget *simulationOf(Adapter *adapter) {
    auto *const virtual_adapter = dynamic_cast<mesh::VirtualAdapter *>(adapter);
    return virtual_adapter == nullptr ? nullptr : &virtual_adapter->simulation();
}

} // namespace corvane::zbhal
