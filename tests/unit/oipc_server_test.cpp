// SPDX-License-Identifier: Apache-2.0
#include "../support/allocation_counter.h"
#include "oipc_connection.h"
#include "oipc_fixture.h"
#include <csignal>
#include <fstream>
#include <future>
#include <numeric>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>

using namespace oipc_test;
using oipc::Reason;

namespace {

Payload numbered(std::size_t size) {
    Payload payload(size);
    std::iota(payload.begin(), payload.end(), uint8_t{1});
    return payload;
}

} // namespace

TEST_F(OipcTest, StartRefusesWhatItCannotServe) {
    using Config = oruOipc_serverConfig_t;
    const Config good = config;
    for (const auto &[field, value] : {std::pair{&Config::service_uuid, 0x10000U},
                                       {&Config::max_payload_size, 4097U},
                                       {&Config::max_client_count, 65U}}) {
        config.*field = value;
        EXPECT_EQ(start(), ORU_STATUS_PARAM_OUT_OF_RANGE);
        config = good;
    }
    useDirectory(directory + "/missing");
    EXPECT_EQ(start(), ORU_STATUS_NOT_FOUND);
    useDirectory("/" + std::string(200, 'x'));
    EXPECT_EQ(start(), ORU_STATUS_PARAM_OUT_OF_RANGE);
    useDirectory(directory);
    std::ofstream(path) << "precious";
    EXPECT_EQ(start(), ORU_STATUS_ALREADY_EXISTS);
    EXPECT_EQ(std::filesystem::file_size(path), 8U) << "a file that is no socket is left alone";
    std::filesystem::remove(path);
    for (const int type : {SOCK_SEQPACKET, SOCK_STREAM}) {
        const oipc::Descriptor other(listenAt(path, type)); // a stale socket is left behind
        EXPECT_EQ(start(), ORU_STATUS_ALREADY_EXISTS);
        EXPECT_TRUE(std::filesystem::is_socket(path));
        if (type == SOCK_SEQPACKET) {
            std::filesystem::remove(path);
        }
    }
    oipc::Descriptor locked(::open(directory.c_str(), O_RDONLY | O_CLOEXEC)); // as anybody can
    EXPECT_EQ(::flock(locked.get(), LOCK_EX), 0);
    ASSERT_EQ(start(), ORU_STATUS_OK);
    EXPECT_EQ(start(), ORU_STATUS_ALREADY_INITIALIZED);
    EXPECT_EQ(hello(RawClient(path)), 1);
    stop();
    EXPECT_TRUE(std::filesystem::is_empty(directory));
    locked = oipc::Descriptor(::open((path + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    EXPECT_EQ(::flock(locked.get(), LOCK_EX), 0);
    EXPECT_EQ(start(), ORU_STATUS_BUSY) << "a process is starting";
}

TEST_F(OipcTest, TheSocketCanBeFoundAsLongAsNobodyElseTakesItsName) {
    ASSERT_EQ(start(), ORU_STATUS_OK);
    const RawClient early(path);
    ASSERT_EQ(hello(early), 1);
    const auto comesBack = [this] {
        for (const auto end = std::chrono::steady_clock::now() + PATIENCE; std::chrono::steady_clock::now() < end;) {
            if (RawClient(path).connected()) {
                return true;
            }
            std::this_thread::yield();
        }
        return false;
    };
    std::filesystem::remove(path);
    EXPECT_TRUE(comesBack());
    EXPECT_EQ(call(early, ECHO, {1}).payload(), Payload{1});
    std::filesystem::remove_all(directory); // with the folder
    std::filesystem::create_directory(directory);
    EXPECT_TRUE(comesBack());
    std::filesystem::rename(directory, directory + ".moved"); // and by another one
    std::filesystem::create_directory(directory);
    EXPECT_TRUE(comesBack());
    std::filesystem::remove(path);
    const oipc::Descriptor successor(listenAt(path));
    stop();
    EXPECT_TRUE(RawClient(path).connected()) << "not ours to remove";
    std::filesystem::remove_all(directory + ".moved");
}

TEST(OipcAccess, RulesDecideByUserAndGroup) {
    oipc::AccessRules rules = oipc::resolveAccess(
        {.users = {"root", "1234", "no-such-user", "", "65534"}, .groups = {"root", "12x", "70", "65534"}});
    EXPECT_EQ(rules.users, (std::vector<uid_t>{0, 1234}));
    EXPECT_EQ(rules.groups, (std::vector<gid_t>{0, 70}));
    rules.own_uid = 500;
    rules.own_gid = 50;
    const auto allowed = [&rules](uid_t uid, gid_t gid, gid_t other) {
        return oipc::isAllowed({.uid = uid, .gid = gid, .groups = {1, other}}, rules);
    };
    EXPECT_TRUE(allowed(0, 9, 9) && allowed(500, 9, 9) && allowed(1234, 9, 9) && allowed(7, 70, 9) &&
                allowed(7, 9, 70));
    EXPECT_FALSE(allowed(7, 9, 9) || allowed(70, 1234, 1234) || allowed(65534, 65534, 65534));
    rules.own_uid = 65534;
    EXPECT_FALSE(allowed(65534, 9, 9)) << "may be anybody";
    const struct {
        std::vector<uid_t> users;
        std::vector<gid_t> groups;
        mode_t mode;
    } rows[] = {{{}, {}, 0640}, {{0, 65534}, {50}, 0640}, {{7}, {}, 0666}, {{}, {50, 70}, 0666}};
    for (const auto &row : rows) {
        rules.users = row.users;
        rules.groups = row.groups;
        EXPECT_EQ(oipc::socketMode({.mode = 0640}, rules), row.mode);
    }
}

TEST_F(OipcTest, CallsGetAZeroedBufferAndTheirResultBack) {
    const struct {
        std::size_t size;
        oru_status_t returned, stored, expected;
    } cases[] = {{4096, 0, 0, 0}, {1, 0, -15, -15}, {748, -11, 0, -11}, {2, -11, -15, -11}, {3, 225, 0, 225}};
    custom = [&, each = std::begin(cases)](oruOipc_parameter_t &task) mutable {
        const std::span bytes(static_cast<uint8_t *>(task.buffer), 4096);
        Payload whole = numbered(each->size);
        whole.resize(4096);
        EXPECT_TRUE(std::ranges::equal(bytes, whole)) << "zero behind the client's bytes";
        EXPECT_EQ(reinterpret_cast<uintptr_t>(task.buffer) % 8, 0U);
        sigset_t mask;
        pthread_sigmask(SIG_SETMASK, nullptr, &mask);
        EXPECT_TRUE(sigismember(&mask, SIGTERM) == 1 && sigismember(&mask, SIGINT) == 1);
        EXPECT_EQ(*task.status, 0U);
        std::ranges::fill(bytes, uint8_t{0xAA}); // a handler that ignores the length
        *task.status = static_cast<uint32_t>(each->stored);
        return (each++)->returned;
    };
    ASSERT_EQ(start(), ORU_STATUS_OK);
    const RawClient client(path);
    EXPECT_EQ(hello(client), 1);
    for (const auto &each : cases) {
        const RawFrame result = call(client, CUSTOM, numbered(each.size));
        EXPECT_EQ(result.header.status, each.expected);
        EXPECT_EQ(result.header.sequence, 77U);
        EXPECT_EQ(result.payload(), Payload(each.size, 0xAA));
    }
}

TEST_F(OipcTest, PlatformCallsAreAnsweredBesideTheService) {
    custom = [](auto &) { return ADD_FAILURE() << "not for the service", ORU_STATUS_OK; };
    ASSERT_EQ(start(), ORU_STATUS_OK);
    const RawClient client(path), other(path);
    EXPECT_EQ(client.receive().payload(), (Payload{1, 0, 2, 0, 0, 0x10, 0, 0, 10, 0, 0, 0, 1, 0, 0, 0}));
    EXPECT_EQ(hello(other), 2);
    const struct {
        uint16_t operation;
        Payload in;
        oru_status_t status;
        std::size_t size;
    } rows[] = {{1, {}, 0, 288},         {1, Payload(4096), 0, 288}, {0, {}, -6, 0},
                {99, {}, -6, 0},         {2, {2, 0, 0}, -200, 0},    {2, {0xFF, 0xFF, 0xFF, 0xFF, 9}, 0, 4},
                {2, {0, 0, 0, 0}, 0, 4}, {2, {2, 0, 0, 0}, 0, 4}};
    for (const auto &row : rows) {
        client.send(frameOf({.type = FrameType::PlatformCall, .id = row.operation, .sequence = 78}, row.in));
        const RawFrame result = client.receive();
        ASSERT_EQ(result.header.type, FrameType::PlatformResult);
        EXPECT_EQ(result.header.id, row.operation);
        EXPECT_EQ(result.header.sequence, 78U);
        EXPECT_EQ(result.header.status, row.status);
        ASSERT_EQ(result.header.payload_length, row.size);
        EXPECT_TRUE(row.size != 4 || ByteReader(result.payload()).u32() == (ByteReader(row.in).u32() & 2));
    }
    for (const auto &[number, changes] : {std::pair{uint8_t{1}, true}, {2, true}, {2, false}, {3, true}}) {
        kvs::State state{.condition = kvs::Condition(number), .waiting = number, .files_set_aside = 7};
        state.setReason(std::string(300, 'r'));
        ASSERT_EQ(kvs::publishState(state), changes);
        if (changes) {
            kvs::tellListener();
            const RawFrame event = client.receive();
            EXPECT_EQ(event.header.type, FrameType::PlatformEvent);
            EXPECT_EQ(event.header.id, 1);
            Payload told = event.payload(), expected(256, 'r');
            ASSERT_EQ(told.size(), expected.size());
            std::ranges::copy(Payload{number, 0, 0, 0, number, 0, 0, 0, 7, 0, 0, 0, 0, 0, 0, 0}, expected.begin());
            std::copy_n(told.begin() + 16, 8, expected.begin() + 16); // its age
            expected.back() = 0;
            EXPECT_EQ(told, expected);
        }
    }
    EXPECT_EQ(call(client, ECHO).header.type, FrameType::SyncResult) << "no further event";
    EXPECT_EQ(call(other, ECHO).header.type, FrameType::SyncResult) << "it did not subscribe";
}

TEST_F(OipcTest, CallbackMayOvertakeTheResultAndLimitsHold) {
    config.max_payload_size = 100;
    custom = [&](oruOipc_parameter_t &task) {
        EXPECT_EQ(task.type, ORU_OIPC_FUNCTION_ASYNC);
        return callback(task.client_id, task.callback_id, {9, 8, 7});
    };
    ASSERT_EQ(start(), ORU_STATUS_OK);
    const RawClient client(path);
    ASSERT_EQ(hello(client), 1);
    client.send(frameOf({.type = FrameType::AsyncCall, .id = CUSTOM, .callback_id = 515, .sequence = 5}, {1, 2}));
    const RawFrame called = client.receive();
    EXPECT_EQ(called.header.type, FrameType::Callback);
    EXPECT_EQ(called.header.id, 515);
    EXPECT_EQ(called.payload(), (Payload{9, 8, 7}));
    const RawFrame result = client.receive();
    EXPECT_EQ(result.header.type, FrameType::AsyncResult);
    EXPECT_EQ(result.header.sequence, 5U);
    EXPECT_TRUE(result.payload().empty());

    EXPECT_EQ(callback(2, 515, {}), ORU_STATUS_NOT_FOUND);
    const oruOipc_eventParams_t dangling{1, nullptr, 1};
    EXPECT_EQ(oruOipc_publishEvent(handle, &dangling), ORU_STATUS_NULL_POINTER);
    EXPECT_EQ(publish(1, Payload(101)), ORU_STATUS_DATA_LEN_INVALID);
    EXPECT_EQ(publish(1, Payload(100)), ORU_STATUS_OK);
    EXPECT_EQ(client.receive().payload().size(), 100U);
    client.send(frameOf({.type = FrameType::SyncCall, .id = BLOCK}));
    for (int i = 0; i < 3; ++i) { // what comes behind a refused frame must not hide the refusal
        client.send(frameOf({.type = FrameType::SyncCall, .id = ECHO}, Payload(101)));
    }
    openGate();
    EXPECT_TRUE(waitFor(disconnected, 1));
    auto stale = handle;
    stop(); // closes the server's end
    EXPECT_EQ(client.receive().header.type, FrameType::SyncResult);
    EXPECT_EQ(client.receive().header.id, static_cast<uint16_t>(Reason::TooLong));
    EXPECT_EQ(client.receive().header.type, ENDED);
    ASSERT_EQ(start(), ORU_STATUS_OK);
    EXPECT_EQ(oruOipc_stop(&stale), ORU_STATUS_UNINITIALIZED);
}

TEST_F(OipcTest, ClientsGoneDuringTheirCallsCountNoMoreButAreBounded) {
    config.max_client_count = 2;
    ASSERT_EQ(start(), ORU_STATUS_OK);
    for (uint16_t id = 1; id <= 4; ++id) { // two at a time may be connected
        const RawClient doomed(path);
        EXPECT_EQ(hello(doomed), id) << "a client that has just gone makes room at once";
        EXPECT_EQ(call(doomed, ECHO, {5}).payload(), Payload{5}) << "others block";
        doomed.send(frameOf({.type = FrameType::SyncCall, .id = BLOCK}, numbered(100)));
        ASSERT_TRUE(waitFor(blocked, id));
        EXPECT_EQ(callback(id, 600, {1}), ORU_STATUS_OK);
        EXPECT_EQ(doomed.receive().header.type, FrameType::Callback) << "during the call";
    }
    EXPECT_EQ(RawClient(path).receive().header.status, ORU_STATUS_BUSY);
    EXPECT_EQ(callback(1, 5, {1}), ORU_STATUS_NOT_FOUND);
    EXPECT_EQ(disconnected, 0);
    openGate();
    EXPECT_TRUE(waitFor(disconnected, 4));
    EXPECT_EQ(connected, 4);
}

TEST_F(OipcTest, QueuedFramesKeepTheirOrderAndAFullQueueEndsTheConnection) {
    ASSERT_EQ(start(), ORU_STATUS_OK);
    constexpr std::size_t DEVICE = 744;
    const auto fill = [this](uint16_t client, uint32_t most, std::size_t size) { // gives the number of frames taken
        uint32_t count = 0;
        oru_status_t status = ORU_STATUS_OK;
        for (Payload payload(size); count < most; ++count) {
            ByteWriter(payload).u32(count);
            status = callback(client, 700, payload);
            if (status != ORU_STATUS_OK) {
                EXPECT_EQ(status, ORU_STATUS_BUSY);
                break;
            }
        }
        return count;
    };
    const auto expectFrames = [](const RawClient &client, std::size_t count, std::size_t size) {
        for (uint32_t i = 0; i < count; ++i) {
            const RawFrame frame = client.receive();
            ASSERT_EQ(frame.header.type, FrameType::Callback) << i;
            ASSERT_EQ(frame.header.payload_length, size);
            ASSERT_EQ(ByteReader(frame.payload()).u32(), i);
        }
    };
    uint16_t id = 0;
    uint32_t taken = 0;
    for (const std::size_t size : {std::size_t{4096}, DEVICE}) {
        const RawClient sleeper(path);
        ASSERT_EQ(hello(sleeper), ++id);
        taken = fill(id, 100000, size);
        EXPECT_EQ(callback(id, 700, {}), ORU_STATUS_NOT_FOUND);
        expectFrames(sleeper, taken - oipc::QUEUE_BYTES / (oipc::HEADER_SIZE + size),
                     size); // what the kernel had taken
        EXPECT_EQ(sleeper.receive().header.type, ENDED);
    }
    const RawClient reader(path);
    ASSERT_EQ(hello(reader), ++id);
    for (int round = 0; round < 3; ++round) { // from the second on across the end of the ring
        EXPECT_EQ(fill(id, taken - 10, DEVICE), taken - 10);
        expectFrames(reader, taken - 10, DEVICE);
    }
    EXPECT_EQ(call(reader, ECHO, {1}).payload(), Payload{1});
}

TEST_F(OipcTest, EventsOfSeveralThreadsReachEveryClientInOneOrder) {
    constexpr uint8_t THREADS = 4;
    constexpr uint8_t EACH = 50; // few enough for a reader that is not scheduled for a while
    ASSERT_EQ(start(), ORU_STATUS_OK);
    const RawClient one(path);
    const RawClient two(path);
    EXPECT_EQ(hello(one) + hello(two), 1 + 2);
    std::array<uint8_t, THREADS> next{};
    std::vector<std::jthread> threads;
    for (uint8_t t = 0; t < THREADS; ++t) {
        threads.emplace_back([&, t] {
            for (uint8_t i = 0; i < EACH; ++i) {
                EXPECT_EQ(publish(1025, {t, i}), ORU_STATUS_OK);
            }
        });
    }
    for (int i = 0; i < THREADS * EACH; ++i) {
        const Payload event = one.receive().payload();
        ASSERT_EQ(event.size(), 2U);
        EXPECT_EQ(event[1], next.at(event[0])++);
        EXPECT_EQ(two.receive().payload(), event);
    }
}

TEST_F(OipcTest, WithoutADescriptorAClientIsTurnedAwayAndTheNextIsServed) {
    ASSERT_EQ(start(), ORU_STATUS_OK);
    rlimit former{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &former), 0);
    const rlimit low{100, former.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);
    std::vector<oipc::Descriptor> all;
    const RawClient unlucky(openSocket(path, [&](int fd, auto... address) {
        for (int copy = ::dup(fd); copy >= 0; copy = ::dup(fd)) {
            all.emplace_back(copy);
        }
        return ::connect(fd, address...);
    }));
    EXPECT_EQ(unlucky.receive().header.type, ENDED);
    all.clear();
    EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &former), 0);
    EXPECT_EQ(hello(RawClient(path)), 1);
}

