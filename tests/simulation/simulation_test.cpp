// SPDX-License-Identifier: Apache-2.0
//
// The whole service on the virtual mesh in virtual time, driven by one seed: devices come, go, change addresses and
// misbehave; clients call everything; the radio refuses, loses, resets and crashes; the store and the pools fail. After
// every step the invariants must hold. A failure prints the command that replays it.
#include "oru_os_testing.h"
#include "oru_zbhal_testing.h"
#include "test_platform.h"
#include "zb_database.h"
#include "zb_discovery.h"
#include "zb_main.h"
#include "zb_region_info.h"
#include "zb_server.h"
#include "zb_svc.h"
#include "zb_timer.h"
#include "zb_util.h"
#include "zb_zts.h"
#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <set>

namespace ipc = testplat::ipc;
namespace radio = corvane::zbhal::testing;
namespace mesh = corvane::mesh;

namespace {

using Bytes = std::vector<uint8_t>;

template <typename T>
Bytes bytesOf(const T &record) {
    const auto *raw = reinterpret_cast<const uint8_t *>(&record);
    return {raw, raw + sizeof record};
}

mesh::Scenario scenarioOf(int devices, uint64_t seed) {
    mesh::Scenario scenario;
    scenario.name = "simulation";
    scenario.seed = seed;
    for (int i = 0; i < devices; ++i) {
        mesh::DeviceSpec device;
        device.name = "d" + std::to_string(i);
        device.eui64 = {0x02, 0, 0, 0, 0, 1, static_cast<uint8_t>(i >> 8), static_cast<uint8_t>(i)};
        device.role = i % 3 == 2 ? mesh::Role::sleepy_end_device : mesh::Role::router;
        device.parent = i % 4 == 3 ? "d0" : "";
        device.mac_capabilities = i % 3 == 2 ? 0x80 : 0x8E;
        mesh::EndpointSpec endpoint;
        endpoint.input_clusters = {0x0000, 0x0006};
        device.endpoints.assign(static_cast<size_t>(1 + i % 3), endpoint);
        for (size_t e = 0; e < device.endpoints.size(); ++e) {
            device.endpoints[e].id = static_cast<uint8_t>(e + 1);
        }
        scenario.devices.push_back(device);
    }
    return scenario;
}

class Simulation {
public:
    Simulation(int devices, uint64_t seed) : scenario_(scenarioOf(devices, seed)), random_(seed) {
        testplat::resetAll();
        adapter_state = ORU_ZB_ADAPTER_OFF;
        zb_pjoin_state = ORU_ZB_HAL_STATE_PJOIN_CLOSED;
        zb_hal_signal = -1;
        burst_size = 10;
        throttle_sem_timeout_ms = 0;
        radio::Options options;
        options.mode = radio::Mode::descriptor;
        options.scenario = &scenario_;
        options.seed = seed;
        radio::reset(options);
        (void)oruZb_timersInit();
        (void)oruZb_databaseInit();
        oruZb_ztsListInit();
        oruZb_serverInit();
        static char device[] = "virtual:simulation";
        EXPECT_EQ(oruZb_init(device), ORU_STATUS_OK);
        run(1'000);
        async(ORU_ZB_SVC_FORMZ3NET_MANUAL, {15});
        run(1'000);
        EXPECT_EQ(adapter_state, ORU_ZB_ADAPTER_SERVICE_READY);
    }
    ~Simulation() {
        testplat::faults::off();
        oruZb_stop();
        radio::reset({});
        while (discovery_list_head.slh_first != nullptr) {
            (void)oruZb_deleteFromDiscoveryList(discovery_list_head.slh_first->device.device_info.eui64);
        }
    }
    Simulation(const Simulation &) = delete;
    Simulation &operator=(const Simulation &) = delete;

    static inline std::map<uint16_t, uint64_t> events; // by id, of all runs

    void permit(bool open) { EXPECT_EQ(sync(open ? 4 : 5, {}), 0); }
    mesh::SimTarget &air() { return *radio::simTarget(); }
    uint32_t pick(uint32_t below) { return static_cast<uint32_t>(random_() % below); }
    std::string someone() { return "d" + std::to_string(pick(static_cast<uint32_t>(scenario_.devices.size()))); }

    // Runs loop turns until nothing is due within ms of virtual time.
    void run(uint64_t ms) {
        const uint64_t end = testplat::time::nowMs() + ms;
        for (;;) {
            turnUntilQuiet();
            const uint64_t now = testplat::time::nowMs();
            const uint64_t mesh_due = radio::nextEventUs() / 1000 + 1;
            const uint64_t timer_due =
                testplat::time::untilNext() == UINT64_MAX ? UINT64_MAX : now + testplat::time::untilNext();
            const uint64_t next = std::min({end, std::max(mesh_due, now + 1), std::max(timer_due, now + 1)});
            if (now >= end) {
                return;
            }
            testplat::time::advance(next - now);
        }
    }

    int32_t sync(uint16_t function, Bytes payload) {
        oru_status_t result = INT32_MIN;
        alignas(8) uint8_t buffer[4096] = {};
        std::copy(payload.begin(), payload.end(), buffer);
        oruZb_msgData_t msg{};
        msg.msg_type = static_cast<oruZb_msgType_t>(function);
        msg.msg_data_ptr = buffer;
        msg.msg_data_len = static_cast<uint32_t>(payload.size());
        msg.return_status = &result;
        oruZb_processSyncCall(&msg);
        EXPECT_NE(result, INT32_MIN) << "no answer to " << function;
        return result;
    }
    void async(uint16_t function, Bytes payload) {
        const auto client = static_cast<uint16_t>(1 + pick(5));
        const uint16_t callback = next_callback_++ % 0x4000 + 0x1000;
        if (ipc::async(function, std::move(payload), client, callback).returned == 0 && answers(function)) {
            open_calls_.insert({client, callback});
        }
    }

    void step() {
        action(pick(26));
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
        check();
        EXPECT_TRUE(open_calls_.empty()) << open_calls_.size() << " calls were never answered";
        // A confirmation that could not lock the list leaves its transaction behind.
        EXPECT_LE(oruMp_testBlocksOut(mp_zb_txnl_handle), lock_faults_);
    }
    void check() {
        settleAnswers();
        EXPECT_EQ(oruZb_hasMsg(oruZb_msgListHead), ORU_STATUS_NOT_FOUND);
        EXPECT_EQ(oruMp_testBlocksOut(mp_zb_msgl_handle), 0U);
        EXPECT_EQ(oruMp_testBlocksOut(mp_zb_var_handle), 0U);
        uint32_t places = 0, tokens = 0;
        EXPECT_EQ(oruSem_getCount(zb_post_sem, &places), ORU_STATUS_OK);
        EXPECT_EQ(places, 40U);
        EXPECT_EQ(oruSem_getCount(zb_throttle_sem, &tokens), ORU_STATUS_OK);
        EXPECT_LE(tokens, burst_size.load());
        checkLists();
        EXPECT_EQ(radio::droppedIndications(), 0U);
        for (const uint16_t id : ipc::eventIds()) {
            ++events[id];
        }
        ipc::clear();
        testplat::log::clear();
    }

private:
    // Functions whose handler promises a callback for the payloads used here.
    static bool answers(uint16_t function) {
        return function != ORU_ZB_SVC_STOP_SCAN && function != ORU_ZB_SVC_ADAPTER_DISABLE_RADIO &&
               function != ORU_ZB_SVC_SEND_NODE_LEAVE_REQUEST;
    }
    void turnUntilQuiet() {
        do {
            (void)oruZbHal_processAction();
            while (oruZb_hasMsg(oruZb_msgListHead) == ORU_STATUS_OK) {
                oruZb_handleEvent();
            }
        } while (radio::pendingIndications() > 0);
    }
    void settleAnswers() {
        for (const auto &callback : ipc::callbacks()) {
            if (callback.payload.size() == 4 || callback.payload.size() == 8) {
                const bool expected = open_calls_.erase({callback.client, callback.id}) == 1;
                EXPECT_TRUE(expected || silent_.contains({callback.client, callback.id}))
                    << "an answer nobody waits for, or a second one";
            }
        }
    }
    // The device list, the store and the count say the same, unless the store has been failing.
    void checkLists() {
        std::set<std::string> keys;
        uint32_t count = 0;
        for (const auto *item = device_list_head.slh_first; item != nullptr; item = item->entries.sle_next, ++count) {
            char key[ORU_ZB_KVS_KEY_SIZE];
            ASSERT_EQ(oruZb_kvsConvertEUI64ToKey(key, sizeof key, item->device.device_info.eui64), 0);
            const bool newest = keys.insert(key).second;
            if (newest && !store_failed_) {
                EXPECT_EQ(testplat::kvs::content()[key], bytesOf(item->device)) << key;
            }
        }
        EXPECT_EQ(count, oruZb_databaseGetDeviceCount());
        if (!store_failed_) {
            EXPECT_EQ(keys.size(), testplat::kvs::content().size());
        }
    }
    oruZb_device_t anyDevice() {
        oruZb_device_t device{};
        const uint32_t count = oruZb_databaseGetDeviceCount();
        if (count > 0) {
            (void)oruZb_databaseGetDeviceByIndex(pick(count), &device);
        }
        return device;
    }
    Bytes command() {
        oruZb_clusterCmd_t cmd{};
        cmd.dest_node = pick(5) == 0 ? static_cast<uint16_t>(pick(0xFFFF)) : anyDevice().node_id;
        cmd.cluster_id = 0x0006;
        cmd.profile_id = 0x0104;
        cmd.dest_ep = cmd.src_ep = 1;
        cmd.payload[0] = 1;
        cmd.payload[2] = 2;
        cmd.payload_len = pick(10) == 0 ? static_cast<uint16_t>(pick(200)) : 3;
        return bytesOf(cmd);
    }
    void faultyStep() { // a few calls of the platform fail, then it is healthy again
        testplat::faults::arm(1 + pick(40), pick(3) == 0);
        (void)air().join(someone());
        (void)ipc::async(ORU_ZB_SVC_SEND_CLUSTER_CMD_ASYNC, command(), 9, 0xFFFF);
        run(pick(3'000));
        store_failed_ = store_failed_ || testplat::faults::fired();
        lock_faults_ += testplat::faults::fired() ? 1U : 0U;
        testplat::faults::off();
        turnUntilQuiet();
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
    void action(uint32_t which) {
        switch (which) {
        case 0:
        case 1:
        case 2:
        case 3:
            (void)air().join(someone());
            break;
        case 4:
            (void)air().leave(someone());
            break;
        case 5:
            (void)air().rejoin(someone(), pick(2) == 0);
            break;
        case 6:
            (void)air().changeAddress(someone());
            break;
        case 7:
            (void)air().announce(someone());
            (void)air().announce(someone());
            break;
        case 8:
            (void)air().setPower(someone(), pick(2) == 0);
            break;
        case 9:
        case 10:
        case 11:
            (void)sync(7, command());
            break;
        case 12:
        case 13:
            async(263, command());
            break;
        case 14:
            for (int i = 0; i < 25; ++i) {
                async(263, command());
            }
            break;
        case 15:
            (void)sync(pick(3) == 0 ? 5 : 4, {});
            break;
        case 16: {
            Bytes entry(26);
            entry[0] = 2;
            entry[7] = static_cast<uint8_t>(pick(10));
            entry[5] = 1;
            (void)sync(15, entry);
            async(pick(2) == 0 ? 266 : 267, {});
            break;
        }
        case 17:
            trouble(pick(8));
            break;
        case 18:
            if (pick(3) == 0) {
                (void)(pick(2) == 0 ? air().adapterReset() : air().adapterFatalError());
            }
            break;
        case 19:
            if (pick(6) == 0) {
                leaveAndReturn();
            }
            break;
        case 20: {
            oruZb_interpan_t frame{};
            frame.channel_mask = 1U << 20;
            frame.zcl_buf_len = 10;
            async(265, bytesOf(frame));
            break;
        }
        case 21:
            (void)radio::refuseNext("sendZclUnicast", pick(4), 163);
            (void)radio::refuseNext("sendZdoMessage", pick(3), 163);
            break;
        case 22:
            radio::holdConfirmations(pick(2) == 0);
            break;
        case 23:
            removeSomeone();
            break;
        case 24:
            faultyStep();
            break;
        default:
            for (const uint16_t f : std::initializer_list<uint16_t>{2, 3, 8, 9, 17, 18, 19, 23, 25, 26, 27}) {
                (void)sync(f, Bytes(2000));
            }
            break;
        }
    }
    void removeSomeone() {
        const oruZb_device_t device = anyDevice();
        oruZb_nodeInfo_t node{};
        node.id = device.node_id;
        memcpy(node.device_info.eui64, device.device_info.eui64, 8);
        const auto client = uint16_t{7};
        const uint16_t callback = next_callback_++ % 0x4000 + 0x5000;
        silent_.insert({client, callback}); // answered only when the node id is known
        (void)ipc::async(ORU_ZB_SVC_SEND_NODE_LEAVE_REQUEST, bytesOf(node), client, callback);
    }
    void leaveAndReturn() {
        async(pick(2) == 0 ? 259 : 262, {});
        radio::holdConfirmations(false);
        run(60'000);
        async(270, {static_cast<uint8_t>(11 + pick(16))});
        run(2'000);
        (void)sync(4, {});
    }

    mesh::Scenario scenario_;
    std::mt19937_64 random_;
    std::set<std::pair<uint16_t, uint16_t>> open_calls_, silent_;
    uint32_t next_callback_ = 0;
    bool store_failed_ = false;
    uint32_t lock_faults_ = 0;
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

int number(const char *name, int otherwise) {
    const char *text = getenv(name);
    return text != nullptr ? atoi(text) : otherwise;
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
    RecordProperty("seeds", static_cast<int>(seed - 1));
    // The runs have met what they are for.
    for (const uint16_t id : {ORU_ZB_SVC_DEVICE_DISCOVERED, ORU_ZB_SVC_DEVICE_LEFT, ORU_ZB_SVC_DEVICE_SECURED_REJOIN,
                              ORU_ZB_SVC_SENDCMD_SUCCESS, ORU_ZB_SVC_DEVICE_UNRESPONSIVE, ORU_ZB_SVC_INTERPAN_COMPLETE,
                              ORU_ZB_SVC_NETWORK_DOWN, ORU_ZB_SVC_ADAPTER_RESETTING}) {
        EXPECT_GT(Simulation::events[id], only != 0 ? 0U : 20U) << id;
    }
    for (const auto &[id, count] : Simulation::events) {
        std::cout << id << ": " << count << "  ";
    }
    std::cout << "\n";
}

struct Footprint {
    long resident_kib = 0, threads = 0;
    size_t descriptors = 0, timers = 0, semaphores = 0;
};
Footprint footprint() {
    Footprint f;
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        (void)sscanf(line.c_str(), "VmRSS: %ld", &f.resident_kib);
        (void)sscanf(line.c_str(), "Threads: %ld", &f.threads);
    }
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        f.descriptors += entry.is_symlink() ? 1U : 0U;
    }
    f.timers = testplat::time::live();
    f.semaphores = oruSync_testLiveSemaphores();
    return f;
}

// Present in sanitized builds, which keep freed memory back on purpose.
extern "C" __attribute__((weak)) void __asan_init();
extern "C" __attribute__((weak)) void __tsan_init();

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
                oruZb_clusterCmd_t cmd{};
                oruZb_device_t target{};
                (void)oruZb_databaseGetDeviceByIndex(home.pick(100), &target);
                cmd.dest_node = target.node_id;
                cmd.payload_len = 3;
                home.async(ORU_ZB_SVC_SEND_CLUSTER_CMD_ASYNC, bytesOf(cmd));
            }
            home.run(3'600'000);
            home.check();
        }
    };
    day();
    day();
    const Footprint before = footprint();
    for (int i = 0; i < number("CORVANE_DAYS", 30) - 2; ++i) {
        day();
    }
    const Footprint after = footprint();
    EXPECT_EQ(oruZb_databaseGetDeviceCount(), 100U);
    EXPECT_EQ(after.descriptors, before.descriptors);
    EXPECT_EQ(after.threads, before.threads);
    EXPECT_EQ(after.timers, before.timers);
    EXPECT_EQ(after.semaphores, before.semaphores);
    if (__asan_init == nullptr && __tsan_init == nullptr) {
        EXPECT_LT(after.resident_kib, before.resident_kib + 2048);
    }
    RecordProperty("resident_kib_before", static_cast<int>(before.resident_kib));
    RecordProperty("resident_kib_after", static_cast<int>(after.resident_kib));
}

} // namespace
