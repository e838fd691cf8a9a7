// SPDX-License-Identifier: Apache-2.0
// The control of the virtual mesh at run time: request lines and what they do, and the socket they come from.
#include "../support/allocation_counter.h"
#include "zbhal_fixture.h"
#include <chrono>
#include <cstring>
#include <fstream>
#include <set>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace zbhal_test {

class ControlTest : public HalTest {
protected:
    void SetUp() override {
        HalTest::SetUp();
        scenario_.devices = {device("lamp", 1)};
        scenario_.devices[0].endpoints[0].input_clusters = {0x0006, 0x0402, 0x0500};
        scenario_.devices[0].reports = {{1, 0x0006, 0x0000, 86'400'000}};
        startWithNetwork();
        std::strncpy(address_.sun_path, (folder_ + "/sim.sock").c_str(), sizeof address_.sun_path - 1);
    }
    int connectClient() const {
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(connect(fd, reinterpret_cast<const sockaddr *>(&address_), sizeof address_), 0);
        return fd;
    }
    static std::string receive(int fd) { // an answer; empty when the server closes the connection first
        char line[256];
        const ssize_t size = recv(fd, line, sizeof line, 0);
        return {line, static_cast<size_t>(std::max<ssize_t>(size, 0))};
    }
    static void sendText(int fd, const std::string &text) {
        EXPECT_EQ(send(fd, text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
    }
    sockaddr_un address_{AF_UNIX, ""};
};
INSTANTIATE_TEST_SUITE_P(modes, ControlTest, ::testing::Values(hal::Mode::descriptor));

TEST_P(ControlTest, linesDoWhatTheySay) {
    play(R"(permit 1
{"command":"rejoin","device":"lamp"} => the device has never been in this network
{"command":"join","device":"lamp"} => ok | 1 joined, announced
{"command":"join","device":"lamp"} => the device is in the network already
{"command":"announce","device":"lamp"} => ok | announced
{"command":"address","device":"lamp"} => ok | announced
{"command":"report","device":"lamp"} => ok | frame of 7
{"command":"set","device":"lamp","cluster":6,"attribute":0,"value":1} => ok | frame of 7
{"command":"set","device":"lamp","endpoint":1,"cluster":1026,"attribute":0,"value":-500} => ok
{"command":"set","device":"lamp","endpoint":2,"cluster":1026,"attribute":0,"value":0} => the device has no such
{"command":"set","device":"lamp","cluster":"ias_zone","attribute":"zone_status","value":true} => ok | frame of 9
{"command":"rejoin","device":"lamp"} => ok | 1 rejoined, announced
{"command":"rejoin","device":"lamp","secured":false} => ok | 1 rejoined unsecured, announced
{"command":"power","device":"lamp","on":false} => ok
{"command":"power","device":"lamp","on":false} => the device is switched off already
{"command":"rejoin","device":"lamp"} => the device is switched off
{"command":"report","device":"lamp"} => the device does not reach
{"command":"power","device":"lamp","on":true} => ok | announced
{"command":"reset"} => ok | stack resetting, stack up
{"command":"fatal"} => ok | stack failed, stack up
{"command":"faults","device":"lamp","faults":{"answer_delay_ms":70}} => ok"silent":false
{"command":"faults","device":"lamp","faults":{"silent":true}} => ok"answer_delay_ms":70
{"command":"faults","device":"lamp"} => ok"silent":true
{"command":"air","air":{"loss":0.25}} => ok,"interference":0.0,"jitter_ms":0,"loss":0.25,"max_in_flight":32,"pta_denial"
{"command":"air","air":{"loss":0}} => ok"loss":0.0
{"command":"leave","device":"lamp"} => ok | 1 left
{"command":"leave","device":"lamp"} => the device is not in the network
{"command":"list"} => ok{"devices":[{"eui64":"00:12:4b:00:00:00:01:01","in_network":false,"link_quality":0,"name":"lamp"
{"command":"list"} => ok,"node_id":65535,"parent":"","role":"router","state":"on, open, -5.0 C"}],"ok":true}
{"command":"refuse","operation":"permitJoinNetwork","count":2,"status":-15} => ok
permit 1 => -15
permit 1 => -15
permit 1
{"command":"refuse","operation":"echo"} => ok
echo => -1)");
    EXPECT_EQ(std::set(record.node_ids.begin(), record.node_ids.end()).size(), 3U) << "none, and two of the lamp";
    const auto begin = std::chrono::steady_clock::now();
    play(R"({"command":"hang","milliseconds":100} => ok
echo)");
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(100));
}

TEST_P(ControlTest, nonsenseIsRefusedAndDoesNothing) {
    play(R"({ => the request is not valid JSON
[] => the request must be a JSON object
{} => \"command\" is missing
{"command":7} => \"command\" must be a text that is not empty
{"command":"dance"} => unknown command \"dance\"; known: list, join, rejoin,
{"command":"list","x":1} => unknown key \"x\"; known: command
{"command":"join","device":"oven"} => no device is named \"oven\"
{"command":"rejoin","device":"lamp","secured":1} => \"secured\" must be true or false
{"command":"set","device":"lamp","cluster":"on_of","attribute":0,"value":1} => \"cluster\": there is none named \"on_of
{"command":"set","device":"lamp","cluster":6,"attribute":0,"value":18446744073709551615} => \"value\" must be an integer
{"command":"set","device":"lamp","cluster":6,"attribute":0,"value":1.0} => \"value\" must be an integer from -92233720
{"command":"faults","device":"lamp","faults":{"silent":true,"x":1}} => unknown key \"x\"; known: silent
{"command":"faults","device":"lamp","faults":{"silent":true,"send_status":256}} => \"send_status\" must be an integer
{"command":"faults","device":"lamp","faults":3} => \"faults\" must be an object
{"command":"air","air":{"delay_ms":1,"loss":1.5}} => \"loss\" must be a number from 0 to 1
{"command":"refuse","operation":"x"} => no operation is named \"x\"
{"command":"refuse","operation":"echo","status":0} => \"status\" must not be 0
{"command":"faults","device":"lamp"} => ok"silent":false
{"command":"air"} => ok"delay_ms":8)");
}

// Whichever allocation of the layer fails, it costs a frame or a client. Every send is confirmed all the same, and what
// is in the network stays in it.
TEST_P(ControlTest, oneFailedAllocationCostsAFrameOrAClient) {
    scenario_.devices.push_back(device("sensor", 2, mesh::Role::sleepy_end_device, "lamp"));
    scenario_.devices[0].reports.clear();
    uint64_t left = 0; // until the allocation that is to fail
    const auto failing = [&](const auto &work) {
        failing_allocation = left == 0 ? 0 : allocations + left;
        work();
        const uint64_t at = failing_allocation.exchange(0);
        left = at > allocations ? at - allocations : 0;
    };
    const auto pass = [&](uint64_t milliseconds) {
        for (const uint64_t end_ms = testplat::time::nowMs() + milliseconds; testplat::time::nowMs() < end_ms;) {
            uint64_t next_us = 0;
            failing([&] { next_us = hal::nextEventUs(); });
            pump(oruZbHal_processAction);
            testplat::time::advance(std::clamp<uint64_t>(next_us / 1000 + 1, testplat::time::nowMs() + 1, end_ms) -
                                    testplat::time::nowMs());
        }
    };
    const char *const every = getenv("CORVANE_EVERY");
    const uint64_t stride = every == nullptr ? 3 : std::stoul(every);
    uint64_t nth = 0;
    do {
        nth += stride;
        SCOPED_TRACE("allocation " + std::to_string(nth));
        std::filesystem::remove(folder_ + "/virtual-radio-0200c0fffe000001.state");
        startWithNetwork(folder_);
        join({"lamp", "sensor"});
        record = {};
        left = nth;
        size_t sent = 0;
        for (const char *destination : {"lamp", "sensor", "all", "nobody"}) {
            const uint16_t node_id = nodeId(destination);
            failing([&] { sent += sendZcl(node_id, 0) == 0 ? 1U : 0U; });
        }
        pass(8000);
        EXPECT_EQ(record.confirmations.size(), sent);
        for (const std::string line : {R"({"command":"list"})", R"({"command":"address","device":"lamp"})",
                                       R"({"command":"power","device":"sensor","on":false})",
                                       R"({"command":"power","device":"sensor","on":true})"}) {
            failing([&] {
                try {
                    (void)mesh::handleControlLine(line, sim());
                } catch (const std::bad_alloc &) { // the server drops the client
                }
            });
        }
        pass(1000);
        (void)oruZbHal_reset();
        pass(1000);
        (void)sim().setPower("sensor", true); // if the client was lost that was to do it
        advance(5000);
        record.trace.clear();
        sendZcl(nodeId("lamp"), 1);
        sendZcl(nodeId("sensor"), 2);
        advance(2000);
        EXPECT_EQ(record.trace, "sent 1: 0, frame of 5, sent 2: 0, frame of 5, ");
        const auto node_ids = [this] { return std::pair(nodeId("lamp"), nodeId("sensor")); };
        const auto before = node_ids();
        start(folder_);
        play("wait | stack enabling, stack up");
        EXPECT_EQ(node_ids(), before) << "the memory is whole";
    } while (left == 0 && !HasFailure());
    std::cout << "allocations: " << nth - left << ", every " << stride << ". failed once\n";
    EXPECT_GT(nth, 150U) << "the run must mean something";
}

TEST_P(ControlTest, socketServesOneAfterTheOtherAndNoRudeClientDoesHarm) {
    auto server = mesh::startControlServer(address_.sun_path, sim());
    ASSERT_NE(server, nullptr);
    const int flooding = connectClient();
    sendText(flooding, std::string(9000, 'x'));
    EXPECT_EQ(receive(flooding), "{\"error\":\"the request is longer than 8192 bytes\",\"ok\":false}\n");
    const int gone = connectClient(); // closes before its answer
    sendText(gone, "{\"command\":\"list\"}\n");
    close(gone);
    const int stalled = connectClient(); // says half a line and no more: loses the connection, the next is served
    sendText(stalled, "{\"comm");
    const int polite = connectClient();
    sendText(polite, "{\"command\":\"reset\"}\nnon");
    EXPECT_EQ(receive(polite), "{\"ok\":true}\n");
    sendText(polite, "sense\n");
    EXPECT_EQ(receive(polite), "{\"error\":\"the request is not valid JSON\",\"ok\":false}\n");
    EXPECT_EQ(receive(stalled), "");
    server.reset(); // with a client still connected
    EXPECT_FALSE(std::filesystem::exists(address_.sun_path));
    for (const int client : {flooding, stalled, polite}) {
        close(client);
    }
}

TEST_P(ControlTest, socketReplacesNothingThatIsInUse) {
    const std::string path = address_.sun_path;
    auto server = mesh::startControlServer(path, sim());
    ASSERT_NE(server, nullptr);
    EXPECT_EQ(mesh::startControlServer(path, sim()), nullptr) << "served";
    EXPECT_TRUE(std::filesystem::exists(path));
    std::filesystem::remove(path);
    auto successor = mesh::startControlServer(path, sim());
    server.reset();
    EXPECT_TRUE(std::filesystem::exists(path)) << "the socket of a successor";
    successor.reset();
    EXPECT_FALSE(std::filesystem::exists(path));
    std::ofstream(path) << "precious";
    EXPECT_EQ(mesh::startControlServer(path, sim()), nullptr) << "not a socket";
    EXPECT_TRUE(std::filesystem::is_regular_file(path));
    EXPECT_EQ(mesh::startControlServer(folder_ + "/" + std::string(200, 'x'), sim()), nullptr) << "too long";
    EXPECT_EQ(mesh::startControlServer(folder_ + "/none/sim.sock", sim()), nullptr) << "no such folder";
}

} // namespace zbhal_test
