// SPDX-License-Identifier: Apache-2.0
#include "oipc_connection.h"
#include "oipc_fixture.h"
#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <numeric>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using namespace oipc_test;
using oipc::FrameType;
using oipc::Reason;

namespace {

Payload numbered(std::size_t size, uint8_t first = 1) {
    Payload payload(size);
    std::iota(payload.begin(), payload.end(), first);
    return payload;
}

// The layer counts clients when their threads have ended; a new one may come a moment too early.
RawClient admitted(const std::string &path) {
    for (;;) {
        RawClient client(path);
        const auto frame = client.receive();
        if (!frame || frame->header.type == FrameType::Hello) {
            return client;
        }
    }
}

} // namespace

// ---------------------------------------------------------------- starting

TEST_F(OipcTest, StartRefusesWhatItCannotServe) {
    const auto accept = [](oruOipc_parameter_t *) -> oru_status_t { return ORU_STATUS_OK; };
    oruOipc_serverConfig_t good{};
    good.service_handler = accept;
    good.thread_option = ORU_OIPC_THREAD_NONBLOCKING;
    EXPECT_EQ(oruOipc_start(nullptr, &good), ORU_STATUS_NULL_POINTER);
    EXPECT_EQ(oruOipc_start(&service.handle, nullptr), ORU_STATUS_NULL_POINTER);

    const struct {
        void (*spoil)(oruOipc_serverConfig_t &);
        oru_status_t expected;
    } cases[] = {
        {[](auto &c) { c.service_handler = nullptr; }, ORU_STATUS_NULL_POINTER},
        {[](auto &c) { c.thread_option = ORU_OIPC_THREAD_BLOCKING; }, ORU_STATUS_NOT_SUPPORTED},
        {[](auto &c) { c.max_payload_size = 4097; }, ORU_STATUS_PARAM_OUT_OF_RANGE},
        {[](auto &c) { c.max_client_count = 65; }, ORU_STATUS_PARAM_OUT_OF_RANGE},
        {[](auto &c) { c.service_uuid = 0x10000; }, ORU_STATUS_PARAM_OUT_OF_RANGE},
    };
    for (const auto &each : cases) {
        auto config = good;
        each.spoil(config);
        EXPECT_EQ(oruOipc_start(&service.handle, &config), each.expected);
    }
    ASSERT_EQ(service.start(), ORU_STATUS_OK);
    oruOipc_Handler_t second = 0;
    EXPECT_EQ(oruOipc_start(&second, &good), ORU_STATUS_ALREADY_INITIALIZED);
}

