// SPDX-License-Identifier: Apache-2.0
#include "service_fixture.h"
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <regex>
#include <sstream>
#include <thread>
#include <unistd.h>

namespace ipc = testplat::ipc;
namespace hal = testplat::hal;

namespace {

class CoreTest : public ServiceTest {
protected:
    static oru_status_t post(int32_t type) {
        oruZb_msgListItem_t *item = oruZb_takeMsgItem(static_cast<oruZb_msgType_t>(type));
        if (item == nullptr) {
            return ORU_STATUS_OUT_OF_MEMORY;
        }
        const oru_status_t status = oruZb_postThreadMsg(item);
        if (status != 0) {
            (void)oruMp_free(mp_zb_msgl_handle, item);
        }
        return status;
    }
    static std::vector<std::string> handledTypes() {
        std::vector<std::string> types;
        for (const auto &line : testplat::log::lines()) {
            const auto at = line.find("process message type ");
            if (at != std::string::npos) {
                types.push_back(line.substr(at + 21));
            }
        }
        return types;
    }
};

TEST_F(CoreTest, QueueTakesFortyThenProducersWaitAndOrderIsKept) {
    bootReady();
    for (int i = 0; i < 40; ++i) {
        ASSERT_EQ(post(ORU_ZB_SVC_INTERNAL_EVENT + 0x100 + i), 0);
    }
    std::atomic<int> done{0};
    std::thread producer([&] {
        EXPECT_EQ(post(ORU_ZB_SVC_INTERNAL_EVENT + 0x100 + 40), 0);
        done = 1;
    });
    uint32_t places = 1;
    while (places != 0) {
        (void)oruSem_getCount(zb_post_sem, &places);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20)); // would it slip through?
    EXPECT_EQ(done, 0);
    turn();
    producer.join();
    pump();
    const auto types = handledTypes();
    ASSERT_EQ(types.size(), 41U);
    for (size_t i = 0; i < types.size(); ++i) {
        char expected[24];
        (void)snprintf(expected, sizeof expected, "0x%zx.", 0x80100 + i);
        EXPECT_EQ(types[i], expected);
    }
    expectAtRest();
}

TEST_F(CoreTest, OneWakeBytePerMessageAndNoneBefore) {
    hal::useDescriptor(true);
    ASSERT_TRUE(boot());
    EXPECT_TRUE(oruZb_halUseSingleEventLoop());
    (void)fcntl(hal::descriptorReadEnd(), F_SETFL, O_NONBLOCK);
    uint8_t bytes[256];
    (void)!read(hal::descriptorReadEnd(), bytes, sizeof bytes);
    for (int i = 0; i < 7; ++i) {
        ASSERT_EQ(post(ORU_ZB_SVC_INTERNAL_EVENT + 0x100), 0);
    }
    ASSERT_EQ(read(hal::descriptorReadEnd(), bytes, sizeof bytes), 7);
    EXPECT_TRUE(std::all_of(bytes, bytes + 7, [](uint8_t b) { return b == 0; }));
    pump();
}

