// SPDX-License-Identifier: Apache-2.0
//
// The client library against the real server, and against a test's own idea of a service where that must misbehave.
#include "../support/records.h"
#include "corvane_client.h"
#include "oipc_fixture.h"
#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <future>

using namespace oipc_test;
using namespace std::chrono_literals;
using corvane::Client;
using corvane::Outcome;
using corvane::Transport;

namespace {

class ClientTest : public OipcTest {
protected:
    void connect() {
        ASSERT_EQ(start(), ORU_STATUS_OK);
        options.socket_path = path;
        const Outcome outcome = client.connect(options);
        ASSERT_TRUE(outcome.ok()) << outcome.describe();
    }
    bool readable(std::chrono::milliseconds patience = 0ms) const {
        pollfd entry{client.fileDescriptor(), POLLIN, 0};
        return ::poll(&entry, 1, static_cast<int>(patience.count())) > 0;
    }
    Outcome echo() { return client.callSync(ECHO, {}, {}); }
    static Payload greeting(std::ptrdiff_t size = oipc::HELLO_SIZE) { // the first services sent 12 bytes
        const auto hello = oipc::encodeHello(
            {.client_id = 5, .service_uuid = 2, .max_payload = 4096, .max_clients = 10, .platform_version = 1});
        return frameOf({.type = FrameType::Hello}, {hello.begin(), hello.begin() + size});
    }
    template <class Action>
    static std::chrono::nanoseconds timed(Action action) {
        const auto begin = std::chrono::steady_clock::now();
        action();
        return std::chrono::steady_clock::now() - begin;
    }

    corvane::Options options;
    Client client;
};

} // namespace

TEST_F(ClientTest, CallsSendTheirFunctionAndRecord) {
    uint16_t function = 0;
    Payload sent;
    custom = [&](oruOipc_parameter_t &task) {
        function = task.function_id;
        sent.assign(static_cast<uint8_t *>(task.buffer), static_cast<uint8_t *>(task.buffer) + *task.data_length);
        EXPECT_EQ(task.type, function < 256 ? ORU_OIPC_FUNCTION_SYNC : ORU_OIPC_FUNCTION_ASYNC);
        for (uint8_t i = 0; i < 3 && function == ORU_ZB_SVC_GET_ROUTES; ++i) { // a table of three
            static_cast<oruZb_routeTableEntry_t *>(task.buffer)[i].idx = static_cast<uint8_t>(i + 1);
        }
        return ORU_STATUS_OK;
    };
    connect();
    oruZb_getDevice_t by_node{ORU_ZB_BY_NODEID, {}};
    by_node.device.node_id = 0xABCD;
    oruZb_getDevice_t by_eui64{ORU_ZB_BY_EUI64, {}};
    const corvane::Eui64 eui64{7, 6, 5, 4, 3, 2, 1, 0};
    std::ranges::copy(eui64, by_eui64.device.device_info.eui64);
    const std::vector<oruZb_ztsDeviceInfo_t> zts(1);
    const oruZb_coexParams_t coex{1, 2, 3, 4, 5, 6};
    const Payload body{5, 6, 7};
    const corvane::Completion done = [](const Outcome &) {};
    const struct {
        std::function<Outcome()> call;
        uint16_t function;
        Payload sent;
    } rows[] = {
        {[&] { return client.permitJoin(false); }, 5, {}},
        {[&] { return client.sendCommand({}); }, 7, Payload(sizeof(oruZb_clusterCmd_t))},
        {[&] { return client.deviceByIndex(5); }, 8, bytesOf(oruZb_getDevice_t{oruZb_getDeviceBy_t{5}, {}})},
        {[&] { return client.deviceByNodeId(0xABCD); }, 8, bytesOf(by_node)},
        {[&] { return client.deviceByEui64(eui64); }, 8, bytesOf(by_eui64)},
        {[&] { return client.setRadioPower(-3); }, 10, {0xFD}},
        {[&] { return client.ztsAdd(zts); }, 15, Payload(sizeof zts[0])},
        {[&] { return client.ztsClear(); }, 16, {}},
        {[&] { return client.adapterInfo(); }, 17, Payload(264)},
        {[&] { return client.localNode(); }, 18, Payload(748)},
        {[&] { return client.setRegion("DE"); }, 20, {'D', 'E', 0}},
        {[&] { return client.setBurstSize(0x01020304); }, 21, {4, 3, 2, 1}},
        {[&] { return client.setThrottleTimeout(1s); }, 22, {0xE8, 3, 0, 0}},
        {[&] { return client.ptaCounters(false); }, 23, Payload(22)},
        {[&] { return client.ptaCounters(true); }, 24, Payload(22)},
        {[&] { return client.children(); }, 25, Payload(204 * 20)},
        {[&] { return client.routes(); }, 26, Payload(255 * 10)},
        {[&] { return client.neighbors(); }, 27, Payload(255 * 16)},
        {[&] { return client.bind(0x1A2B, body); }, 28, {0x2B, 0x1A, 5, 6, 7}},
        {[&] { return client.formNetworkAuto(std::nullopt, done); }, 258, {}},
        {[&] { return client.formNetworkAuto(coex, done); }, 258, {1, 2, 3, 4, 5, 6}},
        {[&] { return client.clearNetwork(done); }, 259, {}},
        {[&] { return client.resetAdapter(done); }, 262, {}},
        {[&] { return client.sendInterpan({}, done); }, 265, Payload(sizeof(oruZb_interpan_t))},
        {[&] { return client.ztsEnable(done); }, 266, {}},
        {[&] { return client.startScan({}, done); }, 268, Payload(sizeof(oruZb_scan_t))},
    };
    for (const auto &row : rows) {
        EXPECT_TRUE(row.call().ok()) << row.function;
        EXPECT_EQ(function, row.function);
        EXPECT_EQ(sent, row.sent) << row.function;
    }
    EXPECT_EQ(client.routes().value.size(), 3U);
    function = 0;
    const Payload huge(4097);
    for (const Outcome &refused : {client.callSync(CUSTOM, huge, {}), Outcome(client.callAsync(CUSTOM, huge, {})),
                                   client.bind(1, Payload(4095)), client.setRegion(std::string_view("D\0E", 3)),
                                   client.setThrottleTimeout(1200h), Outcome(client.deviceByIndex(0x80000000U))}) {
        EXPECT_EQ(refused.transport, Transport::Invalid);
    }
    EXPECT_EQ(function, 0) << "refused by the library";
}

