// SPDX-License-Identifier: Apache-2.0
//
// The client library against the real server, and against a test's own idea of a service where that must misbehave.
#include "corvane_client.h"
#include "oipc_fixture.h"
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <thread>
#include <unistd.h>

using namespace oipc_test;
using corvane::Client;
using corvane::Outcome;
using corvane::Transport;

namespace {

class ClientTest : public OipcTest {
protected:
    void connect(const corvane::Options &changes = {}) {
        ASSERT_EQ(service.start(), ORU_STATUS_OK);
        options = changes;
        options.socket_path = service.path;
        const auto outcome = client.connect(options);
        ASSERT_TRUE(outcome.ok()) << outcome.describe();
    }

    corvane::Options options;
    Client client;
};

Payload payloadOf(const oruOipc_parameter_t &task) {
    const auto *bytes = static_cast<const uint8_t *>(task.buffer);
    return {bytes, bytes + *task.data_length};
}

template <class T>
Payload bytesOf(const T &record) {
    const auto *bytes = reinterpret_cast<const uint8_t *>(&record);
    return {bytes, bytes + sizeof record};
}

Payload statusBytes(oru_status_t status) {
    return bytesOf(status);
}

bool readableNow(int fd) {
    pollfd entry{fd, POLLIN, 0};
    return ::poll(&entry, 1, 0) > 0;
}

} // namespace

// ---------------------------------------------------------------- what goes over the wire

class WireTest : public ClientTest {
protected:
    struct Case {
        uint16_t id;
        std::function<Outcome()> call;
        Payload expected;
    };

    void check(oruOipc_dataType_t type, const std::vector<Case> &cases) {
        uint16_t function = 0;
        Payload sent;
        bool right_type = true;
        service.custom = [&](oruOipc_parameter_t &task) {
            function = task.function_id;
            right_type = right_type && task.type == type;
            sent = payloadOf(task);
            return ORU_STATUS_OK;
        };
        connect();
        for (const auto &each : cases) {
            EXPECT_TRUE(each.call().ok()) << each.id;
            EXPECT_EQ(function, each.id);
            EXPECT_EQ(sent, each.expected) << each.id;
        }
        EXPECT_TRUE(right_type);
        client.disconnect();
    }

    oruZb_clusterCmd_t command{{0x1234}, 6, 0x0104, 1, 2, {1, 2, 3}, 3, 4, 5, 0, ORU_ZB_SUCCESS};
};

TEST_F(WireTest, SynchronousCallsSendTheirFunctionAndRecord) {
    oruZb_getDevice_t by_node{ORU_ZB_BY_NODEID, {}};
    by_node.device.node_id = 0xABCD;
    oruZb_getDevice_t by_eui64{ORU_ZB_BY_EUI64, {}};
    std::fill_n(by_eui64.device.device_info.eui64, 8, uint8_t{7});
    const oruZb_ztsDeviceInfo_t zts{{1}, {2}};
    const Payload body{5, 6, 7};
    check(ORU_OIPC_FUNCTION_SYNC,
          {
              {4, [&] { return client.permitJoin(true); }, {}},
              {5, [&] { return client.permitJoin(false); }, {}},
              {6, [&] { return client.adapterState(); }, Payload(4)},
              {7, [&] { return client.sendCommand(command); }, bytesOf(command)},
              {8, [&] { return client.deviceByIndex(5); }, bytesOf(oruZb_getDevice_t{oruZb_getDeviceBy_t{5}, {}})},
              {8, [&] { return client.deviceByNodeId(0xABCD); }, bytesOf(by_node)},
              {8,
               [&] {
                   return client.deviceByEui64({7, 7, 7, 7, 7, 7, 7, 7});
               },
               bytesOf(by_eui64)},
              {9, [&] { return client.deviceCount(); }, Payload(4)},
              {10, [&] { return client.setRadioPower(-3); }, {0xFD}},
              {15,
               [&] {
                   return client.ztsAdd({&zts, 1});
               },
               bytesOf(zts)},
              {16, [&] { return client.ztsClear(); }, {}},
              {17, [&] { return client.adapterInfo(); }, Payload(264)},
              {18, [&] { return client.localNode(); }, Payload(748)},
              {20, [&] { return client.setRegion("DE"); }, {'D', 'E', 0}},
              {21, [&] { return client.setBurstSize(0x01020304); }, {4, 3, 2, 1}},
              {22, [&] { return client.setThrottleTimeout(std::chrono::seconds(1)); }, {0xE8, 3, 0, 0}},
              {23, [&] { return client.ptaCounters(false); }, Payload(22)},
              {24, [&] { return client.ptaCounters(true); }, Payload(22)},
              {28, [&] { return client.bind(0x1A2B, body); }, {0x2B, 0x1A, 5, 6, 7}},
          });
}