TEST_F(CoreTest, AdapterTransitions) {
    using S = oruZb_adapterState_t;
    const std::vector<S> states = {ORU_ZB_ADAPTER_OFF,
                                   ORU_ZB_ADAPTER_ON,
                                   ORU_ZB_ADAPTER_TURNING_ON,
                                   ORU_ZB_ADAPTER_TURNING_OFF,
                                   ORU_ZB_ADAPTER_INTERPAN_IN_PROGRESS,
                                   ORU_ZB_ADAPTER_SERVICE_READY};
    // Rows: from; columns: OFF ON TURNING_ON TURNING_OFF INTERPAN READY
    const char *allowed[] = {"=.++..", ".=.+++", ".+=+.+", "+..=..", ".+.+=+", ".+.++="};
    for (size_t from = 0; from < states.size(); ++from) {
        for (size_t to = 0; to < states.size(); ++to) {
            adapter_state = states[from];
            const oru_status_t expected = allowed[from][to] == '+'   ? ORU_STATUS_OK
                                          : allowed[from][to] == '=' ? ORU_STATUS_ALREADY_EXISTS
                                                                     : ORU_STATUS_GENERAL_ERROR;
            EXPECT_EQ(oruZb_setAdapterState(states[to]), expected) << from << " to " << to;
            EXPECT_EQ(adapter_state, expected == ORU_STATUS_OK ? states[to] : states[from]);
        }
    }
    for (const int32_t never : {4, 7, 8, 9, 100, 77, -1}) {
        testplat::log::clear();
        EXPECT_EQ(oruZb_setAdapterState(static_cast<S>(never)), ORU_STATUS_GENERAL_ERROR);
        EXPECT_EQ(testplat::log::lines().size(), 2U);
        EXPECT_EQ(oruZb_adapterStateToEventID(static_cast<S>(never)), ORU_ZB_SVC_ADAPTER_CRITICAL_ERROR);
    }
    EXPECT_STREQ(oruZb_adapterStateName(ORU_ZB_ADAPTER_RESET_CALLBACK), "ORUZB_ADAPTER_STATE_UNKNOWN");
    adapter_state = ORU_ZB_ADAPTER_OFF;
}

TEST_F(CoreTest, StackStatusEvents) {
    struct Row {
        oruZb_adapterState_t from;
        int32_t status;
        oruZb_adapterState_t to;
        std::vector<uint16_t> events;
    };
    const std::vector<Row> rows = {
        {ORU_ZB_ADAPTER_OFF, 0, ORU_ZB_ADAPTER_OFF, {}},
        {ORU_ZB_ADAPTER_OFF, 1, ORU_ZB_ADAPTER_TURNING_ON, {1028}},
        {ORU_ZB_ADAPTER_TURNING_ON, 1, ORU_ZB_ADAPTER_TURNING_ON, {}},
        {ORU_ZB_ADAPTER_ON, 2, ORU_ZB_ADAPTER_ON, {}},
        {ORU_ZB_ADAPTER_ON, 3, ORU_ZB_ADAPTER_ON, {}},
        {ORU_ZB_ADAPTER_TURNING_ON, 4, ORU_ZB_ADAPTER_SERVICE_READY, {1025, 1041}},
        {ORU_ZB_ADAPTER_OFF, 4, ORU_ZB_ADAPTER_OFF, {1041}},
        {ORU_ZB_ADAPTER_SERVICE_READY, 5, ORU_ZB_ADAPTER_ON, {1026, 1042}},
        {ORU_ZB_ADAPTER_SERVICE_READY, 6, ORU_ZB_ADAPTER_OFF, {1027, 1049}},
        {ORU_ZB_ADAPTER_TURNING_OFF, 6, ORU_ZB_ADAPTER_OFF, {1027, 1049}},
        {ORU_ZB_ADAPTER_SERVICE_READY, 7, ORU_ZB_ADAPTER_TURNING_ON, {1028, 1049}},
        {ORU_ZB_ADAPTER_ON, 8, ORU_ZB_ADAPTER_ON, {}},
    };
    ASSERT_TRUE(boot());
    for (const Row &row : rows) {
        pump();
        adapter_state = row.from;
        forget();
        hal::stackStatus(row.status);
        EXPECT_TRUE(ipc::events().empty()); // the callback itself only posts
        pump();
        EXPECT_EQ(adapter_state, row.to) << row.status;
        EXPECT_EQ(ipc::eventIds(), row.events) << row.status;
    }
}

