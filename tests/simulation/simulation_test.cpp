// SPDX-License-Identifier: Apache-2.0
//
// A life driven by one seed: devices come, go, change addresses and misbehave; clients call everything, flood the queue
// and die; the radio refuses, loses, resets and crashes; the store fails and heals. With every second seed anything of
// the platform may fail and the pools run dry, too. After every step the books must agree. A failure prints the command
// that replays it.
#include "simulation.h"
#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

namespace {

class Simulation : public World {
public:
    Simulation(int devices, uint64_t seed) : Simulation(scenarioOf(devices, seed), seed) {}
    Simulation(mesh::Scenario scenario, uint64_t seed) : World(std::move(scenario), seed), random_(seed) {
        EXPECT_TRUE(start());
        run(1'000);
        async(ORU_ZB_SVC_FORMZ3NET_MANUAL, {15});
        run(1'000);
        EXPECT_EQ(adapter_state, ORU_ZB_ADAPTER_SERVICE_READY);
        platform_fails_ = seed % 2 == 1;
    }

    uint32_t pick(uint32_t below) { return static_cast<uint32_t>(random_() % below); }
    std::string someone() { return "d" + std::to_string(pick(static_cast<uint32_t>(scenario_.devices.size()))); }
    void async(uint16_t function, Bytes payload = {}) {
        (void)World::async(function, std::move(payload), clients_[pick(5)]);
    }

    void step() {
        act(UINT32_MAX);
        run(pick(4) == 0 ? pick(20'000) : pick(300));
        check();
    }
    // Everything healthy again, long enough for every retry and recovery to end.
    void settle() {
        testplat::faults::off();
        radio::holdConfirmations(false);
        for (const auto &device : scenario_.devices) {
            (void)air().setFaults(device.name, {});
        }
        (void)air().setAir({});
        run(300'000);
        checkSettled(transactions_left_);
    }

private:
    oruZb_device_t anyDevice() {
        oruZb_device_t device{};
        const uint32_t count = oruZb_databaseGetDeviceCount();
        if (count > 0) {
            (void)oruZb_databaseGetDeviceByIndex(pick(count), &device);
        }
        return device;
    }
    Bytes command() {
        oruZb_clusterCmd_t cmd = toggle(pick(5) == 0 ? static_cast<uint16_t>(pick(0xFFFF)) : anyDevice().node_id);
        cmd.payload_len = pick(10) == 0 ? static_cast<uint16_t>(pick(200)) : 3;
        return bytesOf(cmd);
    }
    void send(int times) {
        for (int i = 0; i < times; ++i) {
            async(ORU_ZB_SVC_SEND_CLUSTER_CMD_ASYNC, command());
        }
    }
    void faultyStep() { // a few calls of the platform fail, then it is healthy again
        testplat::faults::arm(1 + pick(40), pick(3) == 0);
        (void)air().join(someone());
        (void)ipc::async(ORU_ZB_SVC_SEND_CLUSTER_CMD_ASYNC, command(), 9, 0xFFFF);
        run(pick(3'000));
        platform_failed_ = platform_failed_ || testplat::faults::fired();
        messages_lost_ = messages_lost_ || platform_failed_;
        transactions_left_ += static_cast<uint32_t>(testplat::log::count("txn_list_mutex failed"));
        testplat::faults::off();
        turnUntilQuiet();
    }
    void failingStore() { // for a while; what could not be written then stays different until the device's next change
        testplat::kvs::fail(true);
        for (int i = 0; i < 3; ++i) {
            act(20);
            run(pick(8'000));
        }
        noteRefusals();
        testplat::kvs::fail(false);
    }
    void emptyPool() { // somebody else has all the blocks for a while
        const uint32_t which = pick(3);
        const oruMp_handle_t pool = (which == 0   ? mp_zb_msgl_handle
                                     : which == 1 ? mp_zb_var_handle
                                                  : mp_zb_txnl_handle);
        std::vector<void *> blocks;
        const auto take = [&] { return which == 1 ? oruMp_allocSize(pool, 24) : oruMp_alloc(pool); };
        for (void *block = take(); block != nullptr; block = take()) {
            blocks.push_back(block);
        }
        EXPECT_GT(blocks.size(), 20U);
        messages_lost_ = true;
        for (int i = 0; i < 3; ++i) {
            act(20);
            run(pick(5'000));
        }
        for (void *block : blocks) {
            EXPECT_EQ(oruMp_free(pool, block), 0);
        }
    }
    // A client on a thread of its own fills the queue and waits; or the main thread posts until it is refused.
    void floodQueue() {
        if (pick(2) == 0) {
            size_t taken = 0;
            while (taken < 200 && World::async(ORU_ZB_SVC_APING, {}, clients_[0])) {
                ++taken;
            }
            EXPECT_EQ(taken, 100U);
            return;
        }
        std::vector<uint16_t> callbacks(60);
        std::generate(callbacks.begin(), callbacks.end(), [this] { return nextCallback(); });
        std::atomic<bool> done{false};
        std::thread client([&] {
            for (const uint16_t callback : callbacks) {
                EXPECT_EQ(ipc::async(ORU_ZB_SVC_APING, {}, 8, callback).returned, 0);
            }
            done = true;
        });
        while (oruSync_testWaiting(zb_post_sem) == 0) {
            std::this_thread::yield();
        }
        EXPECT_EQ(oruZb_msgCount(oruZb_msgListHead), ORU_ZB_MSG_QUEUE_PLACES);
        while (!done) {
            turnUntilQuiet();
        }
        client.join();
        for (const uint16_t callback : callbacks) {
            expectAnswer(8, callback);
        }
    }
    void clientDies() { // with calls in the queue, and another one takes its place
        uint16_t &client = clients_[pick(5)];
        for (uint32_t i = pick(4); i > 0; --i) {
            (void)World::async(ORU_ZB_SVC_SEND_CLUSTER_CMD_ASYNC, command(), client);
        }
        World::clientDies(client);
        client = next_client_++;
    }
    void trouble(uint32_t kind) {
        mesh::Faults faults;
        faults.silent = kind == 0;
        faults.deaf = kind == 1;
        faults.zdo_length_delta = kind == 2 ? static_cast<int16_t>(static_cast<int>(pick(40)) - 20) : int16_t{0};
        faults.duplicate_answers = kind == 3;
        faults.answer_delay_ms = kind == 4 ? pick(30'000) : 0;
        faults.send_status = kind == 5 ? static_cast<uint8_t>(160 + pick(90)) : uint8_t{0};
        faults.zdo_error_status = kind == 6 ? uint8_t{0x84} : uint8_t{0};
        (void)air().setFaults(someone(), faults);
    }
    void registerInstallCode() {
        Bytes entry(sizeof(oruZb_ztsDeviceInfo_t));
        entry[0] = 2;
        entry[5] = 1;
        entry[7] = static_cast<uint8_t>(pick(10));
        (void)sync(ORU_ZB_SVC_ZTS_ADD_DEVICES, entry);
        async(pick(2) == 0 ? ORU_ZB_SVC_ZTS_ENABLE : ORU_ZB_SVC_ZTS_DISABLE);
    }
    void askEverything() {
        for (const uint16_t f : std::initializer_list<uint16_t>{2, 3, 8, 9, 17, 18, 19, 23, 25, 26, 27}) {
            (void)sync(f, Bytes(2000));
        }
    }
    void leaveAndReturn() {
        async(pick(2) == 0 ? 259 : 262, {});
        radio::holdConfirmations(false);
        run(60'000);
        async(270, {static_cast<uint8_t>(11 + pick(16))});
        run(2'000);
        (void)sync(4, {});
    }

    void act(uint32_t kinds) { // one of the first kinds, by weight
        static constexpr struct {
            uint32_t weight;
            void (*act)(Simulation &s);
        } actions[] = {
            {4, [](Simulation &s) { (void)s.air().join(s.someone()); }},
            {1, [](Simulation &s) { (void)s.air().leave(s.someone()); }},
            {1, [](Simulation &s) { (void)s.air().rejoin(s.someone(), s.pick(2) == 0); }},
            {1, [](Simulation &s) { (void)s.air().changeAddress(s.someone()); }},
            {1, [](Simulation &s) { (void)s.air().announce(s.someone()); }},
            {1, [](Simulation &s) { (void)s.air().setPower(s.someone(), s.pick(2) == 0); }},
            {3, [](Simulation &s) { (void)s.sync(ORU_ZB_SVC_SEND_CLUSTER_CMD, s.command()); }},
            {2, [](Simulation &s) { s.send(1); }},
            {1, [](Simulation &s) { s.send(25); }},
            {1, [](Simulation &s) { s.async(ORU_ZB_SVC_SEND_NODE_LEAVE_REQUEST, bytesOf(nodeOf(s.anyDevice()))); }},
            {1, [](Simulation &s) { s.async(ORU_ZB_SVC_SEND_INTERPAN, bytesOf(interpanFrame())); }},
            {1, [](Simulation &s) { (void)s.sync(s.pick(3) == 0 ? 5 : 4); }},
            {1, [](Simulation &s) { s.registerInstallCode(); }},
            {1, [](Simulation &s) { s.askEverything(); }},
            {1, [](Simulation &s) { s.trouble(s.pick(8)); }},
            {1, [](Simulation &s) { (void)radio::refuseNext("sendZclUnicast", s.pick(4), 163); }},
            {1, [](Simulation &s) { (void)radio::refuseNext("sendZdoMessage", s.pick(3), 163); }},
            {1, [](Simulation &s) { radio::holdConfirmations(s.pick(2) == 0); }},
            {1, [](Simulation &s) { s.pick(6) == 0 ? (void)s.air().adapterReset() : (void)0; }},
            {1, [](Simulation &s) { s.pick(6) == 0 ? (void)s.air().adapterFatalError() : (void)0; }},
            {2, [](Simulation &s) { s.clientDies(); }},
            {1, [](Simulation &s) { s.pick(6) == 0 ? s.leaveAndReturn() : (void)0; }},
            {1, [](Simulation &s) { s.floodQueue(); }},
            {1, [](Simulation &s) { s.platform_fails_ ? s.faultyStep() : s.failingStore(); }},
            {1, [](Simulation &s) { s.platform_fails_ ? s.emptyPool() : (void)0; }},
        };
        uint32_t total = 0;
        for (uint32_t i = 0; i < std::min<size_t>(kinds, std::size(actions)); ++i) {
            total += actions[i].weight;
        }
        uint32_t left = pick(total);
        const auto *action = actions;
        for (; left >= action->weight; ++action) {
            left -= action->weight;
        }
        action->act(*this);
    }

    std::mt19937_64 random_;
    std::array<uint16_t, 5> clients_{1, 2, 3, 4, 5};
    uint16_t next_client_ = 100;
    bool platform_fails_ = false;
    uint32_t transactions_left_ = 0;
};

void play(uint64_t seed, int steps) {
    SCOPED_TRACE("replay: CORVANE_SEED=" + std::to_string(seed) + " CORVANE_STEPS=" + std::to_string(steps) +
                 " simulation_tests --gtest_filter='*Seeds*'");
    Simulation simulation(10, seed);
    simulation.permit(true);
    for (int step = 0; step < steps && !::testing::Test::HasFailure(); ++step) {
        SCOPED_TRACE("step " + std::to_string(step));
        simulation.step();
    }
    if (!::testing::Test::HasFailure()) {
        simulation.settle();
    }
}

TEST(SimulationTest, Seeds) {
    const int only = number("CORVANE_SEED", 0);
    const int steps = number("CORVANE_STEPS", 250);
    const double hours = number("CORVANE_SOAK_MINUTES", 0) / 60.0;
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double, std::ratio<3600>>(hours);
    uint64_t seed = only != 0 ? static_cast<uint64_t>(only) : 1;
    do {
        play(seed, steps);
        ASSERT_FALSE(HasFailure()) << "seed " << seed;
        ++seed;
    } while (only == 0 && (seed <= 200 || std::chrono::steady_clock::now() < end));
    // The runs have met what they are for.
    for (const uint16_t id : {ORU_ZB_SVC_DEVICE_DISCOVERED, ORU_ZB_SVC_DEVICE_LEFT, ORU_ZB_SVC_DEVICE_SECURED_REJOIN,
                              ORU_ZB_SVC_SENDCMD_SUCCESS, ORU_ZB_SVC_DEVICE_UNRESPONSIVE, ORU_ZB_SVC_INTERPAN_COMPLETE,
                              ORU_ZB_SVC_NETWORK_DOWN, ORU_ZB_SVC_ADAPTER_RESETTING}) {
        EXPECT_GT(World::events[id], only != 0 ? 0U : 20U) << id;
    }
    for (const auto &[id, count] : World::events) {
        std::cout << id << ": " << count << "  ";
    }
    std::cout << seed - 1 << " seeds\n";
}

// Resident memory in KiB, and all else that may not grow: threads, descriptors, timers, semaphores.
std::pair<long, std::array<long, 4>> footprint() {
    long resident = 0, threads = 0;
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        (void)sscanf(line.c_str(), "VmRSS: %ld", &resident);
        (void)sscanf(line.c_str(), "Threads: %ld", &threads);
    }
    const auto descriptors = std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    return {resident,
            {threads, descriptors, static_cast<long>(testplat::time::live()),
             static_cast<long>(oruSync_testLiveSemaphores())}};
}

TEST(SimulationTest, FourHundredWhoJoinInTheSameInstantAreKnown) {
    mesh::Scenario scenario = scenarioOf(400, 2);
    for (mesh::DeviceSpec &device : scenario.devices) {
        device.join_at_ms = 0;
        device.role = mesh::Role::router; // who can be asked for as long as it takes
        device.parent.clear();
    }
    for (const bool shared : {true, false}) {
        scenario.air.shared_medium = shared;
        Simulation home(scenario, 2);
        home.permit(true);
        home.run(600'000);
        EXPECT_EQ(oruZb_databaseGetDeviceCount(), 400U) << "shared medium: " << shared;
        home.checkSettled();
    }
}

TEST(SimulationTest, ThirtyDaysWithAHundredDevicesStayFlat) {
    Simulation home(100, 7);
    home.permit(true);
    for (int i = 0; i < 100; ++i) {
        (void)home.air().join("d" + std::to_string(i));
        home.run(2'000);
    }
    home.run(600'000);
    EXPECT_EQ(oruZb_databaseGetDeviceCount(), 100U);
    const auto day = [&] {
        for (int hour = 0; hour < 24; ++hour) {
            for (int n = 0; n < 3; ++n) {
                const std::string device = "d" + std::to_string(1 + home.pick(99));
                (void)(home.pick(2) == 0 ? home.air().changeAddress(device) : home.air().rejoin(device, true));
                oruZb_device_t target{};
                (void)oruZb_databaseGetDeviceByIndex(home.pick(100), &target);
                home.async(ORU_ZB_SVC_SEND_CLUSTER_CMD_ASYNC, bytesOf(toggle(target.node_id)));
            }
            home.run(3'600'000);
            home.check();
        }
    };
    day();
    day();
    const auto [resident_before, held_before] = footprint();
    for (int i = 0; i < number("CORVANE_DAYS", 30) - 2; ++i) {
        day();
    }
    const auto [resident, held] = footprint();
    EXPECT_EQ(oruZb_databaseGetDeviceCount(), 100U);
    EXPECT_EQ(held, held_before);
    std::cout << resident_before << " KiB after two days, " << resident << " at the end\n";
    EXPECT_LT(resident, resident_before + (sanitized() ? LONG_MAX / 2 : 2048));
}

} // namespace
