// SPDX-License-Identifier: Apache-2.0
//
// Clients cannot hurt each other: whatever some of them do, the daemon keeps nothing of it and the others get their
// answers and events.
#include "../support/raw_client.h"
#include "system_fixture.h"
#include <algorithm>
#include <grp.h>
#include <random>

namespace {

using oipc::FrameType, oipc::Reason, testplat::RawClient, testplat::RawFrame;

Bytes callFrame(FrameType type, uint16_t id, const Bytes &payload = {}, uint16_t callback_id = 0) {
    return testplat::frameOf({.type = type, .id = id, .callback_id = callback_id}, payload);
}

long statusOf(const Daemon &daemon, const std::string &key) {
    std::ifstream in("/proc/" + std::to_string(daemon.pid()) + "/status");
    for (std::string line; std::getline(in, line);) {
        if (line.starts_with(key)) {
            return atol(line.c_str() + key.size());
        }
    }
    return -1;
}

long timesSaid(const Daemon &daemon, const std::string &text) {
    const std::string log = daemon.said();
    long count = 0;
    for (auto at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) {
        ++count;
    }
    return count;
}

std::pair<long, long> resourcesOf(const Daemon &daemon) { // descriptors, threads
    const std::filesystem::directory_iterator folder("/proc/" + std::to_string(daemon.pid()) + "/fd");
    return {std::distance(begin(folder), end(folder)), statusOf(daemon, "Threads:")};
}

using Latencies = std::vector<int64_t>; // of calls, in microseconds

template <class Call>
void measure(Latencies &values, Call call) {
    const auto begin = Clock::now();
    call();
    values.push_back((Clock::now() - begin) / 1us);
}

// Prints the figures; none may be beyond what a client would notice as standing still.
void judge(const char *what, Latencies &values) {
    std::ranges::sort(values);
    ASSERT_FALSE(values.empty());
    std::cout << what << ": " << values.size() << " calls, p99 " << values[values.size() * 99 / 100] << " us, worst "
              << values.back() << " us\n";
    EXPECT_LT(values.back(), 5000000);
}

class ClientTest : public ::testing::Test {
protected:
    void begin(int devices = 1) {
        daemon.start();
        ASSERT_TRUE(listener.connect());
        ASSERT_NO_FATAL_FAILURE(form(devices));
    }
    void form(int devices) {
        ASSERT_TRUE(listener.formAndOpen());
        for (int i = 0; i < devices; ++i) {
            ASSERT_TRUE(daemon.simJoin(i));
        }
        ASSERT_TRUE(eventually([&] { return listener.count(ORU_ZB_SVC_DEVICE_DISCOVERED) == devices; }));
        lamp = listener.client.deviceByIndex(0).value.node_id;
        socket_path = daemon.path("run/corvane.sock");
        before = resourcesOf(daemon);
    }
    // Nothing is left of clients that have gone: as many descriptors and threads as before, room for ten again.
    void expectUnharmed() {
        EXPECT_TRUE(eventually([&] { return resourcesOf(daemon) == before; }))
            << ::testing::PrintToString(resourcesOf(daemon)) << ", had " << ::testing::PrintToString(before);
        std::vector<std::unique_ptr<Listener>> nine; // more, and no eleventh client
        for (int i = 0; i < 9; ++i) {
            nine.push_back(std::make_unique<Listener>(daemon));
            ASSERT_TRUE(nine.back()->connect()) << i;
            EXPECT_EQ(nine.back()->client.serverPing().value, "spong");
        }
        const oipc::FrameHeader answer = RawClient(socket_path).receive().header;
        EXPECT_TRUE(answer.type == FrameType::Refusal && answer.status == ORU_STATUS_BUSY);
        EXPECT_TRUE(listener.client.connected());
        EXPECT_TRUE(listener.client.sendCommand(toggle(lamp)).ok());
        EXPECT_EQ(daemon.end(SIGTERM), 0);
    }