TEST_F(ClientTest, NodePagesAreJoinedWithoutAskingForTooMany) {
    uint32_t count = 0;
    custom = [&](oruOipc_parameter_t &task) -> oru_status_t { // pages as the service gives them
        const std::span bytes(static_cast<uint8_t *>(task.buffer), 4096);
        auto index = ByteReader(bytes).u32();
        if (task.function_id == ORU_ZB_SVC_GETDEVICE_COUNT) {
            ByteWriter(bytes).u32(count);
            return ORU_STATUS_OK;
        }
        for (uint32_t k = 0; k < (*task.data_length - 4) / 748; ++k, ++index) {
            EXPECT_LT(index, count);
            ByteWriter(bytes.subspan(4 + k * 748)).u16(static_cast<uint16_t>(index + 100));
            ByteWriter(bytes).u32(index + 1);
        }
        return index < count ? ORU_STATUS_UNRECOVERABLE : ORU_STATUS_OK;
    };
    connect();
    const std::array<std::size_t, 3> rows[] = {// devices, first, most
                                               {0, 0, 99},  {1, 0, 99},         {5, 0, 99},   {6, 0, 99},
                                               {23, 0, 99}, {23, 20, SIZE_MAX}, {23, 23, 99}, {23, 99, 5},
                                               {23, 0, 7},  {23, 16, 7},        {23, 0, 0}};
    for (const auto &[devices, first, most] : rows) {
        count = static_cast<uint32_t>(devices);
        const auto page = client.connectedNodes(static_cast<uint32_t>(first), most);
        EXPECT_TRUE(page.ok());
        ASSERT_EQ(page.value.nodes.size(), std::min(most, std::max(devices, first) - first));
        for (std::size_t i = 0; i < page.value.nodes.size(); ++i) {
            EXPECT_EQ(page.value.nodes[i].id, 100 + first + i);
        }
        EXPECT_EQ(page.value.next, first + page.value.nodes.size());
        EXPECT_EQ(page.value.more, page.value.next < devices);
    }
    count = 5;
    for (const uint32_t claimed : {0, 6}) { // of five asked for
        custom = [&, asked = custom](oruOipc_parameter_t &task) -> oru_status_t {
            if (task.function_id == ORU_ZB_SVC_GETDEVICE_COUNT) {
                return asked(task);
            }
            ByteWriter({static_cast<uint8_t *>(task.buffer), 4}).u32(claimed);
            return ORU_STATUS_UNRECOVERABLE;
        };
        const auto page = client.connectedNodes();
        EXPECT_TRUE(page.value.nodes.empty());
        EXPECT_EQ(page.status, claimed == 0 ? ORU_STATUS_UNRECOVERABLE : ORU_STATUS_DATA_LEN_INVALID);
    }
}

