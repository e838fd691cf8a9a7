// SPDX-License-Identifier: Apache-2.0
//
// A server on a socket in its own folder, with a service handler that tests steer, and a client that speaks raw frames.
#pragma once
#include "oipc_wire.h"
#include "oru_config.h"
#include "oru_oipc.h"
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace oipc_test {

using Payload = std::vector<uint8_t>;
constexpr auto PATIENCE = std::chrono::seconds(30); // far beyond what anything here takes

// Functions of the test service.
enum : uint16_t {
    ECHO = 1,   // payload goes back unchanged
    BLOCK = 2,  // waits until the gate opens, returns `blocked_result`
    CUSTOM = 3, // what `custom` does
};

class Service {
public:
    Service();
    ~Service();

    oru_status_t start(uint32_t max_clients = 10);
    void stop();

    void openGate();
    bool waitForBlocked(int count); // that many calls wait at the gate
    bool waitForEvent(uint16_t event, int count);
    bool waitForLog(const std::string &text);
    int countLog(const std::string &text);
    int countEvent(uint16_t event);

    oru_status_t callback(uint16_t client, uint16_t callback_id, const Payload &payload);
    oru_status_t publish(uint16_t event_id, const Payload &payload);

    std::string directory;
    std::string path;
    oruOipc_Handler_t handle = 0;
    std::function<oru_status_t(oruOipc_parameter_t &)> custom; // set before clients call
    oru_status_t blocked_result = ORU_STATUS_OK;

    oru_status_t handleCall(oruOipc_parameter_t &task);
    void log(const std::string &line);

private:
    template <class Predicate>
    bool waitUntil(Predicate predicate);
    oru_status_t block();

    std::mutex mutex_;
    std::condition_variable changed_;
    bool gate_open_ = false;
    int blocked_ = 0;
    std::map<uint16_t, int> events_;
    std::vector<std::string> lines_;
};

struct RawFrame {
    oipc::FrameHeader header;
    Payload payload;
    std::string text() const { return {payload.begin(), payload.end()}; }
};

class RawClient {
public:
    explicit RawClient(const std::string &path);
    explicit RawClient(int fd) : fd_(fd) {}
    ~RawClient() { close(); }
    RawClient(RawClient &&other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
    RawClient(const RawClient &) = delete;

    void close();
    bool sendBytes(const Payload &bytes) const;
    bool send(oipc::FrameHeader header, const Payload &payload = {}) const;
    std::optional<RawFrame> receive() const; // nothing: the connection ended, or nothing came in time
    bool ended() const;                      // the next thing to read is the end of the connection
    std::optional<RawFrame> call(uint16_t function_id, const Payload &payload = {}) const;
    uint16_t hello() const; // reads the greeting; 0 when something else came

private:
    int fd_;
};

// A listening socket of the test's own, to play the service.
int listenAt(const std::string &path);
int acceptFrom(int listener);

class OipcTest : public testing::Test {
protected:
    Service service;
};

} // namespace oipc_test