    Daemon daemon;
    Listener listener{daemon};
    std::pair<long, long> before;
    std::string socket_path;
    uint16_t lamp = 0;
    const char *seed = getenv("CORVANE_SEED");
    std::mt19937 random{seed != nullptr ? static_cast<unsigned>(atoi(seed)) : 7U};
};

TEST_F(ClientTest, KilledBeforeDuringAndAfterCalls) {
    ASSERT_NO_FATAL_FAILURE(begin());
    std::atomic<bool> over{false};
    std::atomic<int> asked{0}, answered{0}, calls{0};
    Listener second(daemon);
    ASSERT_TRUE(second.connect());
    std::vector<std::jthread> callers;
    for (corvane::Client *client : {&listener.client, &second.client}) {
        callers.emplace_back([&, client] {
            while (!over) {
                EXPECT_EQ(client->ping().value, "pong");
                EXPECT_EQ(client->serverPing().value, "spong");
                EXPECT_TRUE(client->sendCommand(toggle(lamp)).ok());
                ++calls;
                asked += client->asyncPing([&](const auto &r) { answered += r.value == "apong" ? 1 : 0; }).ok() ? 1 : 0;
            }
        });
    }
    const Bytes record = bytesOf(toggle(lamp));
    const std::vector<Bytes> frames = {
        {},
        callFrame(FrameType::SyncCall, ORU_ZB_SVC_SPING, Bytes(8)),
        callFrame(FrameType::SyncCall, ORU_ZB_SVC_GET_CONN_NODES, Bytes(4 + 748)),
        callFrame(FrameType::SyncCall, ORU_ZB_SVC_SEND_CLUSTER_CMD, record),
        callFrame(FrameType::AsyncCall, ORU_ZB_SVC_SEND_CLUSTER_CMD_ASYNC, record, 0x9001),
        callFrame(FrameType::AsyncCall, ORU_ZB_SVC_APING, {}, 0x9002),
    };
    constexpr int ROUNDS = 400;
    for (int round = 0; round < ROUNDS; ++round) {
        const Bytes &call = frames[random() % frames.size()];
        const auto life = std::chrono::microseconds(random() % 4000);
        const pid_t child = fork();
        if (child == 0) {
            const RawClient raw(socket_path);
            while (const RawFrame frame = raw.receive()) { // asks again when greeted or answered
                const bool next = frame.header.type != FrameType::Event && frame.header.type != FrameType::Callback;
                (void)(next && !call.empty() && raw.send(call));
            }
            pause();
        }
        std::this_thread::sleep_for(life);
        kill(child, SIGKILL);
        ASSERT_EQ(waitpid(child, nullptr, 0), child);
    }
    over = true;
    callers.clear(); // joins
    EXPECT_GT(calls, 10);
    EXPECT_TRUE(eventually([&] { return answered == asked; })) << answered << " of " << asked;
    std::cout << ROUNDS << " clients killed, " << 3 * calls + answered << " calls of the others answered\n";
    second.client.disconnect();
    expectUnharmed();
}

// Remembers all events from the forming of the network up to the first leaving of a device.
struct Reader {
    std::vector<std::string> events;  // the receive thread's until complete
    std::map<uint16_t, uint8_t> last; // ZCL sequence number of the last report, by sender
    int gaps = 0;                     // in those numbers
    std::atomic<bool> complete{false};
    corvane::Client client; // last: its handler uses what is above