TEST_F(OipcTest, StartNamesWhatIsWrongWithThePath) {
    const auto startIn = [this](const std::string &directory) {
        auto config = oruConfig_defaults();
        config.runtime_directory = directory;
        oruConfig_setForTesting(config);
        return service.start();
    };
    EXPECT_EQ(startIn(service.directory + "/missing"), ORU_STATUS_NOT_FOUND);
    EXPECT_EQ(service.countLog("cannot open the folder"), 1);
    EXPECT_EQ(startIn("/" + std::string(200, 'x')), ORU_STATUS_PARAM_OUT_OF_RANGE);

    std::ofstream(service.path) << "precious";
    EXPECT_EQ(startIn(service.directory), ORU_STATUS_ALREADY_EXISTS);
    EXPECT_EQ(std::filesystem::file_size(service.path), 8U) << "a file that is no socket is left alone";
    std::filesystem::remove(service.path);

    const int other = listenAt(service.path);
    EXPECT_EQ(startIn(service.directory), ORU_STATUS_ALREADY_EXISTS);
    EXPECT_EQ(service.countLog("another process already serves"), 1);
    ::close(other); // leaves a stale socket behind
    ASSERT_EQ(startIn(service.directory), ORU_STATUS_OK);
    EXPECT_NE(RawClient(service.path).hello(), 0);
    struct stat info {};
    ASSERT_EQ(::stat(service.path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777U, 0660U);
    service.stop();
    EXPECT_FALSE(std::filesystem::exists(service.path));
}

TEST(OipcAccess, RulesDecideByUserAndGroup) {
    const oipc::AccessRules rules{.own_uid = 500, .users = {600, 601}, .groups = {70, 71}};
    const struct {
        oipc::Peer peer;
        bool allowed;
    } cases[] = {
        {{.uid = 0, .gid = 9}, true},
        {{.uid = 500, .gid = 9}, true},
        {{.uid = 601, .gid = 9}, true},
        {{.uid = 7, .gid = 71}, true},
        {{.uid = 7, .gid = 9, .groups = {1, 70}}, true},
        {{.uid = 7, .gid = 9, .groups = {1, 2}}, false},
        {{.uid = 70, .gid = 600}, false},
        {{}, false},
    };
    for (const auto &each : cases) {
        EXPECT_EQ(oipc::isAllowed(each.peer, rules), each.allowed) << each.peer.uid << ' ' << each.peer.gid;
    }
}

TEST_F(OipcTest, AccessNamesAreResolvedAndPeersRead) {
    const auto rules = oipc::resolveAccess({.users = {"root", "1234", "no-such-user", ""}, .groups = {"root", "12x"}});
    EXPECT_EQ(rules.users, (std::vector<uid_t>{0, 1234}));
    EXPECT_EQ(rules.groups, std::vector<gid_t>{0});
    EXPECT_EQ(service.countLog("not known on this system"), 3);

    int pair[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, pair), 0);
    const oipc::Fd one(pair[0]);
    const oipc::Fd two(pair[1]);
    oipc::Peer peer;
    ASSERT_TRUE(oipc::readPeer(one.get(), peer));
    EXPECT_EQ(peer.pid, ::getpid());
    EXPECT_EQ(peer.uid, ::geteuid());
    std::vector<gid_t> mine(static_cast<std::size_t>(::getgroups(0, nullptr)));
    ASSERT_GE(::getgroups(static_cast<int>(mine.size()), mine.data()), 0);
    std::ranges::sort(mine);
    std::ranges::sort(peer.groups);
    EXPECT_EQ(peer.groups, mine);
}

// ---------------------------------------------------------------- calls

TEST_F(OipcTest, ResultIsTheReturnValueElseTheStatus) {
    struct Case {
        oru_status_t returned;
        oru_status_t stored;
        oru_status_t expected;
    };
    const Case cases[] = {{0, 0, 0}, {0, -15, -15}, {-11, 0, -11}, {-11, -15, -11}, {225, 0, 225}};
    service.custom = [&](oruOipc_parameter_t &task) {
        const auto &each = cases[static_cast<const uint8_t *>(task.buffer)[0]];
        *task.status = static_cast<uint32_t>(each.stored);
        return each.returned;
    };
    ASSERT_EQ(service.start(), ORU_STATUS_OK);
    const RawClient client(service.path);
    ASSERT_EQ(client.hello(), 1);
    for (uint8_t i = 0; i < std::size(cases); ++i) {
        const auto result = client.call(CUSTOM, {i});
        ASSERT_TRUE(result);
        EXPECT_EQ(result->header.status, cases[i].expected);
        EXPECT_EQ(result->header.sequence, 77U);
        EXPECT_EQ(result->payload, Payload{i});
    }
}

TEST_F(OipcTest, HandlerGetsAWholeZeroedBufferAndItsLengthGoesBack) {
    std::atomic<bool> sound = true;
    service.custom = [&](oruOipc_parameter_t &task) {
        const auto *bytes = static_cast<uint8_t *>(task.buffer);
        const bool zero = std::all_of(bytes + *task.data_length, bytes + 4096, [](uint8_t b) { return b == 0; });
        const bool aligned = reinterpret_cast<uintptr_t>(bytes) % 8 == 0;
        sigset_t mask;
        pthread_sigmask(SIG_SETMASK, nullptr, &mask);
        const bool blocked = sigismember(&mask, SIGTERM) == 1 && sigismember(&mask, SIGINT) == 1;
        sound = sound && zero && aligned && blocked && *task.status == 0;
        std::fill_n(static_cast<uint8_t *>(task.buffer), 4096, uint8_t{0xAA}); // a handler that ignores the length
        return ORU_STATUS_OK;
    };
    ASSERT_EQ(service.start(), ORU_STATUS_OK);
    const RawClient client(service.path);
    client.hello();
    for (const std::size_t size : {4096U, 0U, 1U, 748U}) {
        const auto result = client.call(CUSTOM, Payload(size, 7));
        ASSERT_TRUE(result);
        EXPECT_EQ(result->payload, Payload(size, 0xAA));
    }
    EXPECT_TRUE(sound);
    const auto echoed = client.call(ECHO, numbered(4096));
    ASSERT_TRUE(echoed);
    EXPECT_EQ(echoed->payload, numbered(4096));
}