TEST_F(WireTest, AsynchronousCallsSendTheirFunctionAndRecord) {
    oruZb_nodeInfo_t node{};
    node.id = 0x4321;
    oruZb_interpan_t interpan{};
    interpan.sequence = 9;
    const oruZb_scan_t scan{ORU_ZB_SCAN_TYPE_ACTIVE, 0x07FFF800, 3, {}};
    const oruZb_coexParams_t coex{1, 2, 3, 4, 5, 6};
    const corvane::Completion done = [](const Outcome &) {};
    check(ORU_OIPC_FUNCTION_ASYNC, {
                                       {257, [&] { return client.asyncPing([](const auto &) {}); }, {}},
                                       {258, [&] { return client.formNetworkAuto(std::nullopt, done); }, {}},
                                       {258, [&] { return client.formNetworkAuto(coex, done); }, {1, 2, 3, 4, 5, 6}},
                                       {259, [&] { return client.clearNetwork(done); }, {}},
                                       {260, [&] { return client.enableRadio(done); }, {}},
                                       {261, [&] { return client.disableRadio(done); }, {}},
                                       {262, [&] { return client.resetAdapter(done); }, {}},
                                       {263, [&] { return client.sendCommandAsync(command, done); }, bytesOf(command)},
                                       {264, [&] { return client.nodeLeave(node, done); }, bytesOf(node)},
                                       {265, [&] { return client.sendInterpan(interpan, done); }, bytesOf(interpan)},
                                       {266, [&] { return client.ztsEnable(done); }, {}},
                                       {267, [&] { return client.ztsDisable(done); }, {}},
                                       {268, [&] { return client.startScan(scan, done); }, bytesOf(scan)},
                                       {270, [&] { return client.formNetworkManual(15, done); }, {15}},
                                   });
}

TEST_F(ClientTest, ArgumentsThatCannotBeSentAreRefusedHere) {
    connect();
    const Payload huge(4097);
    EXPECT_EQ(client.callSync(ECHO, huge, {}).status, ORU_STATUS_DATA_LEN_INVALID);
    EXPECT_EQ(client.callAsync(ECHO, huge, {}).transport, Transport::Invalid);
    EXPECT_EQ(client.bind(1, Payload(4095)).transport, Transport::Invalid);
    EXPECT_EQ(client.setRegion(std::string_view("D\0E", 3)).transport, Transport::Invalid);
    EXPECT_EQ(client.setThrottleTimeout(std::chrono::hours(24 * 50)).transport, Transport::Invalid);
    EXPECT_EQ(client.deviceByIndex(0x80000000U).transport, Transport::Invalid);
    EXPECT_TRUE(client.ztsAdd({}).ok());
}

// A list of nodes behind the paging protocol, as the service implements it.
TEST_F(ClientTest, NodePagesAreJoinedWithoutAskingForTooMany) {
    uint32_t count = 0;
    int refused = 0;
    service.custom = [&](oruOipc_parameter_t &task) -> oru_status_t {
        const std::span bytes(static_cast<uint8_t *>(task.buffer), 4096);
        if (task.function_id == ORU_ZB_SVC_GETDEVICE_COUNT) {
            oipc::put(bytes, 0, count);
            return ORU_STATUS_OK;
        }
        auto index = oipc::get<uint32_t>(bytes, 0);
        for (uint32_t k = 0; k < (*task.data_length - 4) / 748; ++k, ++index) {
            if (index >= count) {
                ++refused;
                return ORU_STATUS_GENERAL_ERROR;
            }
            oipc::put(bytes, 4 + k * 748, static_cast<uint16_t>(index + 100));
            oipc::put(bytes, 0, index + 1);
        }
        return index < count ? ORU_STATUS_UNRECOVERABLE : ORU_STATUS_OK;
    };
    connect();
    const struct {
        uint32_t devices, start;
        std::size_t max;
        std::size_t expected;
        bool more;
    } cases[] = {{0, 0, SIZE_MAX, 0, false},   {1, 0, SIZE_MAX, 1, false},   {5, 0, SIZE_MAX, 5, false},
                 {6, 0, SIZE_MAX, 6, false},   {23, 0, SIZE_MAX, 23, false}, {23, 20, SIZE_MAX, 3, false},
                 {23, 23, SIZE_MAX, 0, false}, {23, 99, 5, 0, false},        {23, 0, 7, 7, true},
                 {23, 16, 7, 7, false},        {23, 0, 0, 0, true}};
    for (const auto &each : cases) {
        count = each.devices;
        const auto page = client.connectedNodes(each.start, each.max);
        EXPECT_TRUE(page.ok());
        ASSERT_EQ(page.value.nodes.size(), each.expected) << each.devices << ' ' << each.start;
        for (std::size_t i = 0; i < each.expected; ++i) {
            EXPECT_EQ(page.value.nodes[i].id, 100 + each.start + i);
        }
        EXPECT_EQ(page.value.next, each.start + each.expected);
        EXPECT_EQ(page.value.more, each.more);
    }
    EXPECT_EQ(refused, 0);
}