TEST_F(ClientTest, CompletionsComeOnceAndCarryTheStatus) {
    std::vector<uint16_t> ids; // of the calls that are not answered at once
    custom = [&](oruOipc_parameter_t &task) -> oru_status_t {
        if (task.function_id == ORU_ZB_SVC_APING) { // overtakes the answer to the call
            return callback(task.client_id, task.callback_id, {'a', 'p', 'o', 'n', 'g', 0, 0, 0});
        }
        ids.push_back(task.callback_id);
        return task.function_id == ORU_ZB_SVC_ADAPTER_RESET ? ORU_STATUS_BUSY : ORU_STATUS_OK;
    };
    connect();
    std::vector<std::string> seen;
    const auto note = [&seen](const std::string &what) {
        return [&seen, what](const Outcome &o) { seen.push_back(what + std::to_string(o.status)); };
    };
    EXPECT_TRUE(client.asyncPing([&](const auto &r) { seen.push_back(r.value); }).ok());
    EXPECT_TRUE(seen.empty()) << "nothing is delivered inside a call";
    const auto sent = client.sendCommandAsync({}, note("sent "));
    EXPECT_TRUE(client.enableRadio(note("enable ")).ok());
    EXPECT_EQ(client.resetAdapter(note("refused ")).status, ORU_STATUS_BUSY);
    EXPECT_TRUE(client.disableRadio({}).ok());
    ASSERT_EQ(ids.size(), 4U);
    EXPECT_TRUE(sent.ok() && sent.value == ids[0] && ids[0] >= corvane::FIRST_CALLBACK_ID && ids[0] != ids[1]);
    EXPECT_EQ(ids[3], ORU_ZB_NO_CALLBACK);
    for (const auto &[id, status] : {std::pair{ids[1], -27}, {ids[0], 0}, {ids[0], -1}}) { // the second is nobody's
        Payload answer(4);
        ByteWriter(answer).u32(static_cast<uint32_t>(status));
        EXPECT_EQ(callback(1, id, answer), ORU_STATUS_OK);
    }
    EXPECT_TRUE(echo().ok()); // behind the answers
    client.poll(0ms);
    EXPECT_EQ(seen, (std::vector<std::string>{"apong", "enable -27", "sent 0"}));
}