TEST_F(CoreTest, FunctionIdsAndImmediateAnswers) {
    oruZb_serverInit(); // nothing else is up
    for (uint32_t id = 0; id <= 0xFFFF; id = id < 600 ? id + 1 : id + 997) {
        const auto function = static_cast<uint16_t>(id);
        if (id < 1 || id > 28) {
            const auto result = ipc::sync(function, Bytes(8));
            EXPECT_EQ(result.returned, ORU_STATUS_BAD_PARAM);
            EXPECT_EQ(static_cast<oru_status_t>(result.status), ORU_STATUS_BAD_PARAM);
        }
        if (id < 257 || id > 270) {
            EXPECT_EQ(ipc::async(function, {}).returned, ORU_STATUS_BAD_PARAM);
        }
    }
    const auto pong = ipc::sync(ORU_ZB_SVC_PING, Bytes(8));
    EXPECT_EQ(pong.returned, 0);
    EXPECT_STREQ(reinterpret_cast<const char *>(pong.payload.data()), "pong");
    EXPECT_EQ(ipc::sync(ORU_ZB_SVC_PING, Bytes(7)).returned, ORU_STATUS_DATA_LEN_INVALID);
    EXPECT_EQ(ipc::sync(ORU_ZB_SVC_ADAPTER_GET_STATE, Bytes(4, 9)).payload, Bytes(4, 0));
    EXPECT_NE(ipc::sync(ORU_ZB_SVC_SPING, Bytes(8)).returned, ORU_STATUS_OK); // there is no queue
    oruZb_serverDeInit();
}

TEST_F(CoreTest, TenCallersAtOnceEachGetTheirOwnAnswer) {
    bootReady();
    for (uint16_t n = 0; n < 10; ++n) {
        oruZb_device_t device{};
        device.node_id = static_cast<uint16_t>(0x100 + n);
        device.device_info.eui64[7] = static_cast<uint8_t>(n);
        ASSERT_EQ(oruZb_databaseAddDevice(&device), ORU_STATUS_OK);
    }
    std::atomic<int> running{10};
    std::vector<std::thread> callers;
    for (uint16_t n = 0; n < 10; ++n) {
        callers.emplace_back([&running, n] {
            for (int round = 0; round < 50; ++round) {
                oruZb_getDevice_t request{};
                request.by = ORU_ZB_BY_NODEID;
                request.device.node_id = static_cast<uint16_t>(0x100 + n);
                const auto result = ipc::sync(ORU_ZB_SVC_GETDEVICE, bytesOf(request), static_cast<uint16_t>(n + 1));
                EXPECT_EQ(result.returned, 0);
                EXPECT_EQ(recordOf<oruZb_getDevice_t>(result.payload).device.device_info.eui64[7], n);
                EXPECT_EQ(ipc::sync(ORU_ZB_SVC_PING, Bytes(8)).returned, 0);
            }
            --running;
        });
    }
    while (running > 0) {
        pump();
    }
    for (std::thread &caller : callers) {
        caller.join();
    }
    expectAtRest();
}

TEST_F(CoreTest, NoPayloadLengthIsReadBeyondItsEnd) {
    bootReady();
    for (const ClientFunction &row : clientFunctions()) {
        const auto function = static_cast<uint16_t>(row.id);
        for (uint32_t length = 0; length <= 4096; ++length) {
            // A buffer of exactly that size: a sanitizer sees every byte read or written past it.
            const auto block = std::make_unique<uint8_t[]>(length);
            memset(block.get(), 0xEE, length);
            uint32_t size = length, status = 0;
            const bool sync = isValidSyncFunc(function);
            oruOipc_parameter_t task{
                1,    sync ? ORU_OIPC_FUNCTION_SYNC : ORU_OIPC_FUNCTION_ASYNC, function, 0, &size, &status, block.get(),
                0x201};
            oru_status_t result = 0;
            if (sync && function != ORU_ZB_SVC_PING && function != ORU_ZB_SVC_ADAPTER_GET_STATE) {
                oruZb_msgData_t msg{};
                msg.msg_type = static_cast<oruZb_msgType_t>(function);
                msg.msg_data_ptr = block.get();
                msg.msg_data_len = length;
                msg.return_status = &result;
                oruZb_processSyncCall(&msg);
            } else {
                result = oruZb_oipcServiceHandler(&task);
            }
            if (length > 0 && length < row.least_payload) {
                EXPECT_EQ(result, function == ORU_ZB_SVC_BINDING ? ORU_STATUS_BAD_PARAM : ORU_STATUS_DATA_LEN_INVALID)
                    << function << " " << length;
            }
            pump();
            adapter_state = ORU_ZB_ADAPTER_SERVICE_READY;
            hal::sent().clear();
            testplat::log::clear();
            ipc::clear();
        }
    }
    expectAtRest();
}