TEST_F(ClientTest, TablesEndWithTheLastNumberedEntry) {
    oruOipc_size_t asked = 0;
    service.custom = [&](oruOipc_parameter_t &task) {
        asked = *task.data_length;
        for (uint8_t i = 0; i < 3; ++i) {
            static_cast<uint8_t *>(task.buffer)[i * 10] = static_cast<uint8_t>(i + 50);
            static_cast<uint8_t *>(task.buffer)[i * 10 + 8] = static_cast<uint8_t>(i + 1);
        }
        return ORU_STATUS_OK;
    };
    connect();
    const auto routes = client.routes();
    ASSERT_EQ(routes.value.size(), 3U);
    EXPECT_EQ(routes.value[2].destination, 52);
    EXPECT_EQ(asked, 255U * 10U) << "the adapter counts to 255";
    EXPECT_TRUE(client.neighbors().value.empty());
    EXPECT_EQ(asked, 255U * 16U);
    EXPECT_TRUE(client.children().value.empty());
    EXPECT_EQ(asked, 204U * 20U);
}

// ---------------------------------------------------------------- asynchronous calls

TEST_F(ClientTest, CompletionsComeOnceAndCarryTheStatus) {
    std::vector<std::pair<uint16_t, uint16_t>> later; // client and callback id
    std::mutex mutex;
    service.custom = [&](oruOipc_parameter_t &task) -> oru_status_t {
        switch (task.function_id) {
        case ORU_ZB_SVC_APING: // overtakes the answer to the call
            return service.callback(task.client_id, task.callback_id, {'a', 'p', 'o', 'n', 'g', 0, 0, 0});
        case ORU_ZB_SVC_ADAPTER_RESET:
            return ORU_STATUS_BUSY;
        default:
            const std::lock_guard lock(mutex);
            later.emplace_back(task.client_id, task.callback_id);
            return ORU_STATUS_OK;
        }
    };
    connect();
    std::vector<std::string> seen;
    EXPECT_TRUE(client.asyncPing([&](const auto &r) { seen.push_back(r.value); }).ok());
    EXPECT_TRUE(seen.empty()) << "nothing is delivered inside a call";
    const auto sent =
        client.sendCommandAsync({}, [&](const Outcome &o) { seen.push_back("sent " + std::to_string(o.status)); });
    EXPECT_TRUE(sent.ok());
    EXPECT_TRUE(
        client.enableRadio([&](const Outcome &o) { seen.push_back("enable " + std::to_string(o.status)); }).ok());
    EXPECT_EQ(client.resetAdapter([&](const Outcome &) { seen.push_back("refused"); }).status, ORU_STATUS_BUSY);
    EXPECT_TRUE(client.disableRadio({}).ok());
    {
        const std::lock_guard lock(mutex);
        ASSERT_EQ(later.size(), 3U);
        EXPECT_NE(later[0].second, later[1].second);
        EXPECT_EQ(later[0].second, sent.value);
        EXPECT_GE(later[0].second, corvane::FIRST_CALLBACK_ID);
        EXPECT_EQ(later[2].second, ORU_ZB_NO_CALLBACK);
        service.callback(later[1].first, later[1].second, statusBytes(-27));
        service.callback(later[0].first, later[0].second, statusBytes(0));
        service.callback(later[0].first, later[0].second, statusBytes(-1)); // a second answer is nobody's
    }
    EXPECT_TRUE(client.pollUntil([&] { return seen.size() == 3; }, PATIENCE));
    EXPECT_TRUE(client.callSync(ECHO, {}, {}).ok()); // behind the second answer
    client.poll(corvane::Milliseconds(0));
    EXPECT_EQ(seen, (std::vector<std::string>{"apong", "enable -27", "sent 0"}));
}