    explicit Reader(const corvane::Options &options) {
        client.onEvent([this](const corvane::Event &event) { remember(event); });
        EXPECT_TRUE(client.connect(options).ok() && client.start());
    }
    void remember(const corvane::Event &event) {
        if (complete) {
            return;
        }
        if (event.id == ORU_ZB_SVC_NETWORK_FORMED) {
            events.clear();
        }
        events.push_back(std::to_string(event.id) + ":");
        events.back().append(event.payload.begin(), event.payload.end());
        if (const auto message = event.command(); message && event.id == ORU_ZB_SVC_INCOMING_MSG) {
            const auto [known, first] = last.try_emplace(message->src_node, message->payload[1]);
            gaps += !first && message->payload[1] != static_cast<uint8_t>(known->second + 1) ? 1 : 0;
            known->second = message->payload[1];
        }
        complete = event.id == ORU_ZB_SVC_DEVICE_LEFT;
    }
};

TEST_F(ClientTest, StoppedReadersCostTheOthersNothing) {
    constexpr int DEVICES = 5; // five reports per second each, 20 times as fast: 500 events per second
    daemon.scenario = Daemon::routers(DEVICES, "[[device.report]]\ncluster = \"on_off\"\nattribute = \"on_off\"\n"
                                               "interval_ms = 200\n");
    daemon.log += "level = \"warn\"\n"; // or the lines looked for below would be in an older file
    corvane::Options options;
    options.socket_path = daemon.path("run/corvane.sock");
    daemon.start();
    ASSERT_TRUE(listener.connect());
    std::vector<std::unique_ptr<Reader>> readers;
    for (int i = 0; i < 6; ++i) {
        readers.push_back(std::make_unique<Reader>(options));
    }
    ASSERT_NO_FATAL_FAILURE(form(DEVICES));
    const RawClient stopped[3] = {RawClient(socket_path), RawClient(socket_path), RawClient(socket_path)};
    const int first = listener.count(ORU_ZB_SVC_INCOMING_MSG);
    const auto begin = Clock::now();
    Latencies pings, server_pings;
    const auto askUntil = [&](const std::function<bool()> &over) {
        EXPECT_TRUE(eventually([&] {
            measure(pings, [&] { EXPECT_EQ(listener.client.ping().value, "pong"); });
            measure(server_pings, [&] { EXPECT_EQ(listener.client.serverPing().value, "spong"); });
            return over();
        }));
        return statusOf(daemon, "VmRSS:");
    };
    // The queues of the stopped ones are full, and their memory has been given back.
    const long filled_kib = askUntil([&] { return timesSaid(daemon, "did not read its messages") == 3; });
    const long growth_kib = askUntil([end = Clock::now() + 2500ms] { return Clock::now() > end; }) - filled_kib;
    const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    const int heard = listener.count(ORU_ZB_SVC_INCOMING_MSG) - first;
    std::cout << heard / seconds << " events per second to each reader, " << growth_kib << " KiB more\n";
    judge("ping", pings);
    judge("server ping", server_pings);
    oruZb_nodeInfo_t node{}; // its leaving ends the comparison
    node.id = lamp;
    node.device_info = listener.client.deviceByNodeId(lamp).value.device_info;
    EXPECT_TRUE(listener.client.nodeLeave(node, nullptr).ok());
    for (auto &reader : readers) {
        ASSERT_TRUE(eventually([&] { return reader->complete.load(); }));
        EXPECT_EQ(reader->client.droppedEvents(), 0U);
        EXPECT_EQ(reader->gaps, 0U);
        EXPECT_TRUE(reader->events == readers[0]->events);
    }
    EXPECT_GT(heard, 400);
    for (const RawClient &raw : stopped) { // gets what the kernel had taken, then the end
        std::size_t kept = 0;
        RawFrame last;
        for (last = raw.receive(); last; last = raw.receive()) {
            ++kept;
        }
        EXPECT_EQ(last.header.type, testplat::ENDED);
        EXPECT_LT(kept, 600U); // the kernel's share of some 2000
    }
    EXPECT_LT(growth_kib, SANITIZED ? 65536 : 512); // sanitizers keep freed memory
}

TEST_F(ClientTest, ConnectStorms) {
    ASSERT_NO_FATAL_FAILURE(begin());
    std::atomic<int> running{4}, refused{0}, greeted{0};
    std::vector<std::jthread> storms;
    for (int storm = 0; storm < 4; ++storm) {
        storms.emplace_back([&, chance = std::mt19937(random())]() mutable {
            std::vector<std::unique_ptr<RawClient>> held;
            for (int i = 0; i < 250; ++i) {
                held.push_back(std::make_unique<RawClient>(socket_path));
                const auto what = chance() % 4; // 0: says nothing
                if (what == 1) {                // half a header, the greeting unread
                    held.back()->send(Bytes(chance() % 20, 0x43));
                } else if (what == 2) { // a call, the answer unread
                    held.back()->send(callFrame(FrameType::SyncCall, ORU_ZB_SVC_SPING, Bytes(8)));
                } else if (what == 3) {
                    const oipc::FrameHeader answer = held.back()->receive().header;
                    const bool in = answer.type == FrameType::Hello;
                    ++(in ? greeted : refused);
                    EXPECT_TRUE(in || (answer.type == FrameType::Refusal && answer.status == ORU_STATUS_BUSY &&
                                       answer.id == static_cast<uint16_t>(Reason::TooManyClients)));
                }
                held.resize(chance() % 3 == 0 ? 0 : std::min<std::size_t>(held.size(), 6));
            }
            --running;
        });
    }
    Latencies pings;
    while (running > 0) {
        measure(pings, [&] { EXPECT_EQ(listener.client.serverPing().value, "spong"); });
        std::this_thread::sleep_for(1ms);
    }
    storms.clear(); // joins
    std::cout << "1000 connects, " << greeted << " read the greeting, " << refused << " a refusal\n";
    judge("server ping", pings);
    EXPECT_GT(refused, 0);
    EXPECT_GT(greeted, 0);
    expectUnharmed();
}

// The payload of a call: of any size or of a record's, of any content or of small values.
Bytes nonsense(std::mt19937 &chance) {
    constexpr std::array<std::size_t, 14> SIZES = {0, 1, 4, 6, 8, 12, 22, 26, 32, 120, 132, 264, 748, 752};
    Bytes bytes(chance() % 3 == 0 ? chance() % 4097 : SIZES[chance() % SIZES.size()]);
    const auto limit = chance() % 2 == 0 ? 256U : 4U;
    std::ranges::generate(bytes, [&] { return static_cast<uint8_t>(chance() % limit); });
    return bytes;
}

TEST_F(ClientTest, EveryFunctionAtOnceWithNonsense) {
    ASSERT_NO_FATAL_FAILURE(begin(3));
    std::vector<std::unique_ptr<Listener>> clients;
    for (int i = 0; i < 9; ++i) {
        clients.push_back(std::make_unique<Listener>(daemon));
        ASSERT_TRUE(clients.back()->connect());
    }
    std::atomic<int> calls{0}, taken_over{0}, unanswered{0};
    std::vector<std::jthread> callers;
    const auto end = Clock::now() + 2500ms;
    for (auto &client : clients) {
        callers.emplace_back([&, chance = std::mt19937(random()), speaker = &client->client]() mutable {
            std::vector<uint8_t> out(4096);
            while (Clock::now() < end || (taken_over <= 100 && Clock::now() < end + 60s)) {
                const auto functions = corvane::allFunctions();
                const uint16_t id = functions[chance() % functions.size()];
                const Bytes in = nonsense(chance);
                const corvane::Outcome outcome =
                    isValidSyncFunc(id) ? speaker->callSync(id, in, out) : speaker->callAsync(id, in, nullptr);
                ++calls;
                unanswered += outcome.answered() ? 0 : 1;
                taken_over += outcome.ok() ? 1 : 0;
            }
        });
    }
    callers.clear(); // joins
    std::cout << calls << " calls, " << taken_over << " with status 0\n";
    EXPECT_EQ(unanswered, 0);
    EXPECT_GT(taken_over, 100);
    EXPECT_FALSE(daemon.hasEnded());
    EXPECT_TRUE(listener.client.serverPing().ok()); // "serror" while the radio is off
    clients.clear();
    // The radio may be off, forming, scanning or leaving: from off on, all is as after a start.
    EXPECT_TRUE(eventually([&] {
        (void)listener.client.disableRadio(nullptr);
        std::this_thread::sleep_for(100ms);
        return listener.client.adapterState().value == ORU_ZB_ADAPTER_OFF;
    }));
    EXPECT_TRUE(listener.client.setBurstSize(10).ok());
    EXPECT_TRUE(listener.client.setThrottleTimeout(20ms).ok());
    EXPECT_TRUE(listener.client.enableRadio(nullptr).ok());
    EXPECT_TRUE(listener.client.ztsDisable(nullptr).ok());
    EXPECT_TRUE(listener.formAndOpen());
    const int discovered = listener.count(ORU_ZB_SVC_DEVICE_DISCOVERED);
    EXPECT_TRUE(daemon.simJoin(5));
    EXPECT_TRUE(eventually([&] { return listener.count(ORU_ZB_SVC_DEVICE_DISCOVERED) > discovered; }));
    for (const auto &[eui64, device] : listener.discovered()) {
        lamp = device.node_id;
    }
    expectUnharmed();
}

enum class Door { Open, Refused, Full, Shut }; // Shut: by the mode of the socket

Door knock(const RawClient &client) {
    if (!client.connected()) {
        return Door::Shut;
    }
    const oipc::FrameHeader answer = client.receive().header;
    const bool in = answer.type == FrameType::Hello;
    return in ? Door::Open : answer.id == static_cast<uint16_t>(Reason::NotAllowed) ? Door::Refused : Door::Full;
}

// What connects while it lives is that user's.
class Disguise {
public:
    Disguise(uid_t user, gid_t supplementary) : groups_(static_cast<std::size_t>(getgroups(0, nullptr))) {
        EXPECT_GE(getgroups(static_cast<int>(groups_.size()), groups_.data()), 0);
        EXPECT_TRUE(setgroups(1, &supplementary) == 0 && setegid(user) == 0 && seteuid(user) == 0);
    }
    ~Disguise() { EXPECT_TRUE(seteuid(0) == 0 && setegid(0) == 0 && setgroups(groups_.size(), groups_.data()) == 0); }
    Disguise(const Disguise &) = delete;
    Disguise &operator=(const Disguise &) = delete;

private:
    std::vector<gid_t> groups_;
};

class AccessTest : public ::testing::Test {
protected:
    static constexpr uid_t USER = 4711;
    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "only root can become somebody else";
        }
    }
    static void open(Daemon &daemon, Listener &listener, const std::string &allowed) {
        daemon.config = "[ipc]\n" + allowed;
        ASSERT_EQ(chmod(daemon.path(".").c_str(), 0711), 0);
        ASSERT_EQ(chmod(daemon.path("run").c_str(), 0755), 0);
        daemon.start();
        ASSERT_TRUE(listener.connect());
    }
};

