// SPDX-License-Identifier: Apache-2.0
//
// The HAL layer on a virtual clock, in either mode, with everything it reports recorded. advance() jumps from event to
// event of the mesh, so hours pass in milliseconds; nothing here sleeps for a fixed time.
#pragma once
#include "oru_zbhal.h"
#include "oru_zbhal_testing.h"
#include <atomic>
#include <functional>
#include <gtest/gtest.h>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace zbhal_test {

namespace hal = corvane::zbhal::testing;
namespace mesh = corvane::mesh;

struct Confirmation {
    uint32_t request_id;
    int32_t status;
    uint16_t destination;
    int32_t type;
    oruZbHal_apsFrame_t aps_frame;
    std::vector<uint8_t> message;
};
struct Join {
    uint16_t node_id;
    std::vector<uint8_t> eui64; // least significant byte first
    uint16_t parent;
    int32_t update;
    int32_t decision;
};
struct Incoming {
    uint16_t source;
    oruZbHal_apsFrame_t aps_frame;
    std::vector<uint8_t> message;
};

struct Record {
    std::mutex mutex;
    std::vector<int32_t> stack;
    std::vector<Confirmation> confirmations;
    std::vector<Join> joins;
    std::vector<Incoming> frames;
    std::vector<int32_t> interpan;
    std::vector<std::pair<uint8_t, int8_t>> energy;
    std::vector<oruZbHal_network_t> networks;
    std::vector<std::pair<uint8_t, int32_t>> scans;
    std::string trace; // every report in one line, to compare runs
};

Record &record();
std::string logText(); // everything logged since the test began

class HalTest : public ::testing::TestWithParam<hal::Mode> {
protected:
    void SetUp() override;
    void TearDown() override;

    // Starts the layer over. The network is remembered when state_directory is set.
    void start(const mesh::Scenario &scenario, const std::string &state_directory = {}, uint64_t seed = 1);
    // start() and wait until a network is up.
    void startWithNetwork(const mesh::Scenario &scenario, const std::string &state_directory = {});
    void advance(uint64_t milliseconds);
    // Delivers what is waiting.
    void drain();
    oru_status_t form(uint8_t channel = 15);

    uint16_t joined(const std::string &name); // lets a device join by hand and returns its node id
    mesh::SimTarget &sim() { return *hal::simTarget(); }
    mesh::SimDevice row(const std::string &name);

    oru_status_t sendZdo(uint16_t node_id, uint16_t cluster_id, std::vector<uint8_t> frame, uint32_t request_id = 0);
    oru_status_t sendZcl(uint16_t node_id, uint32_t request_id, uint16_t cluster_id = 0x0006);

    mesh::Scenario scenario_;
    int32_t descriptor_ = -1;
    std::string folder_; // of this test, removed at its end
};

mesh::DeviceSpec device(const std::string &name, uint8_t number, mesh::Role role = mesh::Role::router,
                        const std::string &parent = {});
mesh::InstallCode installCode(uint8_t filler); // with its CRC

// The two operations that may deliver.
void processAction();
void runEvents(uint32_t max_wait_ms);

// Called from inside the next callbacks; empty: nothing.
extern std::function<void()> in_callback;

} // namespace zbhal_test
