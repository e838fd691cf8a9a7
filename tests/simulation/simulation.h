// SPDX-License-Identifier: Apache-2.0
//
// The whole service on the virtual mesh in virtual time, with the books that its clients could keep: which calls wait
// for an answer, and which devices exist according to the events. check() compares the books with the service.
#pragma once
#include "../service/service_fixture.h"
#include "oru_zbhal_testing.h"
#include <map>
#include <set>

namespace ipc = testplat::ipc;
namespace radio = corvane::zbhal::testing;
namespace mesh = corvane::mesh;

// Present in sanitized builds, which keep freed memory back on purpose and are ten times slower.
extern "C" __attribute__((weak)) void __asan_init();
extern "C" __attribute__((weak)) void __tsan_init();

inline bool sanitized() {
    return __asan_init != nullptr || __tsan_init != nullptr;
}

inline int number(const char *name, int otherwise) {
    const char *text = getenv(name);
    return text != nullptr ? atoi(text) : otherwise;
}

// Devices d0, d1 ... with one to three endpoints, routers and sleepy ones, the coordinator's and d0's children.
inline mesh::Scenario scenarioOf(int devices, uint64_t seed) {
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
        device.poll_interval_ms = 3'600'000; // found all the same: it polls fast while it is fresh
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

inline oruZb_nodeInfo_t nodeOf(const oruZb_device_t &device) {
    oruZb_nodeInfo_t node{};
    node.id = device.node_id;
    std::copy_n(device.device_info.eui64, 8, node.device_info.eui64);
    return node;
}
inline oruZb_interpan_t interpanFrame() {
    oruZb_interpan_t frame{};
    frame.channel_mask = 3U << 20;
    frame.zcl_buf_len = 10;
    return frame;
}

class World {
public:
    World(mesh::Scenario scenario, uint64_t seed) : scenario_(std::move(scenario)), seed_(seed) {
        testplat::resetAll();
        resetRadio();
    }
    ~World() { stop(); }
    World(const World &) = delete;
    World &operator=(const World &) = delete;

    static inline std::map<uint16_t, uint64_t> events; // by id, of all worlds

    std::function<void()> on_turn; // before every turn of the main loop and of the radio

    // As the process entry does it; false when the service cannot run.
    bool start() {
        up_ = true;
        resetProcess();
        throttle_sem_timeout_ms = 0;
        const bool up = startService("virtual:simulation");
        known_ = listedKeys();
        return up;
    }
    // The end of the process: what was not handled is not answered any more.
    void stop() {
        testplat::faults::off();
        if (up_) {
            endService();
            EXPECT_EQ(oruSync_testLiveSemaphores(), 0U);
            up_ = false;
        }
        open_calls_.clear();
        resetRadio();
    }

    mesh::SimTarget &air() { return *radio::simTarget(); }
    void permit(bool open) { EXPECT_EQ(sync(open ? ORU_ZB_SVC_PERMITJOIN_START : ORU_ZB_SVC_PERMITJOIN_STOP), 0); }

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
    void turnUntilQuiet() {
        do {
            turn([] { (void)oruZbHal_processAction(); });
            while (oruZb_hasMsg(oruZb_msgListHead) == ORU_STATUS_OK) {
                const oruZb_msgType_t type = oruZb_msgListHead->stqh_first->data.msg_type;
                turn([] { oruZb_handleEvent(); });
                const bool may_forget = type == ORU_ZB_SVC_CLEAR_NETWORK || type == ORU_ZB_SVC_ADAPTER_RESET ||
                                        type == ORU_ZB_SVC_INTERNAL_NETWORK_LEAVE;
                if (may_forget && oruZb_databaseGetDeviceCount() == 0) {
                    forgotten_at_.insert(ipc::events().size());
                }
            }
        } while (radio::pendingIndications() > 0);
    }

    int32_t sync(uint16_t function, Bytes payload = {}) {
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
    // An accepted call has to be answered once. What is already so or names an unknown node may stay unanswered.
    bool async(uint16_t function, Bytes payload = {}, uint16_t client = 1) {
        const uint16_t callback = nextCallback();
        const bool accepted = ipc::async(function, std::move(payload), client, callback).returned == 0;
        const bool answered = function != ORU_ZB_SVC_STOP_SCAN && function != ORU_ZB_SVC_ADAPTER_DISABLE_RADIO &&
                              function != ORU_ZB_SVC_SEND_NODE_LEAVE_REQUEST;
        if (accepted) {
            (answered ? open_calls_ : silent_).insert({client, callback});
        }
        return accepted;
    }
    uint16_t nextCallback() { return static_cast<uint16_t>(0x1000 + next_callback_++ % 0x8000); }

    // Nothing is under way: everything is back where it came from, and the books agree.
    void check() {
        settleAnswers();
        EXPECT_EQ(oruZb_hasMsg(oruZb_msgListHead), ORU_STATUS_NOT_FOUND);
        EXPECT_EQ(oruMp_testBlocksOut(mp_zb_msgl_handle), 0U);
        EXPECT_EQ(oruMp_testBlocksOut(mp_zb_var_handle), 0U);
        uint32_t places = 0, tokens = 0;
        EXPECT_EQ(oruSem_getCount(zb_post_sem, &places), ORU_STATUS_OK);
        EXPECT_EQ(places, ORU_ZB_MSG_QUEUE_PLACES);
        EXPECT_EQ(oruSem_getCount(zb_throttle_sem, &tokens), ORU_STATUS_OK);
        EXPECT_LE(tokens, burst_size.load());
        followEvents();
        checkLists();
        ipc::clear();
        testplat::log::clear();
    }
    // check(), and nobody waits any more. A confirmation that could not lock the list leaves its transaction behind.
    void checkSettled(uint32_t transactions_left = 0) {
        check();
        EXPECT_TRUE(open_calls_.empty()) << open_calls_.size() << " calls were never answered";
        EXPECT_LE(oruMp_testBlocksOut(mp_zb_txnl_handle), transactions_left);
    }

protected:
    void clientDies(uint16_t client) { // its answers may have come before, or never come
        ipc::disconnect(client);
        for (auto *calls : {&open_calls_, &silent_}) {
            for (const auto &call : *calls) {
                if (call.first == client) {
                    silent_.insert(call);
                }
            }
        }
        std::erase_if(open_calls_, [&](const auto &call) { return call.first == client; });
        (void)ipc::async(ORU_ZB_SVC_APING, {}, client, nextCallback()); // a call that was under way
    }
    void noteRefusals() { touched_.merge(testplat::kvs::outdated()); } // of the store, before they are made up for
    void expectAnswer(uint16_t client, uint16_t callback) { open_calls_.insert({client, callback}); }

    mesh::Scenario scenario_;
    bool platform_failed_ = false; // the lists may differ for good: a lock, the allocator or anything else has failed
    bool messages_lost_ = false;   // so devices may have left or come back unnoticed

private:
    using Keys = std::set<std::string>;

    template <typename Work>
    void turn(Work work) {
        if (on_turn) {
            on_turn();
        }
        work();
    }
    void resetRadio() {
        radio::Options options;
        options.mode = radio::Mode::descriptor;
        options.scenario = &scenario_;
        options.seed = seed_;
        radio::reset(options);
    }
    void settleAnswers() {
        for (const auto &callback : ipc::callbacks()) {
            const bool expected = open_calls_.erase({callback.client, callback.id}) == 1 ||
                                  silent_.erase({callback.client, callback.id}) == 1;
            EXPECT_TRUE(expected) << "an answer nobody waits for, or a second one";
        }
    }
    static std::string keyOf(const uint8_t *eui64) {
        char key[ORU_ZB_KVS_KEY_SIZE] = "";
        EXPECT_EQ(oruZb_kvsConvertEUI64ToKey(key, sizeof key, eui64), 0);
        return key;
    }
    static Keys listedKeys() {
        Keys keys;
        for (const auto *item = device_list_head.slh_first; item != nullptr; item = item->entries.sle_next) {
            keys.insert(keyOf(item->device.device_info.eui64));
        }
        return keys;
    }
    // A removal that the store refused keeps the device: it stays listed, and is listed twice when it comes back.
    bool excused(const std::string &key) const { return messages_lost_ || touched_.contains(key); }

    // What a client learns: discovered devices exist until they leave or the network goes.
    void followEvents() {
        noteRefusals();
        const std::vector<testplat::Event> published = ipc::events();
        for (size_t i = 0; i <= published.size(); ++i) {
            if (forgotten_at_.contains(i)) {
                known_.clear();
            }
            if (i == published.size()) {
                break;
            }
            const testplat::Event &event = published[i];
            ++events[event.id];
            if (event.id != ORU_ZB_SVC_DEVICE_DISCOVERED && event.id != ORU_ZB_SVC_DEVICE_LEFT) {
                continue;
            }
            ASSERT_EQ(event.payload.size(), sizeof(oruZb_device_t));
            const std::string key = keyOf(event.payload.data() + offsetof(oruZb_device_t, device_info) +
                                          offsetof(oruZb_svcDeviceInfo_t, eui64));
            const bool sensible =
                event.id == ORU_ZB_SVC_DEVICE_DISCOVERED ? known_.insert(key).second : known_.erase(key) == 1;
            EXPECT_TRUE(sensible || excused(key))
                << key << (event.id == ORU_ZB_SVC_DEVICE_LEFT ? " left" : " came") << " a second time";
        }
        forgotten_at_.clear();
    }
    // The device list, the store, the count and the events say the same.
    void checkLists() {
        const Keys listed = listedKeys();
        const Keys outdated = testplat::kvs::outdated();
        Keys seen;
        uint32_t count = 0;
        for (const auto *item = device_list_head.slh_first; item != nullptr; item = item->entries.sle_next, ++count) {
            const std::string key = keyOf(item->device.device_info.eui64);
            if (!seen.insert(key).second) {
                EXPECT_TRUE(excused(key)) << key << " is listed twice";
                doubled_.insert(key);
            } else if (!platform_failed_ && !outdated.contains(key) && !doubled_.contains(key)) {
                EXPECT_EQ(testplat::kvs::content()[key], bytesOf(item->device)) << key;
            }
            EXPECT_TRUE(known_.contains(key) || excused(key)) << key << " is listed, but was not announced";
        }
        EXPECT_EQ(count, oruZb_databaseGetDeviceCount());
        for (const std::string &key : known_) {
            EXPECT_TRUE(listed.contains(key) || excused(key)) << key << " was announced, but is not listed";
        }
        for (const auto &[key, value] : testplat::kvs::content()) {
            EXPECT_TRUE(listed.contains(key) || outdated.contains(key) || platform_failed_) << key << " is stored only";
        }
    }

    uint64_t seed_;
    bool up_ = false;
    std::set<std::pair<uint16_t, uint16_t>> open_calls_, silent_;
    uint32_t next_callback_ = 0;
    Keys known_, touched_, doubled_; // announced; ever refused by the store; ever listed twice
    std::set<size_t> forgotten_at_;  // numbers of events before which all devices were forgotten
};