TEST_F(ClientTest, UnansweredCallsEndByTimeOutOrWithTheConnection) {
    service.custom = [](oruOipc_parameter_t &) -> oru_status_t { return ORU_STATUS_OK; };
    connect();
    std::vector<Transport> seen;
    const auto note = [&](const corvane::CallbackResult &r) { seen.push_back(r.transport); };
    ASSERT_TRUE(client.callAsync(ORU_ZB_SVC_STOP_SCAN, {}, note, std::chrono::hours(1)).ok());
    ASSERT_TRUE(client.callAsync(ORU_ZB_SVC_STOP_SCAN, {}, note, corvane::Milliseconds(1)).ok());
    EXPECT_TRUE(client.pollUntil([&] { return !seen.empty(); }, PATIENCE));
    EXPECT_EQ(seen, std::vector{Transport::TimedOut});
    service.stop();
    EXPECT_TRUE(client.pollUntil([&] { return seen.size() == 2; }, PATIENCE));
    EXPECT_EQ(seen.back(), Transport::ConnectionLost);
    EXPECT_FALSE(client.connected());
    EXPECT_EQ(client.callSync(ECHO, {}, {}).transport, Transport::ConnectionLost);
}

TEST_F(ClientTest, TimedOutCallDoesNotConfuseTheNext) {
    corvane::Options quick;
    quick.call_timeout = corvane::Milliseconds(1);
    connect(quick);
    uint8_t out = 0;
    EXPECT_EQ(client.callSync(BLOCK, Payload{1}, {&out, 1}).transport, Transport::TimedOut);
    service.openGate();
    Outcome outcome;
    do { // the answer to the first call may come at any time from now on
        outcome = client.callSync(ECHO, Payload{9}, {&out, 1});
    } while (outcome.transport == Transport::TimedOut);
    EXPECT_TRUE(outcome.ok());
    EXPECT_EQ(out, 9);
}

// ---------------------------------------------------------------- threads and delivery

TEST_F(ClientTest, ManyThreadsShareOneClient) {
    connect();
    for (const bool own_thread : {false, true}) {
        EXPECT_EQ(own_thread && client.start(), own_thread);
        std::atomic<int> right = 0;
        std::vector<std::jthread> threads;
        for (uint8_t t = 0; t < 6; ++t) {
            threads.emplace_back([&, t] {
                for (uint8_t i = 0; i < 100; ++i) {
                    Payload out(2);
                    right += client.callSync(ECHO, Payload{t, i}, out).ok() && out == Payload{t, i} ? 1 : 0;
                }
            });
        }
        threads.clear();
        EXPECT_EQ(right, 600);
    }
    EXPECT_FALSE(client.start()) << "runs already";
    client.stop();
    EXPECT_TRUE(client.start());
}

TEST_F(ClientTest, HandlersMayCallTheServiceAndSeeEventsInOrder) {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<uint8_t> seen;
    client.onEvent([&](const corvane::Event &event) {
        Payload out(1);
        EXPECT_TRUE(client.callSync(ECHO, event.payload, out).ok());
        EXPECT_EQ(client.poll(corvane::Milliseconds(0)), 0U) << "no handler inside a handler";
        const std::lock_guard lock(mutex);
        seen.push_back(out[0]);
        changed.notify_all();
    });
    connect();
    ASSERT_TRUE(client.start());
    for (uint8_t i = 0; i < 100; ++i) {
        service.publish(1025, {i});
    }
    std::unique_lock lock(mutex);
    ASSERT_TRUE(changed.wait_for(lock, PATIENCE, [&] { return seen.size() == 100; }));
    EXPECT_TRUE(std::ranges::is_sorted(seen));
}

TEST_F(ClientTest, EventRecordsAreCheckedForTheirSize) {
    int devices = 0;
    int others = 0;
    client.onEvent([&](const corvane::Event &event) {
        devices += event.device().has_value() ? 1 : 0;
        others += event.command() || event.interpan() ? 1 : 0;
    });
    connect();
    service.publish(ORU_ZB_SVC_DEVICE_LEFT, Payload(744));
    service.publish(ORU_ZB_SVC_DEVICE_LEFT, Payload(743));
    service.publish(ORU_ZB_SVC_INCOMING_MSG, Payload(744));
    service.publish(ORU_ZB_SVC_INCOMING_MSG, Payload(120));
    service.publish(ORU_ZB_SVC_INTERPAN_COMPLETE, Payload(8));
    EXPECT_TRUE(client.pollUntil([&] { return others == 2; }, PATIENCE));
    EXPECT_EQ(devices, 1);
}