TEST_F(OipcTest, AsynchronousCallIsAnsweredWithoutPayloadAndCalledBack) {
    service.custom = [&](oruOipc_parameter_t &task) {
        EXPECT_EQ(task.type, ORU_OIPC_FUNCTION_ASYNC);
        return service.callback(task.client_id, task.callback_id, {9, 8, 7});
    };
    ASSERT_EQ(service.start(), ORU_STATUS_OK);
    const RawClient client(service.path);
    client.hello();
    client.send({.type = FrameType::AsyncCall, .id = CUSTOM, .callback_id = 515, .sequence = 5}, {1, 2});
    const auto callback = client.receive(); // sent before the handler returned
    const auto result = client.receive();
    ASSERT_TRUE(callback && result);
    EXPECT_EQ(callback->header.type, FrameType::Callback);
    EXPECT_EQ(callback->header.id, 515);
    EXPECT_EQ(callback->payload, (Payload{9, 8, 7}));
    EXPECT_EQ(result->header.type, FrameType::AsyncResult);
    EXPECT_EQ(result->header.sequence, 5U);
    EXPECT_TRUE(result->payload.empty());
}

TEST_F(OipcTest, OutgoingArgumentsAreChecked) {
    const oruOipc_callbackParams_t callback{};
    const oruOipc_eventParams_t event{};
    EXPECT_EQ(oruOipc_callback(0, 1, &callback), ORU_STATUS_UNINITIALIZED);
    ASSERT_EQ(service.start(), ORU_STATUS_OK);
    EXPECT_EQ(oruOipc_callback(service.handle, 1, nullptr), ORU_STATUS_NULL_POINTER);
    EXPECT_EQ(oruOipc_publishEvent(service.handle, nullptr), ORU_STATUS_NULL_POINTER);
    const oruOipc_eventParams_t dangling{1, nullptr, 1};
    EXPECT_EQ(oruOipc_publishEvent(service.handle, &dangling), ORU_STATUS_NULL_POINTER);
    EXPECT_EQ(service.publish(1, Payload(4097)), ORU_STATUS_DATA_LEN_INVALID);
    EXPECT_EQ(service.callback(1, 2, {}), ORU_STATUS_NOT_FOUND);
    EXPECT_EQ(service.publish(1, {}), ORU_STATUS_OK) << "nobody listens, nothing fails";
    const auto stale = service.handle;
    service.stop();
    ASSERT_EQ(service.start(), ORU_STATUS_OK);
    EXPECT_EQ(oruOipc_publishEvent(stale, &event), ORU_STATUS_UNINITIALIZED);
    auto stopped = stale;
    EXPECT_EQ(oruOipc_stop(&stopped), ORU_STATUS_UNINITIALIZED);
}

// ---------------------------------------------------------------- several clients

TEST_F(OipcTest, TenClientsAreServedWhileOneBlocksAndTheEleventhIsRefused) {
    ASSERT_EQ(service.start(), ORU_STATUS_OK);
    std::vector<RawClient> clients;
    for (uint16_t id = 1; id <= 10; ++id) {
        clients.emplace_back(service.path);
        EXPECT_EQ(clients.back().hello(), id);
    }
    const RawClient eleventh(service.path);
    const auto refusal = eleventh.receive();
    ASSERT_TRUE(refusal);
    EXPECT_EQ(refusal->header.type, FrameType::Refusal);
    EXPECT_EQ(refusal->header.status, ORU_STATUS_BUSY);
    EXPECT_EQ(refusal->text(), "too many clients are connected");
    EXPECT_TRUE(eleventh.ended());

    clients[0].send({.type = FrameType::SyncCall, .id = BLOCK});
    ASSERT_TRUE(service.waitForBlocked(1));
    std::atomic<int> right = 0;
    std::vector<std::jthread> threads;
    for (uint8_t i = 1; i < 10; ++i) {
        threads.emplace_back([&, i] {
            for (int round = 0; round < 50; ++round) {
                const auto result = clients[i].call(ECHO, numbered(i, i));
                right += result && result->payload == numbered(i, i) ? 1 : 0;
            }
        });
    }
    threads.clear();
    EXPECT_EQ(right, 9 * 50);
    EXPECT_EQ(service.callback(1, 600, {1}), ORU_STATUS_OK) << "reaches a client whose call is under way";
    EXPECT_EQ(clients[0].receive()->header.type, FrameType::Callback);

    clients[3].close();
    const RawClient successor(service.path);
    EXPECT_EQ(successor.hello(), 11) << "a client that has just gone makes room at once";
}