TEST_F(CoreTest, BrokenInvariantsEndTheProcess) {
    bootReady();
    const FakeDevice device{{1, 2, 3, 4, 5, 6, 7, 8}, 0x1234}, another{{8}, 0x4321};
    device.join();
    const std::vector<std::pair<const char *, std::function<void()>>> breaches = {
        {"device_count is the number of items", [] { ++device_count, oruZb_databasePrintDevices(); }},
        {"the current node is being interrogated",
         [&] { current_discovery_item = discovery_list_head.slh_first, another.join(); }},
        {"every linked item has a place",
         [] {
             EXPECT_EQ(oruSem_post(zb_post_sem) + post(ORU_ZB_SVC_INTERNAL_DEVICE_RECOVERY), 0);
             EXPECT_EQ(oruSem_post(zb_post_sem) + post(ORU_ZB_SVC_INTERNAL_DEVICE_RECOVERY), 0);
             turn();
         }},
        {"the adapter is in a state of the table",
         [] { adapter_state = ORU_ZB_ADAPTER_UPGRADING, oruZb_setAdapterState(ORU_ZB_ADAPTER_TURNING_OFF); }},
    };
    for (const auto &[what, breach] : breaches) {
        EXPECT_DEATH(breach(), what);
    }
}

// The tables of functions: id (or first and last), a star when it needs the network, name, payload.
TEST(ClientFunctionTest, DocumentedAsTheyAre) {
    std::ifstream doc(CORVANE_IPC_DOC);
    const std::regex row(R"(\| (\d+)(?:–(\d+))?( \*)? \| ([^|]+) \| ([^|]+) \|.*)");
    const std::regex size(R"(\b[iu](8|16|32)\b|\b(\d+)\b|zero byte)");
    std::vector<int> documented, rows;
    std::smatch cell, bytes;
    bool in_table = false;
    for (std::string line; std::getline(doc, line);) {
        in_table = line.starts_with("## ") ? line.ends_with("ynchronous functions") : in_table;
        if (!in_table || !std::regex_match(line, cell, row)) {
            continue;
        }
        const std::string payload = cell[5];
        const bool sized = std::regex_search(payload, bytes, size) && payload.find(": n ×") == std::string::npos;
        const auto least = static_cast<uint32_t>(!sized             ? 0
                                                 : bytes[1].matched ? std::stoi(bytes[1]) / 8
                                                 : bytes[2].matched ? std::stoi(bytes[2])
                                                                    : 1);
        const int first = std::stoi(cell[1]), last = cell[2].matched ? std::stoi(cell[2]) : first;
        for (int id = first; id <= last; ++id) {
            documented.push_back(id);
            const ClientFunction *function = findClientFunction(id);
            ASSERT_NE(function, nullptr) << line;
            EXPECT_EQ(function->needs_network, cell[3].matched) << line;
            EXPECT_TRUE(first != last || function->name == cell[4].str()) << line;
            EXPECT_EQ(function->least_payload, function->payload == Payload::value ? 0 : least) << line;
            EXPECT_EQ(function->payload == Payload::none || function->payload == Payload::answer, payload == "–")
                << line;
        }
    }
    std::ranges::transform(clientFunctions(), std::back_inserter(rows), &ClientFunction::id);
    EXPECT_EQ(documented, rows);
}