TEST_F(OipcTest, WithoutMemoryAClientIsTurnedAwayAndTheNextIsServed) {
    ASSERT_EQ(start(), ORU_STATUS_OK);
    const Payload echo = frameOf({.type = FrameType::SyncCall, .id = ECHO});
    int refused = 0;
    for (uint64_t nth = 1; allocations >= failing_allocation; ++nth) { // of those that a client costs
        failing_allocation = allocations + nth;
        const RawClient unlucky(path);
        RawFrame answer = unlucky.receive();
        if (answer.header.type == FrameType::Hello) { // the thread comes last
            (void)unlucky.send(echo);
            answer = unlucky.receive();
        }
        if (answer.header.type == FrameType::Refusal) {
            EXPECT_EQ(answer.header.id, static_cast<uint16_t>(Reason::OutOfResources));
            EXPECT_TRUE(unlucky.ended());
            ++refused;
        } else {
            EXPECT_EQ(answer.header.type, FrameType::SyncResult);
        }
    }
    failing_allocation = 0;
    EXPECT_GE(refused, 4) << "its groups, its record, its queue, its thread";
}

TEST_F(OipcTest, StopWaitsForCallsUnderWayAndDeliversTheirResults) {
    ASSERT_EQ(start(), ORU_STATUS_OK);
    const RawClient busy(path);
    const RawClient idle(path);
    EXPECT_EQ(hello(busy) + hello(idle), 1 + 2);
    busy.send(frameOf({.type = FrameType::SyncCall, .id = BLOCK}));
    busy.send(frameOf({.type = FrameType::SyncCall, .id = ECHO})); // waits behind it and is not taken any more
    ASSERT_TRUE(waitFor(blocked, 1));
    const auto copy = handle;
    auto stopped = std::async(std::launch::async, [this] { stop(); });
    EXPECT_EQ(idle.receive().header.type, ENDED);
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_EQ(stopped.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    const oruOipc_eventParams_t event{};
    EXPECT_EQ(oruOipc_publishEvent(copy, &event), ORU_STATUS_UNINITIALIZED);
    openGate();
    stopped.get();
    EXPECT_EQ(disconnected, 2);
    for (const FrameType expected : {FrameType::SyncResult, FrameType::Refusal, ENDED}) {
        const RawFrame frame = busy.receive();
        EXPECT_EQ(frame.header.type, expected);
        EXPECT_EQ(frame.header.status, expected == ENDED ? 0 : ORU_STATUS_CANCELED);
    }
}
