// SPDX-License-Identifier: Apache-2.0
//
// A server on a socket in its own folder, with a service handler that tests steer.
#pragma once
#include "../support/raw_client.h"
#include "config_internal.h"
#include "oru_kvs_state.h"
#include "oru_oipc.h"
#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace oipc_test {

namespace kvs = corvane::kvs;

using Payload = std::vector<uint8_t>;
using corvane::base::ByteReader;
using corvane::base::ByteWriter;
using oipc::FrameType;
using namespace testplat;
constexpr auto PATIENCE = std::chrono::milliseconds(PATIENCE_MS);

// Functions of the test service; all others do what `custom` does.
enum : uint16_t {
    ECHO = 1000, // payload goes back unchanged
    BLOCK,       // waits until the gate opens
    CUSTOM,
};

class OipcTest : public testing::Test {
protected:
    OipcTest() {
        current = this;
        useDirectory(directory);
        config.service_uuid = ORU_OIPC_UUID_ZIGBEE;
        config.service_handler = [](oruOipc_parameter_t *task) { return current->handleCall(*task); };
        config.thread_option = ORU_OIPC_THREAD_NONBLOCKING;
    }
    ~OipcTest() override {
        openGate();
        stop();
        std::filesystem::remove_all(directory);
    }
    static void useDirectory(const std::string &runtime_directory) {
        oruConfig_t platform = oruConfig_defaults();
        platform.runtime_directory = runtime_directory;
        oruConfig_replace(platform);
    }
    oru_status_t start() { return oruOipc_start(&handle, &config); }
    void stop() { EXPECT_EQ(oruOipc_stop(&handle), handle != 0 ? ORU_STATUS_OK : ORU_STATUS_UNINITIALIZED); }
    oru_status_t callback(uint16_t client, uint16_t callback_id, const Payload &payload) const {
        const oruOipc_callbackParams_t parameters{ORU_OIPC_CALLBACK_ID, callback_id, payload.data(),
                                                  static_cast<oruOipc_size_t>(payload.size())};
        return oruOipc_callback(handle, client, &parameters);
    }
    oru_status_t publish(uint16_t event_id, const Payload &payload) const {
        const oruOipc_eventParams_t event{event_id, payload.data(), static_cast<oruOipc_size_t>(payload.size())};
        return oruOipc_publishEvent(handle, &event);
    }
    void openGate() {
        const std::lock_guard lock(mutex_);
        gate_open_ = true;
        changed_.notify_all();
    }
    bool waitFor(const std::atomic<int> &value, int expected) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, PATIENCE, [&] { return value == expected; });
    }

    std::string pattern = (std::filesystem::temp_directory_path() / "oipc-XXXXXX").string();
    std::string directory = ::mkdtemp(pattern.data());
    std::string path = directory + "/corvane.sock";
    oruOipc_serverConfig_t config{};
    oruOipc_Handler_t handle = 0;
    std::function<oru_status_t(oruOipc_parameter_t &)> custom = [](auto &) { return ORU_STATUS_OK; };
    std::atomic<int> connected{0}, disconnected{0}, blocked{0};

private:
    oru_status_t handleCall(oruOipc_parameter_t &task) {
        if (task.type != ORU_OIPC_EVENT_UNICAST && task.function_id != BLOCK) {
            return task.function_id == ECHO ? ORU_STATUS_OK : custom(task);
        }
        std::unique_lock lock(mutex_);
        const bool call = task.type != ORU_OIPC_EVENT_UNICAST;
        ++(call ? blocked : task.event_id == ORU_OIPC_EVENT_CLIENT_CONNECTED ? connected : disconnected);
        changed_.notify_all();
        changed_.wait(lock, [&] { return gate_open_ || !call; });
        return call ? ORU_STATUS_CANCELED : ORU_STATUS_OK;
    }

    static inline OipcTest *current = nullptr;
    std::mutex mutex_;
    std::condition_variable changed_;
    bool gate_open_ = false;
};

// A listening socket of the test's own, to play the service.
inline int listenAt(const std::string &path, int type = SOCK_SEQPACKET) {
    const int fd = openSocket(path, ::bind, type);
    EXPECT_EQ(::listen(fd, 4), 0);
    return fd;
}

inline RawFrame call(const RawClient &client, uint16_t function_id, const Payload &payload = {}) {
    EXPECT_TRUE(client.send(frameOf({.type = FrameType::SyncCall, .id = function_id, .sequence = 77}, payload)));
    return client.receive();
}

inline uint16_t hello(const RawClient &client) { // reads the greeting; 0 when something else came
    oipc::Hello hello;
    const RawFrame frame = client.receive();
    const bool greeted = frame.header.type == FrameType::Hello && oipc::decodeHello(frame.payload(), hello);
    return greeted ? hello.client_id : uint16_t{0};
}

} // namespace oipc_test
