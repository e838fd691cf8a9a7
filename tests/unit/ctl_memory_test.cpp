// SPDX-License-Identifier: Apache-2.0
//
// The client library without memory: each single allocation of a session fails once, on the thread of the program only.
#include "corvane_client.h"
#include "oipc_fixture.h"
#include <array>
#include <cstdlib>
#include <new>
#include <utility>

static thread_local int until_failure = 0; // allocations of this thread up to the one that fails; 0: none does

// Both operators are replaced together; the compiler sees only one of them inlined.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
// NOLINTBEGIN(misc-new-delete-overloads,cppcoreguidelines-no-malloc)
void *operator new(size_t size) {
    void *block = until_failure > 0 && --until_failure == 0 ? nullptr : std::malloc(size);
    return block == nullptr ? throw std::bad_alloc() : block;
}
void operator delete(void *block) noexcept {
    std::free(block);
}
void operator delete(void *block, size_t) noexcept {
    std::free(block);
}
// NOLINTEND(misc-new-delete-overloads,cppcoreguidelines-no-malloc)

using namespace oipc_test;
using corvane::Client;
using corvane::Milliseconds;
using corvane::Outcome;
using corvane::Transport;

class MemoryTest : public OipcTest {
protected:
    static void expectRefused(const Outcome &outcome) {
        const bool refused = outcome.transport == Transport::Invalid && outcome.status == ORU_STATUS_OUT_OF_MEMORY;
        EXPECT_TRUE(outcome.ok() || refused || outcome.transport == Transport::NoService) << outcome.describe();
    }
    // A session that ends connected if it ever was. Nothing here allocates but the library.
    void session() {
        uint64_t events = 0;
        int completions = 0;
        Client client;
        const bool listens = client.onEvent([&events](const corvane::Event &) { ++events; });
        const Outcome up = client.connect(options);
        const Outcome pinged = client.asyncPing([&completions](const auto &pong) {
            ++completions;
            expectRefused(pong);
        });
        int ended = 0;
        const Outcome begun = client.startExchange({}, {.async = true}, [&ended](const auto &) { ++ended; });
        const std::array outcomes{
            up, pinged, begun, Outcome(client.routes()), client.callSync(ECHO, {}, {}), Outcome(client.platformInfo())};
        client.poll(Milliseconds(0)); // the echo came behind the event and the callback
        EXPECT_EQ(completions, pinged.ok() ? 1 : 0);
        EXPECT_EQ(events + client.droppedEvents(), pinged.ok() && listens ? 1U : 0U);
        (void)up.describe();
        restart();
        client.pollUntil([&] { return !client.connected(); }, up.ok() ? PATIENCE : Milliseconds(0));
        EXPECT_EQ(client.pollUntil([&] { return client.connected(); }, up.ok() ? PATIENCE : Milliseconds(0)), up.ok());
        EXPECT_EQ(ended, begun.ok() ? 1 : 0); // with the connection
        const int left = std::exchange(until_failure, 0);
        std::ranges::for_each(outcomes, expectRefused);
        until_failure = left;
    }
    void restart() {
        const int left = std::exchange(until_failure, 0); // the server's memory does not fail
        stop();
        ASSERT_EQ(start(), ORU_STATUS_OK);
        until_failure = left;
    }
    corvane::Options options;
};

TEST_F(MemoryTest, WhatThereIsNoMemoryForIsRefusedAndTheRestGoesOn) {
    custom = [this](oruOipc_parameter_t &task) {
        const bool ping = task.function_id == ORU_ZB_SVC_APING;
        EXPECT_TRUE(!ping || publish(ORU_ZB_SVC_DEVICE_LEFT, Payload(744)) == ORU_STATUS_OK);
        return ping ? callback(task.client_id, task.callback_id, Payload(8)) : ORU_STATUS_OK;
    };
    kvs::State store;
    store.setReason(std::string(200, 'r')); // longer than what a text holds without memory
    kvs::publishState(store);
    options.socket_path = path;
    options.auto_reconnect = true;
    options.reconnect_min = Milliseconds(1);
    ASSERT_EQ(start(), ORU_STATUS_OK);
    int failures = 0;
    for (bool failed = true; failed; ++failures) {
        SCOPED_TRACE(failures);
        until_failure = failures + 1;
        session();
        failed = std::exchange(until_failure, 0) == 0;
    }
    EXPECT_GT(failures, 15);
}