TEST_F(ClientTest, DescriptorShowsWhenThereIsWork) {
    int events = 0;
    int timeouts = 0;
    service.custom = [](oruOipc_parameter_t &) -> oru_status_t { return ORU_STATUS_OK; };
    client.onEvent([&](const auto &) { ++events; });
    connect();
    client.poll(corvane::Milliseconds(0)); // the note that the connection is up
    EXPECT_FALSE(readableNow(client.fileDescriptor()));
    service.publish(1025, {});
    EXPECT_TRUE(readableNow(client.fileDescriptor()));
    client.poll(corvane::Milliseconds(0));
    EXPECT_EQ(events, 1);

    service.publish(1025, {});
    uint8_t out = 0;
    EXPECT_TRUE(client.callSync(ECHO, Payload{1}, {&out, 1}).ok()); // takes the event off the socket, too
    EXPECT_TRUE(readableNow(client.fileDescriptor())) << "for the event that is kept";
    client.poll(corvane::Milliseconds(0));
    EXPECT_EQ(events, 2);
    EXPECT_FALSE(readableNow(client.fileDescriptor()));

    ASSERT_TRUE(client
                    .callAsync(
                        CUSTOM, {}, [&](const auto &) { ++timeouts; }, corvane::Milliseconds(20))
                    .ok());
    pollfd entry{client.fileDescriptor(), POLLIN, 0};
    EXPECT_EQ(::poll(&entry, 1, 30000), 1) << "for the time-out";
    client.poll(corvane::Milliseconds(0));
    EXPECT_EQ(timeouts, 1);
}

TEST_F(ClientTest, OldestEventsAreDroppedWhenNobodyPolls) {
    corvane::Options small;
    small.max_queued = 3;
    std::vector<uint8_t> seen;
    client.onEvent([&](const corvane::Event &event) { seen.push_back(event.payload[0]); });
    connect(small);
    for (uint8_t i = 0; i < 10; ++i) {
        service.publish(1025, {i});
    }
    EXPECT_TRUE(client.callSync(ECHO, {}, {}).ok());
    client.poll(corvane::Milliseconds(0));
    EXPECT_EQ(seen, (std::vector<uint8_t>{7, 8, 9}));
    EXPECT_EQ(client.droppedEvents(), 7U);
}

// ---------------------------------------------------------------- connecting

TEST_F(ClientTest, ReconnectsWhenTheServiceComesBack) {
    corvane::Options stubborn;
    stubborn.auto_reconnect = true;
    stubborn.reconnect_min = corvane::Milliseconds(1);
    stubborn.reconnect_max = corvane::Milliseconds(5);
    std::vector<bool> states;
    client.onConnection([&](bool up, const Outcome &) { states.push_back(up); });
    connect(stubborn);
    for (int round = 0; round < 3; ++round) {
        service.stop();
        EXPECT_TRUE(client.pollUntil([&] { return !client.connected(); }, PATIENCE));
        EXPECT_FALSE(client.ping().ok());
        ASSERT_EQ(service.start(), ORU_STATUS_OK);
        EXPECT_TRUE(client.pollUntil([&] { return client.connected(); }, PATIENCE));
        EXPECT_TRUE(client.callSync(ECHO, {}, {}).ok());
    }
    client.disconnect();
    client.poll(corvane::Milliseconds(20));
    EXPECT_EQ(states, (std::vector<bool>{true, false, true, false, true, false, true, false}));
    EXPECT_FALSE(client.connected()) << "asked to end, so it stays ended";
}

TEST_F(ClientTest, FailuresToConnectAreToldApart) {
    ASSERT_EQ(service.start(1), ORU_STATUS_OK);
    const auto connectTo = [this](const std::string &path, corvane::Milliseconds timeout = PATIENCE) {
        corvane::Options o;
        o.socket_path = path;
        o.connect_timeout = timeout;
        return client.connect(o);
    };
    EXPECT_EQ(connectTo(service.directory + "/nobody").transport, Transport::NoService);
    EXPECT_EQ(connectTo(std::string(200, 'x')).transport, Transport::Invalid);
    const RawClient first(service.path);
    first.hello();
    const auto refused = connectTo(service.path);
    EXPECT_EQ(refused.transport, Transport::Refused);
    EXPECT_EQ(refused.status, ORU_STATUS_BUSY);
    const std::string mute = service.directory + "/mute";
    const int listener = listenAt(mute);
    EXPECT_EQ(connectTo(mute, corvane::Milliseconds(10)).transport, Transport::TimedOut);
    ::close(listener);
    EXPECT_EQ(client.callSync(ECHO, {}, {}).transport, Transport::TimedOut) << "the reason stays";
}