TEST_F(ClientTest, ExchangesEndAsTheEventsTell) {
    using Step = corvane::Exchange::Step;
    const oruZb_clusterCmd_t command = toggle(0x1234);
    const auto confirmed = [&](int status, uint8_t endpoint = 1) {
        oruZb_clusterCmd_t record = command;
        record.dest_ep = endpoint;
        record.status = static_cast<oruZb_clusterCommandStatus_t>(status);
        return record;
    };
    const auto message = [&](const Payload &frame, uint16_t node = 0x1234, uint8_t endpoint = 1) {
        oruZb_clusterCmd_t record = command;
        record.src_node = node;
        record.src_ep = endpoint;
        record.payload_len = static_cast<uint16_t>(frame.size());
        std::ranges::copy(frame, record.payload);
        return record;
    };
    constexpr uint16_t GOOD = ORU_ZB_SVC_SENDCMD_SUCCESS, IN = ORU_ZB_SVC_INCOMING_MSG;
    const Payload answer{0x18, 0, 0x0B, 2, 0}, report{0x18, 0, 0x0A, 0, 0, 0x10, 1};
    const struct {
        const char *what;
        std::vector<std::pair<uint16_t, oruZb_clusterCmd_t>> told; // before the service answers the call
        bool wants_answer;
        bool async;
        Step step;
        Outcome outcome;
    } cases[] = {
        {"in order", {{GOOD, confirmed(0)}, {IN, message(answer)}}, true, false, Step::done, {}},
        {"answered first", {{IN, message(answer)}, {GOOD, confirmed(0)}}, true, true, Step::done, {}},
        {"no answer wanted", {{GOOD, confirmed(0)}}, false, false, Step::done, {}},
        {"unreachable",
         {{IN, message(answer)}, {ORU_ZB_SVC_DEVICE_UNRESPONSIVE, confirmed(208)}, {GOOD, confirmed(0)}},
         true,
         false,
         Step::confirmation,
         {Transport::Ok, static_cast<oru_status_t>(208)}},
        {"others are confirmed", {{GOOD, confirmed(0, 3)}}, true, false, Step::confirmation, {Transport::TimedOut, {}}},
        {"others answer",
         {{GOOD, confirmed(0)},
          {IN, message(report)},
          {IN, message(answer, 0x1235)},
          {IN, message(answer, 0x1234, 3)},
          {IN, message({0x18, 1, 0x0B, 2, 0})},
          {IN, message({0x01, 0, 2})},
          {IN, message({0x18, 0})}},
         true,
         false,
         Step::answer,
         {Transport::TimedOut, {}}},
        {"refused late", {}, true, true, Step::hand_over, {Transport::Ok, ORU_STATUS_BUSY}},
    };
    const auto *now = cases; // the case under way
    custom = [&](oruOipc_parameter_t &task) {
        for (const auto &[event_id, record] : now->told) {
            EXPECT_EQ(publish(event_id, bytesOf(record)), ORU_STATUS_OK);
        }
        const auto status = static_cast<int32_t>(now->step == Step::hand_over ? ORU_STATUS_BUSY : ORU_STATUS_OK);
        return now->async ? callback(task.client_id, task.callback_id, bytesOf(status)) : ORU_STATUS_OK;
    };
    options.completion_timeout = 100ms;
    connect();
    for (; now != std::end(cases); ++now) {
        SCOPED_TRACE(now->what);
        std::vector<corvane::Exchange> ends;
        ASSERT_TRUE(
            client
                .startExchange(command, {now->wants_answer, now->async}, [&](const auto &end) { ends.push_back(end); })
                .ok());
        EXPECT_TRUE(client.pollUntil([&] { return !ends.empty(); }, PATIENCE));
        client.poll(0ms);
        ASSERT_EQ(ends.size(), 1U);
        EXPECT_TRUE(ends[0].step == now->step && ends[0].transport == now->outcome.transport);
        EXPECT_EQ(ends[0].status, now->outcome.status);
        EXPECT_EQ(ends[0].ok() && now->wants_answer,
                  ends[0].answer && ends[0].answer->payload_len == answer.size() && ends[0].ok());
    }
    now = &cases[2];
    custom = [](auto &) { return ORU_STATUS_NOT_FOUND; };
    EXPECT_EQ(client.startExchange(command, {}, [](const auto &) { FAIL(); }).status, ORU_STATUS_NOT_FOUND);
    custom = [](auto &) { return ORU_STATUS_OK; };
    std::optional<corvane::Exchange> lost;
    ASSERT_TRUE(client.startExchange(command, {.timeout = PATIENCE}, [&](const auto &end) { lost = end; }).ok());
    stop();
    EXPECT_TRUE(client.pollUntil([&] { return lost.has_value(); }, PATIENCE));
    EXPECT_EQ(lost->transport, Transport::ConnectionLost);
}

TEST_F(ClientTest, IdsOfOpenCallsRunOutAndAreUsedAgain) {
    int refusals = 1; // of the service; they leave nothing behind
    custom = [&](auto &) { return refusals-- > 0 ? ORU_STATUS_BUSY : ORU_STATUS_OK; };
    connect();
    const auto open = [this] { return client.callAsync(CUSTOM, {}, [](const auto &) {}); };
    EXPECT_EQ(open().status, ORU_STATUS_BUSY);
    for (int id = corvane::FIRST_CALLBACK_ID + 1; id <= corvane::LAST_CALLBACK_ID + 1; ++id) {
        ASSERT_EQ(open().value, id <= corvane::LAST_CALLBACK_ID ? id : corvane::FIRST_CALLBACK_ID);
    }
    for (const uint16_t id : {corvane::LAST_CALLBACK_ID, uint16_t{0xA000}, corvane::FIRST_CALLBACK_ID}) {
        const Outcome refused = open();
        EXPECT_TRUE(refused.transport == Transport::Invalid && refused.status == ORU_STATUS_OUT_OF_MEMORY);
        callback(1, id, {});
        EXPECT_TRUE(echo().ok()); // behind the callback
        EXPECT_EQ(open().value, id);
    }
}

TEST_F(ClientTest, TimedOutCallDoesNotConfuseTheNext) {
    options.call_timeout = 1ms;
    connect();
    uint8_t out = 0;
    EXPECT_EQ(client.callSync(BLOCK, Payload{1}, {&out, 1}).transport, Transport::TimedOut);
    openGate();
    Outcome outcome;
    do { // the answer to the first call may come at any time from now on
        outcome = client.callSync(ECHO, Payload{9}, {&out, 1});
    } while (outcome.transport == Transport::TimedOut);
    EXPECT_TRUE(outcome.ok());
    EXPECT_EQ(out, 9);
}

