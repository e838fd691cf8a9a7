// SPDX-License-Identifier: Apache-2.0
//
// Every journey of a service's life, each with one fault of the radio at each of its places: the Nth operation of the
// HAL is refused, or before the Nth turn of the loop the adapter resets, crashes or hangs, or begins to lose
// confirmations or to fail all sends. Afterwards the books must agree, and with at most a reset and a new network a new
// device must find its way in. A failure prints the command that replays that one run.
#include "simulation.h"

namespace {

enum class Fault { refused, reset, crash, loses, fails, hangs };

// What has happened before the journey, without faults.
enum class From { nothing, started, formed, joined };

constexpr uint64_t LONG_MS = 150'000; // every time-out and retry of a discovery and of an inter-PAN exchange

oruZb_device_t deviceOf(const mesh::DeviceSpec &spec) {
    oruZb_device_t device{};
    (void)oruZb_databaseGetDeviceByEui64(spec.eui64.data(), &device);
    return device;
}

class Home : public World {
public:
    Home() : World(homeScenario(), 5) {}

    static mesh::Scenario homeScenario() {
        mesh::Scenario scenario = scenarioOf(5, 5); // d1 and d4 have two endpoints
        mesh::InstallCode code{1, 2, 3};
        corvane::zigbee::setInstallCodeCrc(code);
        scenario.devices[2].install_code = code;
        scenario.devices[2].install_code_only = true;
        return scenario;
    }
    void bringTo(From from) {
        if (from >= From::started) {
            ASSERT_TRUE(start());
            run(1'000);
        }
        if (from >= From::formed) {
            form();
        }
        if (from >= From::joined) {
            join(1);
            ASSERT_EQ(device().device_info.endpoint_count, 2);
        }
    }
    void call(uint16_t function, Bytes payload = {}, uint64_t ms = 2'000) {
        (void)async(function, std::move(payload));
        run(ms);
    }
    void form() { call(ORU_ZB_SVC_FORMZ3NET_MANUAL, {15}); }
    void join(size_t index) {
        (void)sync(ORU_ZB_SVC_PERMITJOIN_START);
        (void)air().join(scenario_.devices[index].name);
        run(5'000);
    }
    oruZb_device_t device(size_t index = 1) const { return deviceOf(scenario_.devices[index]); }
    Bytes command() const { return bytesOf(toggle(device().node_id)); }
    void sendAll(bool synchronous) {
        for (int i = 0; i < 3; ++i) {
            synchronous ? (void)sync(ORU_ZB_SVC_SEND_CLUSTER_CMD, command())
                        : (void)async(ORU_ZB_SVC_SEND_CLUSTER_CMD_ASYNC, command());
        }
        run(1'000);
    }
    void interpan() {
        (void)async(ORU_ZB_SVC_SEND_INTERPAN, bytesOf(interpanFrame()));
        call(ORU_ZB_SVC_SEND_CLUSTER_CMD_ASYNC, command()); // refused meanwhile
    }
    void scan() {
        for (const oruZb_scanType_t type : {ORU_ZB_SCAN_TYPE_ACTIVE, ORU_ZB_SCAN_TYPE_ENERGY}) {
            oruZb_scan_t scan{};
            scan.type = type;
            scan.channel_mask = 7U << 14;
            scan.duration = 3;
            call(ORU_ZB_SVC_START_SCAN, bytesOf(scan));
        }
    }
    void joinByInstallCode() {
        oruZb_ztsDeviceInfo_t entry{};
        std::copy_n(scenario_.devices[2].eui64.begin(), 8, entry.mac_address);
        std::copy_n(scenario_.devices[2].install_code->begin(), 18, entry.install_code);
        (void)sync(ORU_ZB_SVC_ZTS_ADD_DEVICES, bytesOf(entry));
        call(ORU_ZB_SVC_ZTS_ENABLE);
        (void)air().join("d2");
        run(8'000);
        call(ORU_ZB_SVC_ZTS_DISABLE);
    }
    void setRegion() {
        for (const Bytes &country : {Bytes{'U', 'S', 0}, Bytes{'D', 'E', 0}}) {
            (void)sync(ORU_ZB_SVC_ADAPTER_SET_REGION, country);
            (void)sync(ORU_ZB_SVC_ADAPTER_SET_RADIO_POWER, {5});
            run(1'000);
        }
    }
    void shutDown() { // with frames on their way and calls in the queue
        sendAll(true);
        (void)air().join("d3");
        run(20);
        (void)async(ORU_ZB_SVC_SEND_CLUSTER_CMD_ASYNC, command());
        (void)sync(ORU_ZB_SVC_SEND_CLUSTER_CMD, command());
        (void)async(ORU_ZB_SVC_APING);
        end();
        ipc::clear();
        ASSERT_TRUE(start());
        run(1'000);
    }

    void end() {
        calls_ = radio::operationCalls();
        stop();
    }
    // Of the HAL, in the first of the journey's processes.
    uint64_t calls() const { return calls_ != 0 ? calls_ : radio::operationCalls(); }

    void inject(Fault fault) {
        const std::function<void()> injections[] = {
            [] {}, // the refusal was armed before
            [this] { (void)air().adapterReset(); },
            [this] { (void)air().adapterFatalError(); },
            [] { (radio::holdConfirmations(true), (void)radio::refuseNext("interpanCompletion", 100, 1)); },
            [] { (void)radio::refuseNext("confirmation", 100, ORU_ZB_HAL_MAC_NO_ACK); },
            [this] { (void)air().adapterHang(10); },
        };
        injections[static_cast<size_t>(fault)]();
    }
    // Without faults, and after a reset of an adapter that owes confirmations.
    void heal(bool owes) {
        on_turn = nullptr;
        radio::refuseCall(0, 0);
        if (owes) {
            run(LONG_MS);
            EXPECT_NE(adapter_state, ORU_ZB_ADAPTER_INTERPAN_IN_PROGRESS);
            (void)air().adapterReset();
            run(1'000);
            radio::holdConfirmations(false);
        }
        (void)radio::refuseNext("confirmation", 0, 1);
        (void)radio::refuseNext("interpanCompletion", 0, 1);
    }
    // What a user would do, in that order: switch the radio on, form a network, else reset and form.
    void becomeUsable() {
        if (adapter_state == ORU_ZB_ADAPTER_OFF) {
            call(ORU_ZB_SVC_ADAPTER_ENABLE_RADIO);
        }
        if (adapter_state == ORU_ZB_ADAPTER_ON) {
            form();
        }
        if (adapter_state != ORU_ZB_ADAPTER_SERVICE_READY) {
            call(ORU_ZB_SVC_ADAPTER_RESET);
            form();
        }
        EXPECT_EQ(adapter_state, ORU_ZB_ADAPTER_SERVICE_READY);
        join(4);
        run(LONG_MS);
        EXPECT_EQ(deviceOf(scenario_.devices[4]).device_info.endpoint_count, 2) << "the new device was not discovered";
    }

private:
    uint64_t calls_ = 0;
};

struct Journey {
    const char *name;
    From from;
    const char *goal; // in the log when nothing fails
    void (*live)(Home &home);
};
const Journey journeys[] = {
    {"start-up", From::nothing, "changed adapter_state to ORU_ZB_ADAPTER_ON",
     [](Home &home) {
         if (home.start()) {
             home.run(1'000);
             return;
         }
         home.on_turn = nullptr; // the process ends, the supervisor starts it again
         home.end();
         ASSERT_TRUE(home.start());
         home.run(1'000);
     }},
    {"form", From::started, "ORU_ZB_ADAPTER_SERVICE_READY", [](Home &home) { home.form(); }},
    {"form-auto", From::started, "ORU_ZB_ADAPTER_SERVICE_READY",
     [](Home &home) { home.call(ORU_ZB_SVC_FORMZ3NET_AUTO); }},
    {"permit-join", From::formed, "zb_permit_join",
     [](Home &home) {
         for (const uint16_t f : {ORU_ZB_SVC_PERMITJOIN_START, ORU_ZB_SVC_PERMITJOIN_STOP}) {
             (void)home.sync(f);
             home.run(1'000);
         }
     }},
    {"join", From::formed, "zb_db_add", [](Home &home) { home.join(1); }},
    {"send-sync", From::joined, "cmd sent status 0x0", [](Home &home) { home.sendAll(true); }},
    {"send-async", From::joined, "cmd sent status 0x0", [](Home &home) { home.sendAll(false); }},
    {"node-leave", From::joined, "zb_db_remove",
     [](Home &home) { home.call(ORU_ZB_SVC_SEND_NODE_LEAVE_REQUEST, bytesOf(nodeOf(home.device()))); }},
    {"interpan", From::joined, "Publish oipc event 0x418", [](Home &home) { home.interpan(); }},
    {"scan", From::formed, "channel 16, status 0", [](Home &home) { home.scan(); }},
    {"radio-off-on", From::joined, "changed adapter_state to ORU_ZB_ADAPTER_SERVICE_READY",
     [](Home &home) {
         home.call(ORU_ZB_SVC_ADAPTER_DISABLE_RADIO);
         home.call(ORU_ZB_SVC_ADAPTER_ENABLE_RADIO);
     }},
    {"reset", From::joined, "Removed all devices from device list",
     [](Home &home) {
         home.call(ORU_ZB_SVC_ADAPTER_RESET);
         home.form();
     }},
    {"clear-network", From::joined, "Removed all devices from device list",
     [](Home &home) { home.call(ORU_ZB_SVC_CLEAR_NETWORK); }},
    {"region", From::joined, "zb_tx_power: 5", [](Home &home) { home.setRegion(); }},
    {"install-code", From::formed, "zb_db_add", [](Home &home) { home.joinByInstallCode(); }},
    {"shut-down", From::joined, "Loaded 1 device", [](Home &home) { home.shutDown(); }},
};

constexpr const char *fault_names[] = {"refused", "reset", "crash", "loses", "fails", "hangs"};
const char *nameOf(Fault fault) {
    return fault_names[static_cast<size_t>(fault)];
}

using Faults = std::pair<Fault, Fault>; // one fault only when both are the same

std::string nameOf(const Faults &faults) {
    const std::string first = nameOf(faults.first);
    return faults.first == faults.second ? first : first + "_and_" + nameOf(faults.second);
}

class RadioFaultTest : public ::testing::TestWithParam<Faults> {
protected:
    // The journey with faults at two places, or at one (second is 0). Whether it got as far as the first and the
    // second.
    static std::pair<bool, bool> run(const Journey &journey, const Faults &faults, uint64_t first, uint64_t second) {
        SCOPED_TRACE("replay: CORVANE_RUN=" + std::string(journey.name) + "/" + std::to_string(first) + "/" +
                     std::to_string(second) + " simulation_tests --gtest_filter='*/" + nameOf(faults) + "'");
        Home home;
        home.bringTo(journey.from);
        testplat::log::clear();
        uint64_t turns = 0;
        home.on_turn = [&] {
            ++turns;
            if (turns == first) {
                home.inject(faults.first);
            }
            if (turns == second) {
                home.inject(faults.second);
            }
        };
        radio::refuseCall(faults.first == Fault::refused ? first : 0, ORU_STATUS_GENERAL_ERROR);
        journey.live(home);
        const std::pair reached{(faults.first == Fault::refused ? home.calls() : turns) >= first,
                                second > 0 && turns >= second};
        EXPECT_TRUE(reached.first || reached.second || testplat::log::has(journey.goal)) << "it does not get there";
        home.heal(faults.first == Fault::loses || faults.second == Fault::loses);
        home.run(LONG_MS);
        home.checkSettled();
        home.becomeUsable();
        home.checkSettled();
        return reached;
    }
    // All places of a journey, or all pairs of places; every so many. Returns the number of runs.
    static int runAll(const Journey &journey, const Faults &faults, uint64_t every) {
        int runs = 0;
        for (uint64_t first = 1;; first += every) {
            if (!run(journey, faults, first, 0).first || HasFailure()) {
                return runs;
            }
            ++runs;
            uint64_t second = 1;
            for (; faults.first != faults.second && run(journey, faults, first, second).second; second += every) {
                ++runs;
            }
        }
    }
};

TEST_P(RadioFaultTest, AtEveryPlaceOfEveryJourney) {
    const Faults faults = GetParam();
    const bool slow = sanitized() || faults.first == Fault::hangs; // which takes real time
    const auto every = static_cast<uint64_t>(number("CORVANE_EVERY", slow ? 7 : 1));
    const char *only = getenv("CORVANE_RUN");
    int runs = 0;
    for (const Journey &journey : journeys) {
        const std::string prefix = std::string(journey.name) + "/";
        if (only == nullptr) {
            runs += runAll(journey, faults, every);
        } else if (std::string(only).starts_with(prefix)) {
            unsigned long first = 1, second = 1;
            EXPECT_EQ(sscanf(only + prefix.size(), "%lu/%lu", &first, &second), 2);
            (void)run(journey, faults, first, second);
            ++runs;
        }
        ASSERT_FALSE(HasFailure());
    }
    EXPECT_GT(runs, only != nullptr ? 0 : 5);
    std::cout << nameOf(faults) << ": " << runs << " runs, every " << every << ". place of each journey\n";
}

// A device without power is commanded 20 times a second, and its frames are given up after seconds only.
TEST(RadioFault, ADeadDeviceStarvesNeitherTheOthersNorAnInterview) {
    Home home;
    home.bringTo(From::joined);
    oruZb_clusterCmd_t dead = toggle(home.device().node_id);
    dead.aps_options = ORU_ZB_HAL_APS_OPTION_RETRY;
    home.join(0);
    const Bytes alive = bytesOf(toggle(home.device(0).node_id));
    (void)home.air().setFaults("d1", {.deaf = true});
    int lost = 0;
    for (int i = 0; i < 300; ++i) {
        (void)home.sync(ORU_ZB_SVC_SEND_CLUSTER_CMD, bytesOf(dead));
        lost += i % 10 == 0 && home.sync(ORU_ZB_SVC_SEND_CLUSTER_CMD, alive) != 0 ? 1 : 0;
        if (i == 150) {
            (void)home.air().join("d4");
        }
        home.run(50);
    }
    EXPECT_EQ(lost, 0);
    EXPECT_EQ(home.device(4).device_info.endpoint_count, 2) << "its interview was starved";
}

std::vector<Faults> allFaults() { // alone, and with any other
    std::vector<Faults> all;
    for (int first = 0; first <= static_cast<int>(Fault::hangs); ++first) {
        for (int second = first; second <= static_cast<int>(Fault::fails) || second == first; ++second) {
            all.emplace_back(static_cast<Fault>(first), static_cast<Fault>(second));
        }
    }
    return all;
}
INSTANTIATE_TEST_SUITE_P(Faults, RadioFaultTest, ::testing::ValuesIn(allFaults()),
                         [](const auto &entry) { return nameOf(entry.param); });

} // namespace