TEST_F(OipcTest, ClientsKilledDuringTheirCallsLeaveNoTrace) {
    ASSERT_EQ(service.start(2), ORU_STATUS_OK);
    for (uint16_t i = 1; i <= 4; ++i) { // two at a time may be connected
        RawClient doomed(service.path);
        EXPECT_EQ(doomed.hello(), i) << "leftovers do not count as clients";
        doomed.send({.type = FrameType::SyncCall, .id = BLOCK}, numbered(100));
        ASSERT_TRUE(service.waitForBlocked(i));
    }
    const RawClient fifth(service.path);
    EXPECT_EQ(fifth.receive()->header.status, ORU_STATUS_BUSY) << "but there are never more leftovers than that";
    EXPECT_EQ(service.callback(1, 5, {1}), ORU_STATUS_NOT_FOUND);
    EXPECT_EQ(service.countEvent(ORU_OIPC_EVENT_CLIENT_DISCONNECTED), 0);

    service.openGate();
    EXPECT_TRUE(service.waitForEvent(ORU_OIPC_EVENT_CLIENT_DISCONNECTED, 4));
    EXPECT_EQ(service.countEvent(ORU_OIPC_EVENT_CLIENT_CONNECTED), 4);
    const RawClient next = admitted(service.path);
    EXPECT_EQ(next.call(ECHO, {5})->payload, Payload{5});
}

TEST_F(OipcTest, ABadFrameClosesOnlyItsOwnConnection) {
    const auto header = oipc::encodeHeader({.type = FrameType::SyncCall, .id = ECHO});
    const Payload good(header.begin(), header.end());
    const auto with = [&good](std::size_t offset, uint8_t value, std::size_t size = oipc::HEADER_SIZE) {
        Payload bytes = good;
        bytes[offset] = value;
        bytes.resize(size);
        return bytes;
    };
    const struct {
        const char *what;
        Payload bytes;
        Reason reason;
    } cases[] = {
        {"one byte", {0x43}, Reason::ShortFrame},
        {"header less one byte", Payload(good.begin(), good.end() - 1), Reason::ShortFrame},
        {"magic", with(0, 'X'), Reason::WrongMagic},
        {"version", with(2, 2), Reason::WrongVersion},
        {"type 0", with(3, 0), Reason::UnknownType},
        {"type of the service", with(3, static_cast<uint8_t>(FrameType::Event)), Reason::UnknownType},
        {"type beyond the last", with(3, 9), Reason::UnknownType},
        {"announces more than it has", with(16, 1), Reason::LengthMismatch},
        {"has more than it announces", with(16, 1, oipc::HEADER_SIZE + 2), Reason::LengthMismatch},
        {"announces 4097", with(17, 0x10, oipc::HEADER_SIZE), Reason::LengthMismatch},
        {"announces 16 MB", with(19, 1), Reason::TooLong},
        {"is longer than a frame", with(16, 0, oipc::MAX_FRAME + 1), Reason::TooLong},
        {"is much longer than a frame", with(16, 0, 100000), Reason::TooLong},
    };
    ASSERT_EQ(service.start(2), ORU_STATUS_OK);
    const RawClient bystander(service.path);
    bystander.hello();
    for (const auto &each : cases) {
        const RawClient bad = admitted(service.path);
        ASSERT_TRUE(bad.sendBytes(each.bytes)) << each.what;
        bad.sendBytes(good); // must not hide the refusal
        const auto refusal = bad.receive();
        ASSERT_TRUE(refusal) << each.what;
        EXPECT_EQ(refusal->header.type, FrameType::Refusal) << each.what;
        EXPECT_EQ(refusal->header.id, static_cast<uint16_t>(each.reason)) << each.what;
        EXPECT_EQ(refusal->text(), oipc::reasonInfo(each.reason).text);
        EXPECT_TRUE(bad.ended()) << each.what;
        EXPECT_TRUE(bystander.call(ECHO)) << each.what;
    }
}