TEST_F(ClientTest, WaitsAsLongAsToldInSpiteOfSignals) {
    ASSERT_EQ(std::signal(SIGUSR1, [](int) {}), SIG_DFL);
    const std::jthread pester([target = ::pthread_self()](const std::stop_token &over) {
        for (; !over.stop_requested(); std::this_thread::sleep_for(1ms)) {
            ::pthread_kill(target, SIGUSR1);
        }
    });
    EXPECT_GE(timed([&] { EXPECT_EQ(client.poll(30ms), 0U); }), 30ms) << "not connected";
    options.call_timeout = 30ms;
    connect();
    EXPECT_EQ(client.poll(0ms), 1U) << "the connection is up";
    EXPECT_GE(timed([&] { EXPECT_EQ(client.poll(200ms), 0U); }), 200ms);
    EXPECT_FALSE(client.pollUntil([&] { return publish(1025, {1}) != ORU_STATUS_OK; }, 30ms)) << "always something new";
    EXPECT_GE(timed([&] { EXPECT_EQ(client.callSync(BLOCK, {}, {}).transport, Transport::TimedOut); }), 30ms);
    client.onEvent([](const corvane::Event &) {});
    const std::jthread publisher([this] { publish(1025, {1}); });
    EXPECT_EQ(client.poll(PATIENCE), 1U) << "wakes";

    const RawClient mute(listenAt(directory + "/mute"));
    Client others[6]; // more than wait at its door
    options.socket_path = directory + "/mute";
    options.connect_timeout = 30ms;
    for (Client &other : others) {
        EXPECT_GE(timed([&] { EXPECT_EQ(other.connect(options).transport, Transport::TimedOut); }), 30ms);
    }
    options.socket_path = path;
    options.connect_timeout = options.call_timeout = 1h;
    EXPECT_TRUE(client.connect(options).ok());
    auto call = std::async([this] { return client.callSync(BLOCK, {}, {}); });
    EXPECT_TRUE(waitFor(blocked, 2));
    client.disconnect();
    EXPECT_EQ(call.get().transport, Transport::ConnectionLost);
}

TEST_F(ClientTest, ManyThreadsShareOneClient) {
    connect();
    const auto ask = [this](uint8_t thread) {
        for (uint8_t i = 0; i < 100; ++i) {
            Payload out(2);
            EXPECT_TRUE(client.callSync(ECHO, Payload{thread, i}, out).ok());
            EXPECT_EQ(out, (Payload{thread, i}));
        }
    };
    Payload most(4096, 7), back(4096);
    EXPECT_TRUE(client.callSync(ECHO, most, back).ok());
    EXPECT_EQ(back, most);
    for (const bool own_thread : {false, true}) {
        EXPECT_EQ(own_thread && client.start(), own_thread);
        std::vector<std::jthread> threads;
        for (uint8_t t = 0; t < 6; ++t) {
            threads.emplace_back(ask, t);
        }
    }
    EXPECT_FALSE(client.start()) << "runs already";
    client.stop();
    EXPECT_TRUE(client.start());
}

TEST_F(ClientTest, HandlersMayCallTheServiceAndSeeEventsInOrder) {
    std::atomic<bool> all{false};
    client.onEvent([&, next = uint8_t{0}](const corvane::Event &event) mutable {
        uint8_t out = 0;
        EXPECT_TRUE(client.callSync(ECHO, event.payload, {&out, 1}).ok());
        EXPECT_EQ(client.poll(1h), 0U) << "no handler inside a handler";
        EXPECT_EQ(out, next++);
        if (next == 100) {
            all = true;
        }
    });
    connect();
    ASSERT_TRUE(client.start());
    for (uint8_t i = 0; i < 100; ++i) {
        publish(1025, {i});
    }
    EXPECT_TRUE(client.pollUntil([&] { return all.load(); }, PATIENCE)) << "two threads deliver";
}