TEST_F(CoreTest, EveryFunctionReachesItsHandler) {
    bootReady();
    // Results of synchronous calls, and statuses of callbacks of asynchronous ones.
    constexpr int32_t SILENT = 1, TEXT = INT32_MIN;
    const std::map<uint16_t, int32_t> results = {
        {2, 0},   {3, 0},        {4, 0},      {5, 0},   {7, 0},   {8, -8},  {9, 0},        {10, 0},
        {11, -1}, {12, -1},      {13, -1},    {14, -1}, {15, 0},  {16, 0},  {17, 0},       {18, 0},
        {19, -1}, {20, -1},      {21, -1},    {22, 0},  {23, 0},  {24, 0},  {25, 0},       {26, 0},
        {27, 0},  {28, -11},     {257, TEXT}, {258, 0}, {259, 0}, {260, 0}, {261, 0},      {262, 0},
        {263, 0}, {264, SILENT}, {265, 0},    {266, 0}, {267, 0}, {268, 0}, {269, SILENT}, {270, SILENT}};
    std::map<uint16_t, std::string> asked; // of the adapter
    std::istringstream calls("2 echo(10) 3 getKey(3) 4 permitJoinNetwork(1) 5 permitJoinNetwork(0) 7 sendZclUnicast "
                             "10 setRadioPower(0) 16 clearTransientLinkKeys 17 getFwVersion 18 getAdapterInfo "
                             "23 getDebugCounters 24 getAndClearDebugCounters 25 getChildren 26 getRouteTableEntries "
                             "27 getNeighbors 258 formNetworkAuto 259 leaveNetwork 261 disable 262 factoryReset "
                             "263 sendZclUnicast 265 sendRawInterpan 266 permitJoinZts(1) 267 permitJoinZts(0) "
                             "268 startScan");
    for (uint16_t function = 0; calls >> function;) {
        calls >> asked[function];
    }
    for (const auto &[function, result] : results) {
        SCOPED_TRACE(function);
        adapter_state = ORU_ZB_ADAPTER_SERVICE_READY;
        forget();
        if (isValidSyncFunc(function)) {
            EXPECT_EQ(callSync(function, Bytes(800)).returned, result);
        } else {
            EXPECT_EQ(callAsync(function, Bytes(800), 4, 0x333), 0);
            ASSERT_EQ(ipc::callbacks().size(), result == SILENT ? 0U : 1U);
            if (result != SILENT) {
                EXPECT_EQ(ipc::callbacks()[0].status(), result);
                EXPECT_EQ(ipc::callbacks()[0].client, 4);
                EXPECT_EQ(ipc::callbacks()[0].id, 0x333);
            }
        }
        EXPECT_EQ(hal::calls().empty(), !asked.contains(function));
        EXPECT_TRUE(hal::calls().empty() || hal::count(asked[function]) == 1);
    }
    EXPECT_EQ(testplat::log::count("Unsupported message type!"), 0U);
    forget();
    EXPECT_EQ(callAsync(ORU_ZB_SVC_STOP_SCAN), 0);
    EXPECT_TRUE(testplat::log::has("Unsupported message type!"));
    EXPECT_TRUE(testplat::log::has("Event 0x10d returned -6"));
    hal::confirmAll();
    pump();
    expectAtRest();
}