TEST_F(AccessTest, OthersAreTurnedAwayUnlessAllowed) {
    struct Row {
        const char *allowed;
        uid_t user;
        gid_t supplementary;
        Door expected;
    };
    for (const Row &row :
         std::initializer_list<Row>{{"", USER, 65533, Door::Shut},
                                    {"users = [\"root\", 65534]\n", 65534, 65534, Door::Shut},
                                    {"users = [65534, 1]\ngroups = [65534, 1]\n", 65534, 65534, Door::Refused},
                                    {"users = [65533]\ngroups = [65533]\n", USER, 65532, Door::Refused},
                                    {"users = [4711]\n", USER, 65532, Door::Open},
                                    {"groups = [4711]\n", USER, 65532, Door::Open},
                                    {"groups = [65531, 65532]\n", USER, 65532, Door::Open}}) {
        SCOPED_TRACE(row.allowed);
        Daemon daemon;
        Listener listener(daemon);
        open(daemon, listener, row.allowed);
        const std::string path = daemon.path("run/corvane.sock");
        {
            const Disguise other(row.user, row.supplementary);
            EXPECT_EQ(knock(RawClient(path)), row.expected);
        }
        EXPECT_EQ(listener.client.ping().value, "pong");
        EXPECT_EQ(daemon.end(SIGTERM), 0);
        EXPECT_EQ(timesSaid(daemon, "refused: this user is not allowed"), row.expected == Door::Refused ? 1 : 0);
    }
}

