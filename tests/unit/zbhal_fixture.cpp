// SPDX-License-Identifier: Apache-2.0
#include "zbhal_fixture.h"
#include "oru_config.h"
#include "oru_log.h"
#include "oru_time.h"
#include <chrono>
#include <cstdarg>
#include <cstdlib>
#include <filesystem>
#include <thread>

namespace zbhal_test {

namespace {

std::atomic<uint64_t> g_now_us{1000000};
std::mutex g_log_mutex;
thread_local bool g_in_operation = false; // inside a HAL operation other than processAction and runEvents
std::atomic<bool> g_pumping{false};
std::atomic<bool> g_descriptor{false};

std::string &logStorage() {
    static auto *text = new std::string;
    return *text;
}

// What must hold in every callback: never from inside an operation, and in descriptor mode only while the loop pumps.
void enter(const std::string &line) {
    EXPECT_FALSE(g_in_operation) << line;
    EXPECT_TRUE(!g_descriptor || g_pumping) << line;
    {
        const std::lock_guard lock(record().mutex);
        record().trace += line + "\n";
    }
    if (in_callback) {
        in_callback();
    }
}

void onStack(oruZbHal_stackStatus_t status) {
    {
        const std::lock_guard lock(record().mutex);
        record().stack.push_back(status);
    }
    enter("stack " + std::to_string(status));
}

bool onMessage(const oruZbHal_incomingMessage_t *message) {
    {
        const std::lock_guard lock(record().mutex);
        record().frames.push_back(
            {message->source, *message->aps_frame, {message->message, message->message + message->msg_len}});
    }
    enter("frame " + std::to_string(message->source) + " " + std::to_string(message->aps_frame->cluster_id) + " " +
          std::to_string(message->msg_len));
    return true;
}

void onEnergy(uint8_t channel, int8_t rssi) {
    const std::lock_guard lock(record().mutex);
    record().energy.emplace_back(channel, rssi);
}

void onNetwork(oruZbHal_network_t *network, uint8_t, int8_t) {
    const std::lock_guard lock(record().mutex);
    record().networks.push_back(*network);
}

void onScan(uint8_t channel, oru_status_t status) {
    const std::lock_guard lock(record().mutex);
    record().scans.emplace_back(channel, status);
}

void onTrustCenter(oruZbHal_nodeId_t node_id, uint8_t *eui64, oruZbHal_nodeId_t parent, oruZbHal_deviceUpdate_t update,
                   oruZbHal_joinDecision_t decision) {
    {
        const std::lock_guard lock(record().mutex);
        record().joins.push_back({node_id, {eui64, eui64 + 8}, parent, update, decision});
    }
    enter("join " + std::to_string(node_id) + " " + std::to_string(update) + " " + std::to_string(decision));
}

void onSent(oruZbHal_outgoingMessageType_t type, uint16_t destination, oruZbHal_apsFrame_t *aps_frame, uint16_t length,
            uint8_t *message, oruZbHal_clusterCommandStatus_t status, uint32_t request_id) {
    {
        const std::lock_guard lock(record().mutex);
        record().confirmations.push_back(
            {request_id, status, destination, type, *aps_frame, {message, message + length}});
    }
    enter("sent " + std::to_string(request_id) + " " + std::to_string(status));
}

oruZbHal_callbacks_t g_callbacks;

} // namespace

std::function<void()> in_callback;

Record &record() {
    static auto *instance = new Record;
    return *instance;
}

std::string logText() {
    const std::lock_guard lock(g_log_mutex);
    return logStorage();
}

void processAction() {
    g_pumping = true;
    oruZbHal_processAction();
    g_pumping = false;
}

void runEvents(uint32_t max_wait_ms) {
    g_pumping = true;
    oruZbHal_runEvents(max_wait_ms);
    g_pumping = false;
}

void HalTest::SetUp() {
    char pattern[] = "/tmp/zbhal-test-XXXXXX";
    folder_ = mkdtemp(pattern);
    g_descriptor = GetParam() == hal::Mode::descriptor;
    in_callback = nullptr;
    logStorage().clear();
    g_callbacks = {};
    g_callbacks.stack_status_callback = onStack;
    g_callbacks.incoming_message_callback = onMessage;
    g_callbacks.energy_scan_result_callback = onEnergy;
    g_callbacks.network_found_callback = onNetwork;
    g_callbacks.scan_complete_callback = onScan;
    g_callbacks.trust_center_callback = onTrustCenter;
    scenario_.air.jitter_ms = 2;
}

void HalTest::TearDown() {
    hal::reset({});
    in_callback = nullptr;
    std::filesystem::remove_all(folder_);
}

void HalTest::start(const mesh::Scenario &scenario, const std::string &state_directory, uint64_t seed) {
    hal::Options options;
    options.mode = GetParam();
    options.scenario = &scenario;
    options.state_directory = state_directory;
    options.seed = seed;
    hal::reset(options);
    {
        const std::lock_guard lock(record().mutex);
        record().stack.clear();
        record().confirmations.clear();
        record().joins.clear();
        record().frames.clear();
        record().interpan.clear();
        record().energy.clear();
        record().networks.clear();
        record().scans.clear();
        record().trace.clear();
    }
    char name[] = "virtual:given.toml";
    descriptor_ = -1;
    ASSERT_EQ(oruZbHal_init(&g_callbacks, &descriptor_), 0);
    ASSERT_EQ(descriptor_ != -1, GetParam() == hal::Mode::descriptor);
    ASSERT_EQ(oruZbHal_setAdapterName(name), 0);
    ASSERT_EQ(oruZbHal_enable(), 0);
}

void HalTest::startWithNetwork(const mesh::Scenario &scenario, const std::string &state_directory) {
    start(scenario, state_directory);
    advance(100);
    ASSERT_EQ(form(), 0);
    advance(300);
    ASSERT_EQ(record().stack.back(), ORU_ZB_HAL_STACK_ENABLED_NETWORK_UP);
}

oru_status_t HalTest::form(uint8_t channel) {
    return oruZbHal_formNetworkAuto(1, 0x02108800, 0, channel, ORU_ZB_HAL_REGION_WORLD_WIDE);
}

void HalTest::drain() {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (hal::pendingIndications() > 0) {
        ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "reports are not delivered";
        if (g_descriptor) {
            processAction();
        } else {
            std::this_thread::yield();
        }
    }
}

void HalTest::advance(uint64_t milliseconds) {
    const uint64_t end_us = g_now_us + milliseconds * 1000;
    for (uint64_t next_us = hal::nextEventUs(); next_us <= end_us; next_us = hal::nextEventUs()) {
        g_now_us = std::max(next_us, g_now_us.load());
        hal::nextEventUs();
        drain();
    }
    g_now_us = end_us;
    hal::nextEventUs();
    drain();
}

mesh::SimDevice HalTest::row(const std::string &name) {
    for (const mesh::SimDevice &device : sim().list()) {
        if (device.name == name) {
            return device;
        }
    }
    ADD_FAILURE() << "no device " << name;
    return {};
}

uint16_t HalTest::joined(const std::string &name) {
    EXPECT_EQ(oruZbHal_permitJoinNetwork(true), 0);
    EXPECT_EQ(sim().join(name), "");
    EXPECT_EQ(oruZbHal_permitJoinNetwork(false), 0);
    advance(500);
    return row(name).node_id;
}

oru_status_t HalTest::sendZdo(uint16_t node_id, uint16_t cluster_id, std::vector<uint8_t> frame, uint32_t request_id) {
    oruZbHal_apsFrame_t aps_frame{};
    aps_frame.cluster_id = cluster_id;
    aps_frame.options = 0x1140;
    g_in_operation = true;
    const oru_status_t status = oruZbHal_sendZdoMessage(node_id, &aps_frame, frame.data(),
                                                        static_cast<uint16_t>(frame.size()), onSent, request_id);
    g_in_operation = false;
    return status;
}

oru_status_t HalTest::sendZcl(uint16_t node_id, uint32_t request_id, uint16_t cluster_id) {
    oruZbHal_apsFrame_t aps_frame{0x0104, cluster_id, 1, 1, ORU_ZB_HAL_APS_OPTION_RETRY, 0, 0, 0};
    uint8_t payload[] = {0x01, 0x21, 0x02}; // On/Off: toggle
    g_in_operation = true;
    const oru_status_t status =
        oruZbHal_sendZclUnicast(node_id, &aps_frame, payload, sizeof payload, onSent, &request_id);
    g_in_operation = false;
    return status;
}

mesh::DeviceSpec device(const std::string &name, uint8_t number, mesh::Role role, const std::string &parent) {
    mesh::DeviceSpec spec;
    spec.name = name;
    spec.eui64 = {0x00, 0x12, 0x4B, 0x00, 0x00, 0x00, 0x01, number};
    spec.role = role;
    spec.parent = parent;
    spec.endpoints = {{1, 0x0104, 0x0100, 1, {0x0000, 0x0006}, {}}};
    return spec;
}

mesh::InstallCode installCode(uint8_t filler) {
    mesh::InstallCode code;
    code.fill(filler);
    uint16_t crc = 0xFFFF; // CRC-16/X-25
    for (size_t i = 0; i < 16; ++i) {
        crc = static_cast<uint16_t>(crc ^ code[i]);
        for (int bit = 0; bit < 8; ++bit) {
            crc = static_cast<uint16_t>((crc & 1) != 0 ? (crc >> 1) ^ 0x8408 : crc >> 1);
        }
    }
    crc = static_cast<uint16_t>(~crc);
    code[16] = static_cast<uint8_t>(crc);
    code[17] = static_cast<uint8_t>(crc >> 8);
    return code;
}

} // namespace zbhal_test

// Settings, virtual clock and log capture, in place of the real layers.
const oruConfig_t &oruConfig_get() {
    static const auto *config = new oruConfig_t;
    return *config;
}

oru_status_t oruTime_clockTime(oruTime_clock_t, oruTime_timespec_t *now) {
    const uint64_t now_us = zbhal_test::g_now_us;
    now->seconds = static_cast<int64_t>(now_us / 1000000);
    now->nanoseconds = static_cast<int32_t>(now_us % 1000000 * 1000);
    return ORU_STATUS_OK;
}

void oruLog_log(oruLog_id_t, oruLog_level_t, const char *tag, const char *format, ...) {
    char line[512];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    std::fprintf(stderr, "[%s] %s\n", tag, line); // the watchdog's last words are looked for there
    const std::lock_guard lock(zbhal_test::g_log_mutex);
    zbhal_test::logStorage() += std::string(line) + "\n";
}