TEST_F(CoreTest, ApplicationMessagesGoToClientsZdoToTheQueue) {
    bootReady();
    for (const size_t length : {0U, 1U, 2U, 100U, 101U, 1000U}) {
        forget();
        EXPECT_TRUE(hal::incoming(0x1001, 0x0104, 0x0402, Bytes(length, 0xAB), 2, 1));
        const auto record = recordOf<oruZb_clusterCmd_t>(ipc::events().at(0).payload);
        EXPECT_EQ(ipc::events()[0].id, ORU_ZB_SVC_INCOMING_MSG);
        EXPECT_EQ(record.payload_len, std::min<size_t>(length, 100));
        EXPECT_EQ(record.src_node, 0x1001);
        EXPECT_EQ(record.src_ep, 2);
        EXPECT_EQ(record.confirmation_id, 77);
    }
    forget();
    EXPECT_TRUE(hal::incoming(0x1001, 0, 0x8021, Bytes(2))); // a response that discovery does not consume
    EXPECT_EQ(ipc::eventIds(), (std::vector<uint16_t>{ORU_ZB_SVC_INCOMING_MSG}));
    EXPECT_FALSE(oruZb_stackIncomingMsgCallback(nullptr));
    oruZbHal_apsFrame_t aps{};
    oruZbHal_incomingMessage_t without_bytes{};
    without_bytes.aps_frame = &aps;
    without_bytes.msg_len = 500; // no payload pointer: nothing to copy
    aps.cluster_id = ZDO_ACTIVE_EP_RSP;
    EXPECT_TRUE(oruZb_stackIncomingMsgCallback(&without_bytes));
    pump();
    // Exhausted pools lose ZDO frames, not application messages.
    std::vector<void *> hoard;
    for (void *block = oruMp_alloc(mp_zb_msgl_handle); block != nullptr; block = oruMp_alloc(mp_zb_msgl_handle)) {
        hoard.push_back(block);
    }
    EXPECT_FALSE(hal::incoming(0x1001, 0, ZDO_DEVICE_ANNCE, Bytes(12)));
    EXPECT_TRUE(hal::incoming(0x1001, 0x0104, 6, Bytes(3)));
    EXPECT_EQ(ipc::sync(ORU_ZB_SVC_SPING, Bytes(8)).returned, ORU_STATUS_OUT_OF_MEMORY);
    for (void *block : hoard) {
        (void)oruMp_free(mp_zb_msgl_handle, block);
    }
    expectAtRest();
}

TEST_F(CoreTest, ShutDownReleasesBlockedProducersAndCallers) {
    bootReady();
    std::vector<std::future<ipc::Result>> callers;
    for (uint16_t n = 0; n < 3; ++n) {
        callers.push_back(std::async(std::launch::async, [n] { return ipc::sync(ORU_ZB_SVC_SPING, Bytes(8), n); }));
    }
    uint32_t places = 40;
    while (places != 39) { // one of them is queued, the others wait behind it
        (void)oruSem_getCount(zb_post_sem, &places);
    }
    while (places != 0) {
        ASSERT_EQ(post(ORU_ZB_SVC_INTERNAL_EVENT + 0x100), 0);
        (void)oruSem_getCount(zb_post_sem, &places);
    }
    for (uint16_t n = 3; n < 5; ++n) { // inside the gate, waiting for a place
        callers.push_back(std::async(std::launch::async, [n] { return ipc::async(ORU_ZB_SVC_APING, {}, n); }));
    }
    while (oruSync_testWaiting(zb_post_sem) != 2) {
        std::this_thread::yield();
    }
    const auto begin = std::chrono::steady_clock::now();
    stop();
    for (auto &caller : callers) {
        EXPECT_EQ(caller.get().returned, ORU_STATUS_CANCELED);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(1000));
    EXPECT_EQ(ipc::async(ORU_ZB_SVC_APING, {}).returned, ORU_STATUS_CANCELED);
    hal::stackStatus(4); // late callbacks find a closed gate
    EXPECT_FALSE(hal::incoming(1, 0, ZDO_DEVICE_ANNCE, Bytes(12)));
}

TEST_F(CoreTest, CallerThatComesToItsWaitAfterShutDownIsCanceledToo) {
    bootReady();
    testplat::log::on_line = [](const std::string &line) {
        if (line.find("posted message 2 with") != line.npos) { // the caller is still inside: what shut-down does next
            EXPECT_FALSE(oruZb_gateClose(0));
            (void)oruSem_delete(sync_call_sem);
        }
    };
    EXPECT_EQ(ipc::sync(ORU_ZB_SVC_SPING, Bytes(8)).returned, ORU_STATUS_CANCELED);
}

} // namespace