TEST_F(ClientTest, AServiceThatTalksNonsenseLosesTheClient) {
    const auto hello = oipc::encodeHello({.client_id = 5, .service_uuid = 2, .max_payload = 4096, .max_clients = 10});
    const Payload greeting(hello.begin(), hello.end());
    const struct {
        const char *what;
        std::function<void(const RawClient &)> speak;
        Transport expected;
    } cases[] = {
        {"says nothing and goes", [](const auto &) {}, Transport::ConnectionLost},
        {"sends rubbish",
         [](const auto &c) {
             c.sendBytes({1, 2, 3});
         },
         Transport::ConnectionLost},
        {"sends a frame without end", [](const auto &c) { c.sendBytes(Payload(60000, 'C')); },
         Transport::ConnectionLost},
        {"calls the client", [](const auto &c) { c.send({.type = oipc::FrameType::SyncCall}); },
         Transport::ConnectionLost},
        {"refuses", [](const auto &c) { c.send({.type = oipc::FrameType::Refusal, .status = -20}); },
         Transport::Refused},
        {"answers another call",
         [](const auto &c) { c.send({.type = oipc::FrameType::SyncResult, .sequence = 12345}, {1}); },
         Transport::ConnectionLost},
        {"answers more than was asked for",
         [](const auto &c) { c.send({.type = oipc::FrameType::SyncResult, .sequence = 1}, Payload(4096)); },
         Transport::Ok},
    };
    const std::string path = service.directory + "/other.sock";
    const int listener = listenAt(path);
    for (const auto &each : cases) {
        Client fresh;
        std::jthread played([&] {
            const RawClient peer(acceptFrom(listener));
            peer.send({.type = oipc::FrameType::Hello}, greeting);
            peer.receive(); // the call
            each.speak(peer);
        });
        options.socket_path = path;
        ASSERT_TRUE(fresh.connect(options).ok()) << each.what;
        EXPECT_EQ(fresh.clientId(), 5);
        std::array<uint8_t, 2> out{};
        EXPECT_EQ(fresh.callSync(ECHO, Payload{1}, out).transport, each.expected) << each.what;
    }
    ::close(listener);
}

TEST(ClientNames, AreFoundByValue) {
    EXPECT_STREQ(corvane::statusName(ORU_STATUS_DATA_LEN_INVALID), "DATA_LEN_INVALID");
    EXPECT_STREQ(corvane::statusName(233), "MAC_NO_ACK");
    EXPECT_STREQ(corvane::statusName(-3), "unknown");
    EXPECT_STREQ(corvane::functionName(ORU_ZB_SVC_BINDING), "BINDING");
    EXPECT_STREQ(corvane::eventName(ORU_ZB_SVC_DEVICE_LEFT), "DEVICE_LEFT");
    EXPECT_STREQ(corvane::eventName(ORU_ZB_SVC_NETWORK_EVENT_END), "unknown");
    EXPECT_EQ(corvane::allFunctions().size(), 42U);
    EXPECT_EQ((Outcome{Transport::Ok, ORU_STATUS_BUSY}).describe().substr(0, 12), "BUSY (-15): ");
}

TEST(ClientNames, SocketPathComesFromTheEnvironment) {
    const struct {
        const char *socket;
        const char *runtime;
        const char *expected;
    } cases[] = {{"/a/b", "/run/x", "/a/b"},
                 {"", "/run/x:/run/y", "/run/x/corvane.sock"},
                 {nullptr, "/run/x", "/run/x/corvane.sock"},
                 {nullptr, nullptr, "/run/corvane/corvane.sock"},
                 {nullptr, "", "/run/corvane/corvane.sock"}};
    const auto set = [](const char *name, const char *value) {
        value != nullptr ? ::setenv(name, value, 1) : ::unsetenv(name);
    };
    for (const auto &each : cases) {
        set("CORVANE_SOCKET", each.socket);
        set("RUNTIME_DIRECTORY", each.runtime);
        EXPECT_EQ(corvane::defaultSocketPath(), each.expected);
    }
    ::unsetenv("RUNTIME_DIRECTORY");
}