// ---------------------------------------------------------------- outgoing queue

TEST_F(OipcTest, AClientThatDoesNotReadIsDroppedAndTheOthersMissNothing) {
    ASSERT_EQ(service.start(), ORU_STATUS_OK);
    const RawClient sleeper(service.path);
    const RawClient reader(service.path);
    ASSERT_EQ(sleeper.hello(), 1);
    ASSERT_EQ(reader.hello(), 2);
    uint32_t published = 0;
    while (service.countLog("did not read") == 0 && published < 100000) {
        Payload payload(4096);
        oipc::put(std::span<uint8_t>(payload), 0, published);
        ASSERT_EQ(service.publish(1284, payload), ORU_STATUS_OK);
        const auto event = reader.receive();
        ASSERT_TRUE(event) << published;
        ASSERT_EQ(oipc::get<uint32_t>(event->payload, 0), published);
        ++published;
    }
    EXPECT_TRUE(service.waitForEvent(ORU_OIPC_EVENT_CLIENT_DISCONNECTED, 1));
    EXPECT_EQ(service.countLog("client 1 "), 1) << "one line, not one for each event";
    EXPECT_EQ(service.callback(1, 600, {}), ORU_STATUS_NOT_FOUND);
    EXPECT_TRUE(reader.call(ECHO));
    // What the kernel had taken is still there, in order, then the connection ends.
    uint32_t expected = 0;
    while (const auto event = sleeper.receive()) {
        EXPECT_EQ(oipc::get<uint32_t>(event->payload, 0), expected++);
    }
    EXPECT_GT(expected, 0U);
}

TEST_F(OipcTest, QueuedFramesFollowInOrderWhenTheClientReadsAgain) {
    ASSERT_EQ(service.start(), ORU_STATUS_OK);
    const RawClient client(service.path);
    const uint16_t id = client.hello();
    // As many as the kernel takes and half of the queue: the first of them that is queued is not known from outside.
    int size = 0;
    socklen_t length = sizeof size;
    const int probe = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    ::getsockopt(probe, SOL_SOCKET, SO_SNDBUF, &size, &length);
    ::close(probe);
    const auto count = static_cast<uint32_t>(size) / 4096 + 20;
    for (uint32_t i = 0; i < count; ++i) {
        Payload payload(4096);
        oipc::put(std::span<uint8_t>(payload), 0, i);
        ASSERT_EQ(service.callback(id, 700, payload), ORU_STATUS_OK) << i;
    }
    for (uint32_t i = 0; i < count; ++i) {
        const auto frame = client.receive();
        ASSERT_TRUE(frame) << i;
        ASSERT_EQ(oipc::get<uint32_t>(frame->payload, 0), i);
    }
    EXPECT_EQ(client.call(ECHO, {1})->payload, Payload{1});
}

TEST(OipcQueue, KeepsOrderAcrossItsEnd) {
    oipc::OutgoingQueue queue;
    uint8_t in = 0;
    uint8_t out = 0;
    for (int round = 0; round < 100; ++round) {
        for (int i = 0; i < 3 && !queue.full(); ++i, ++in) {
            queue.push({.type = FrameType::Event, .payload_length = 1}, std::array{in});
        }
        for (int i = 0; i < 2; ++i, ++out) {
            ASSERT_EQ(queue.front().size(), oipc::HEADER_SIZE + 1);
            ASSERT_EQ(queue.front().back(), out);
            queue.pop();
        }
    }
    EXPECT_EQ(static_cast<uint8_t>(in - out), oipc::QUEUE_FRAMES - 2);
}