TEST_F(ClientTest, DescriptorShowsWhenThereIsWorkAndOldEventsAreDropped) {
    options.max_queued = 3;
    options.completion_timeout = 100ms;
    Payload seen;
    int records = 0;
    std::vector<Transport> ended;
    client.onEvent([&](const corvane::Event &event) {
        seen.push_back(event.payload[0]);
        records += event.device() || event.command() || event.interpan() ? 1 : 0;
    });
    const auto note = [&](const corvane::CallbackResult &result) { ended.push_back(result.transport); };
    connect();
    client.poll(0ms); // the note that the connection is up
    EXPECT_FALSE(readable());
    for (uint8_t i = 0; i < 10; ++i) { // the last are one of a later version, a whole one and one that is cut
        publish(ORU_ZB_SVC_DEVICE_LEFT, Payload(752U - i, i));
    }
    EXPECT_TRUE(readable());
    EXPECT_TRUE(echo().ok()); // takes the events off the socket, too
    EXPECT_TRUE(readable()) << "for those that are kept";
    EXPECT_EQ(client.poll(0ms), 3U);
    EXPECT_EQ(seen, (Payload{7, 8, 9}));
    EXPECT_EQ(records, 2);
    EXPECT_EQ(client.droppedEvents(), 7U);
    EXPECT_FALSE(readable());
    for (uint8_t turn = 0; turn < 40; turn += 2) { // never more than may wait
        publish(1025, {turn});
        publish(1025, Payload(turn % 4 == 0 ? 4096 : 1, static_cast<uint8_t>(turn + 1)));
        EXPECT_TRUE(echo().ok());
        EXPECT_EQ(client.poll(0ms), 2U);
        EXPECT_EQ(seen.back(), turn + 1);
    }
    EXPECT_EQ(seen.size(), 43U);
    EXPECT_EQ(client.droppedEvents(), 7U);
    EXPECT_TRUE(client.callAsync(CUSTOM, {}, note).ok());
    EXPECT_TRUE(client.callAsync(CUSTOM, {}, note, 20ms).ok());
    EXPECT_TRUE(client.callAsync(CUSTOM, {}, note, 1h).ok());
    EXPECT_TRUE(readable(PATIENCE)) << "for the time-out";
    EXPECT_GE(timed([&] {
                  client.poll(0ms);
                  client.poll(PATIENCE);
              }),
              50ms);
    EXPECT_EQ(ended, std::vector(2, Transport::TimedOut));
}

TEST_F(ClientTest, ReconnectsWhenTheServiceComesBack) {
    options.auto_reconnect = true;
    options.reconnect_min = 1ms;
    options.reconnect_max = 5ms;
    std::string states;
    client.onConnection([&](bool up, const Outcome &reason) {
        states += up && reason.ok() ? '+' : reason.ok() ? '?' : '-';
    });
    const auto lose = [&](const corvane::CallbackResult &r) {
        states += r.transport == Transport::ConnectionLost ? 'L' : '?';
    };
    connect();
    for (int round = 0; round < 2; ++round) {
        EXPECT_TRUE(client.callAsync(CUSTOM, {}, lose, 1h).ok());
        stop();
        EXPECT_TRUE(client.pollUntil([&] { return !client.connected(); }, PATIENCE));
        EXPECT_FALSE(client.ping().ok());
        ASSERT_EQ(start(), ORU_STATUS_OK);
        EXPECT_TRUE(client.pollUntil([&] { return client.connected(); }, PATIENCE));
        EXPECT_TRUE(client.ping().ok());
    }
    EXPECT_TRUE(client.connect(options).ok());
    EXPECT_FALSE(client.pollUntil([&] { return !client.connected(); }, 20ms)) << "replaced, so not made once more";
    client.disconnect();
    EXPECT_FALSE(client.pollUntil([&] { return client.connected(); }, 20ms)) << "asked to end, so it stays ended";
    EXPECT_EQ(states, "+L-+L-+-+-");
}

TEST_F(ClientTest, ReconnectsWithGrowingPausesAndHoldsUpNobody) {
    const RawClient listener(listenAt(path));
    const RawClient mute(listenAt(directory + "/mute"));
    const auto accept = [](const RawClient &place) {
        pollfd entry{place.fd(), POLLIN, 0};
        EXPECT_EQ(::poll(&entry, 1, PATIENCE_MS), 1);
        return std::make_unique<RawClient>(::accept4(place.fd(), nullptr, nullptr, SOCK_CLOEXEC));
    };
    options.auto_reconnect = true;
    options.reconnect_min = 10ms;
    options.reconnect_max = 35ms;
    options.call_timeout = 2ms;
    std::atomic<bool> over{false};
    Client unheard;
    std::vector<std::jthread> threads;
    const auto pollWith = [&](Client &speaker) {
        threads.emplace_back([&] { speaker.pollUntil([&] { return over.load(); }, PATIENCE); });
    };
    options.socket_path = directory + "/mute";
    options.connect_timeout = 20ms;
    EXPECT_EQ(unheard.connect(options).transport, Transport::TimedOut);
    pollWith(unheard);
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(accept(mute)->ended()) << "gives up, and tries again";
    }
    options.socket_path = path;
    options.connect_timeout = 1h;
    auto up = std::async([&] { return client.connect(options); });
    auto peer = accept(listener);
    EXPECT_TRUE(peer->send(greeting()) && up.get().ok());
    pollWith(client);
    pollWith(client);
    // What each pause is at least, and the shortest of five of them at most.
    const std::pair<std::chrono::milliseconds, std::chrono::milliseconds> pauses[] = {
        {10ms, 35ms}, {20ms, 30ms}, {35ms, 60ms}, {35ms, 70ms}};
    std::vector shortest(std::size(pauses), std::chrono::nanoseconds::max());
    for (int round = 0; round < 6; ++round) { // each but the first after a reconnection
        for (std::size_t i = 0; i < shortest.size(); ++i) {
            const auto taken = timed([&] {
                peer.reset();
                peer = accept(listener); // and no greeting
            });
            EXPECT_GE(taken, pauses[i].first);
            shortest[i] = round > 0 ? std::min(shortest[i], taken) : shortest[i];
        }
        EXPECT_LT(timed([&] { client.poll(5ms); }), PATIENCE / 2) << "though the service says nothing";
        EXPECT_FALSE(client.connected());
        EXPECT_TRUE(peer->send(greeting()));
        EXPECT_TRUE(client.pollUntil([&] { return client.connected(); }, PATIENCE));
        EXPECT_EQ(client.clientId(), 5);
    }
    for (std::size_t i = 0; i < shortest.size(); ++i) {
        EXPECT_LT(shortest[i], pauses[i].second) << i;
    }
    for (int i = 0; i < 100; ++i) { // more than the socket takes
        EXPECT_EQ(client.callSync(ECHO, Payload(4096), {}).transport, Transport::TimedOut);
    }
    over = true;
}