TEST_F(AccessTest, OneUserCannotTakeTheLastPlaceNorFillTheLog) {
    Daemon daemon;
    Listener listener(daemon); // has one of ten places
    open(daemon, listener, "users = [4711]\n");
    std::vector<std::unique_ptr<RawClient>> clients;
    const auto enter = [&] {
        clients.push_back(std::make_unique<RawClient>(daemon.path("run/corvane.sock")));
        return knock(*clients.back());
    };
    {
        const Disguise other(USER, USER);
        for (int i = 0; i < 100; ++i) {
            EXPECT_EQ(enter(), i < 8 ? Door::Open : Door::Full) << i;
        }
    }
    EXPECT_EQ(enter(), Door::Open);
    EXPECT_EQ(enter(), Door::Full);
    EXPECT_TRUE(eventually([&] { return timesSaid(daemon, "more clients were refused") > 0; }));
    EXPECT_LT(timesSaid(daemon, "refused"), 10);
}

TEST_F(ClientTest, MalformedFramesEndTheirOwnConnectionOnly) {
    const auto with = [](std::size_t offset, uint8_t value) { // a good call with one byte changed
        Bytes bytes = callFrame(FrameType::SyncCall, ORU_ZB_SVC_PING, Bytes(8));
        bytes[offset] = value;
        return bytes;
    };
    std::vector<std::pair<Bytes, Reason>> rows = {
        {Bytes(1, 0x43), Reason::ShortFrame},  {Bytes(19, 0x43), Reason::ShortFrame},
        {Bytes(20), Reason::WrongMagic},       {with(0, 0x56), Reason::WrongMagic},
        {with(1, 0), Reason::WrongMagic},      {with(2, 0), Reason::WrongVersion},
        {with(2, 2), Reason::WrongVersion},    {with(3, 0), Reason::UnknownType},
        {with(3, 12), Reason::UnknownType},    {with(3, 255), Reason::UnknownType},
        {with(16, 7), Reason::LengthMismatch}, {with(16, 9), Reason::LengthMismatch},
        {with(16, 0), Reason::LengthMismatch}, {with(17, 0x10), Reason::TooLong},
        {with(19, 0xFF), Reason::TooLong},
    };
    for (const std::size_t size : {4097, 60000}) {
        rows.emplace_back(callFrame(FrameType::SyncCall, ORU_ZB_SVC_PING, Bytes(size)), Reason::TooLong);
    }
    for (const int type : {3, 4, 5, 6, 7, 8, 10, 11}) { // the service's own frames
        for (const uint16_t id : {ORU_ZB_SVC_PING, ORU_ZB_SVC_APING, ORU_ZB_SVC_DEVICE_LEFT}) {
            rows.emplace_back(callFrame(static_cast<FrameType>(type), id, Bytes(12), 0x9000), Reason::UnknownType);
        }
    }
    ASSERT_NO_FATAL_FAILURE(begin());
    for (std::size_t i = 0; i < rows.size(); ++i) {
        SCOPED_TRACE(i);
        const auto &[bytes, reason] = rows[i];
        const RawClient raw(socket_path);
        ASSERT_TRUE(raw.send(callFrame(FrameType::SyncCall, ORU_ZB_SVC_SPING, Bytes(8)))); // answered all the same
        ASSERT_TRUE(raw.send(bytes));
        for (const FrameType expected : {FrameType::Hello, FrameType::SyncResult, FrameType::Refusal}) {
            const oipc::FrameHeader answer = raw.receive().header;
            ASSERT_EQ(answer.type, expected);
            if (expected == FrameType::Refusal) {
                EXPECT_EQ(answer.id, static_cast<uint16_t>(reason));
                EXPECT_EQ(answer.status, oipc::reasonInfo(reason).status);
            }
        }
        EXPECT_TRUE(raw.ended());
        EXPECT_EQ(listener.client.ping().value, "pong");
    }
    expectUnharmed();
}

} // namespace