TEST_F(OipcTest, EventsOfSeveralThreadsReachEveryClientInOneOrder) {
    constexpr int THREADS = 4;
    constexpr int EACH = 50; // few enough that a reader that is not scheduled for a while is not dropped
    ASSERT_EQ(service.start(), ORU_STATUS_OK);
    const RawClient one(service.path);
    const RawClient two(service.path);
    one.hello();
    two.hello();
    std::vector<Payload> seen[2];
    {
        std::vector<std::jthread> threads;
        for (uint8_t t = 0; t < THREADS; ++t) {
            threads.emplace_back([&, t] {
                for (uint8_t i = 0; i < EACH; ++i) {
                    service.publish(1025, {t, i});
                }
            });
        }
        for (int c = 0; c < 2; ++c) {
            threads.emplace_back([&, c] {
                for (int i = 0; i < THREADS * EACH; ++i) {
                    const auto event = (c == 0 ? one : two).receive();
                    seen[c].push_back(event ? event->payload : Payload{});
                }
            });
        }
    }
    EXPECT_EQ(seen[0], seen[1]);
    for (uint8_t t = 0; t < THREADS; ++t) {
        uint8_t next = 0;
        for (const auto &payload : seen[0]) {
            if (payload.at(0) == t) {
                EXPECT_EQ(payload.at(1), next++);
            }
        }
        EXPECT_EQ(next, EACH);
    }
}

// ---------------------------------------------------------------- stopping

TEST_F(OipcTest, StopWaitsForCallsUnderWayAndDeliversTheirResults) {
    service.blocked_result = ORU_STATUS_CANCELED;
    ASSERT_EQ(service.start(), ORU_STATUS_OK);
    const RawClient blocked(service.path);
    const RawClient idle(service.path);
    blocked.hello();
    idle.hello();
    blocked.send({.type = FrameType::SyncCall, .id = BLOCK});
    blocked.send({.type = FrameType::SyncCall, .id = ECHO}); // waits behind it and is not taken any more
    ASSERT_TRUE(service.waitForBlocked(1));
    const auto handle = service.handle;
    std::atomic<bool> stopped = false;
    std::jthread stopper([&] {
        service.stop();
        stopped = true;
    });
    EXPECT_TRUE(idle.ended());
    EXPECT_FALSE(std::filesystem::exists(service.path));
    EXPECT_FALSE(stopped);
    const oruOipc_eventParams_t event{};
    EXPECT_EQ(oruOipc_publishEvent(handle, &event), ORU_STATUS_UNINITIALIZED);
    service.openGate();
    stopper.join();
    EXPECT_EQ(service.countEvent(ORU_OIPC_EVENT_CLIENT_DISCONNECTED), 2);
    const auto result = blocked.receive();
    ASSERT_TRUE(result);
    EXPECT_EQ(result->header.type, FrameType::SyncResult);
    EXPECT_EQ(result->header.status, ORU_STATUS_CANCELED);
    const auto refusal = blocked.receive();
    ASSERT_TRUE(refusal);
    EXPECT_EQ(refusal->header.id, static_cast<uint16_t>(Reason::Stopping));
    EXPECT_TRUE(blocked.ended());
}

TEST_F(OipcTest, ServesAgainAfterManyStopsUnderLoad) {
    for (int round = 0; round < 10; ++round) {
        ASSERT_EQ(service.start(), ORU_STATUS_OK);
        std::vector<std::jthread> threads;
        for (int i = 0; i < 3; ++i) {
            threads.emplace_back([this] {
                const RawClient client(service.path);
                if (client.hello() == 0) {
                    return;
                }
                while (const auto result = client.call(ECHO, numbered(64))) {
                    if (result->header.type == FrameType::SyncResult) {
                        EXPECT_EQ(result->payload, numbered(64));
                    }
                }
            });
        }
        EXPECT_TRUE(service.waitForEvent(ORU_OIPC_EVENT_CLIENT_CONNECTED, 3 * (round + 1)));
        service.publish(1025, {1});
        service.stop();
    }
}

using OipcDeathTest = OipcTest;

TEST_F(OipcDeathTest, ExitIsHarmlessWhileThreadsRun) {
    testing::FLAGS_gtest_death_test_style = "threadsafe"; // a process of its own
    const auto leave = [this] {
        service.start();
        const RawClient client(service.path);
        client.hello();
        client.send({.type = FrameType::SyncCall, .id = BLOCK});
        service.waitForBlocked(1);
        std::filesystem::remove_all(service.directory);
        std::exit(7);
    };
    EXPECT_EXIT(leave(), testing::ExitedWithCode(7), "");
}