TEST_F(ClientTest, FailuresToConnectAreToldApart) {
    ASSERT_EQ(start(), ORU_STATUS_OK);
    const RawClient mute(listenAt(directory + "/mute"));
    for (const auto &[place, expected] : {std::pair{directory + "/nobody", Transport::NoService},
                                          {std::string(107, 'x'), Transport::NoService},
                                          {std::string(108, 'x'), Transport::Invalid},
                                          {directory + "/mute", Transport::TimedOut}}) {
        options.socket_path = place;
        options.connect_timeout = 10ms;
        EXPECT_EQ(client.connect(options).transport, expected);
        EXPECT_EQ(echo().transport, expected) << "the reason stays";
    }
}

TEST_F(ClientTest, AServiceThatTalksNonsenseLosesTheClient) {
    constexpr auto LOST = Transport::ConnectionLost;
    constexpr auto OTHER = Transport::OtherVersion;
    Payload version_2 = frameOf({.type = FrameType::SyncResult, .sequence = 1});
    version_2[2] = 2;
    const Payload of_another_call = frameOf({.type = FrameType::SyncResult, .sequence = 12345}, {1});
    const Payload more_than_asked = frameOf({.type = FrameType::SyncResult, .sequence = 1}, Payload(4096));
    const std::pair<Payload, Transport> rows[] = {
        {{}, LOST},
        {{1, 2, 3}, LOST},
        {Payload(60000, 'C'), LOST},
        {frameOf({.type = FrameType::SyncCall}), LOST},
        {frameOf({.type = FrameType::Refusal, .status = -20}), Transport::Refused},
        {frameOf({.type = FrameType::Refusal, .id = uint16_t(oipc::Reason::WrongVersion), .status = -6}), OTHER},
        {version_2, OTHER},
        {of_another_call, LOST},
        {more_than_asked, Transport::Ok},
    };
    const RawClient listener(listenAt(path));
    for (const auto &[speech, expected] : rows) {
        Client fresh;
        std::jthread played([&, &speech = speech] {
            const RawClient peer(::accept4(listener.fd(), nullptr, nullptr, SOCK_CLOEXEC));
            peer.send(greeting());
            peer.receive(); // the call
            peer.send(speech);
        });
        options.socket_path = path;
        ASSERT_TRUE(fresh.connect(options).ok());
        EXPECT_EQ(fresh.clientId(), 5);
        std::array<uint8_t, 2> out{};
        EXPECT_EQ(fresh.callSync(ECHO, Payload{1}, out).transport, expected) << speech.size();
        std::jthread greets([&, &speech = speech] {
            const RawClient peer(::accept4(listener.fd(), nullptr, nullptr, SOCK_CLOEXEC));
            peer.send(speech);
        });
        EXPECT_EQ(fresh.connect(options).transport, expected == Transport::Ok ? LOST : expected) << speech.size();
    }
}

TEST_F(ClientTest, PlatformCallsAreTyped) {
    EXPECT_EQ(client.platformInfo().transport, Transport::NoService);
    connect();
    EXPECT_EQ(client.platformVersion(), 1);
    EXPECT_EQ(client.subscribe(UINT32_MAX).value, 1U << corvane::PLATFORM_EVENT_STORE_CHANGED);
    std::vector<corvane::StoreState> told;
    client.onPlatformEvent([&](const corvane::PlatformEvent &event) {
        told.push_back(event.store().value());
        EXPECT_FALSE((corvane::PlatformEvent{2, event.payload}).store() ||
                     (corvane::PlatformEvent{event.id, event.payload.first(255)}).store());
    });
    kvs::State state{.condition = kvs::Condition::not_opened, .waiting = 0x01020304, .records_set_aside = 8};
    state.setReason("disk full");
    kvs::publishState({});
    kvs::publishState(state);
    kvs::tellListener();
    const auto end = std::chrono::steady_clock::now() + 5s;
    while (client.platformInfo().value.uptime == 0ms && std::chrono::steady_clock::now() < end) {
    } // the process may be that young
    const auto info = client.platformInfo();
    ASSERT_TRUE(info.ok()) << info.describe();
    EXPECT_EQ(info.value.process_id, static_cast<uint32_t>(::getpid()));
    EXPECT_TRUE(info.value.uptime > 0ms && info.value.platform_version == 1 && !info.value.release.empty());
    client.poll(0ms);
    ASSERT_EQ(told.size(), 1U);
    for (const auto &store : {told[0], info.value.store}) {
        EXPECT_EQ(store.condition, corvane::StoreCondition::not_opened);
        EXPECT_TRUE(store.waiting == 0x01020304 && store.records_set_aside == 8 && store.files_set_aside == 0);
        EXPECT_EQ(store.reason, "disk full");
    }
    EXPECT_EQ(client.callPlatform(99, {}, {}).status, ORU_STATUS_NOT_SUPPORTED);
    EXPECT_EQ(client.callPlatform(2, Payload(4097), {}).transport, Transport::Invalid);
}

// Neither does a service that says more or less than this one keep the client from anything.
TEST_F(ClientTest, AnOlderServiceIsNotAskedForPlatformCalls) {
    const struct {
        std::ptrdiff_t hello;
        std::size_t record; // its size
        Outcome expected;
    } rows[] = {{12, 0, {Transport::Invalid, ORU_STATUS_NOT_SUPPORTED}},
                {16, 287, {Transport::Ok, ORU_STATUS_DATA_LEN_INVALID}},
                {16, 288, {}},
                {16, 1000, {}}};
    const RawClient listener(listenAt(path));
    options.socket_path = path;
    for (const auto &row : rows) {
        std::jthread service([&] {
            const RawClient peer(::accept4(listener.fd(), nullptr, nullptr, SOCK_CLOEXEC));
            peer.send(greeting(row.hello));
            for (RawFrame asked = peer.receive(); asked; asked = peer.receive()) {
                const bool platform = asked.header.type == FrameType::PlatformCall;
                EXPECT_FALSE(platform && row.hello == 12);
                peer.send(frameOf({.type = platform ? FrameType::PlatformResult : FrameType::SyncResult,
                                   .id = asked.header.id,
                                   .sequence = asked.header.sequence},
                                  Payload(platform ? row.record : 0, 'x')));
            }
        });
        ASSERT_TRUE(client.connect(options).ok());
        EXPECT_EQ(client.platformVersion(), row.hello == 12 ? 0 : 1);
        const auto info = client.platformInfo();
        EXPECT_EQ(info.transport, row.expected.transport);
        EXPECT_EQ(info.status, row.expected.status);
        EXPECT_EQ(info.value.release, info.ok() ? std::string(15, 'x') : "");
        EXPECT_STREQ(corvane::storeConditionName(corvane::StoreCondition('x')), "unknown");
        EXPECT_TRUE(echo().ok());
        client.disconnect();
    }
}

TEST(ClientNames, SocketPathComesFromTheEnvironmentAndNumbersHaveNames) {
    ::setenv("RUNTIME_DIRECTORY", "/run/of-another-service", 1);
    for (const auto &[socket, expected] : {std::pair{"/a/b", "/a/b"}, {"", "/run/corvane/corvane.sock"}}) {
        ::setenv("CORVANE_SOCKET", socket, 1);
        EXPECT_EQ(corvane::defaultSocketPath(), expected);
    }
    ::unsetenv("CORVANE_SOCKET");
    ::unsetenv("RUNTIME_DIRECTORY");
    EXPECT_EQ((Outcome{Transport::Ok, ORU_STATUS_BUSY}).describe().substr(0, 12), "BUSY (-15): ");
    EXPECT_STREQ(corvane::functionName(ORU_ZB_SVC_BINDING), "BINDING");
    EXPECT_STREQ(corvane::eventName(ORU_ZB_SVC_NETWORK_EVENT_END), "unknown");
}
