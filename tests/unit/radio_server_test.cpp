// SPDX-License-Identifier: Apache-2.0
//
// The simulated radio at a real pseudo terminal and a real port, with the control socket beside it.
#include "base/thread.h"
#include "radio_server.h"
#include "serial/line.h"
#include <chrono>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

using namespace corvane;
using namespace corvane::coprocessor;
using zbhal::serial::Line;
using zbhal::serial::LineResult;
using zbhal::serial::openLine;

namespace {

constexpr int LIMIT_MS = 5000;
const std::string RESET("\x1A\xC0\x38\xBC\x7E", 5);
const std::string RESTARTED("\xC1\x02\x0B\x0A\x52\x7E", 6);

// Reads until there are so many bytes, or the end; "gone" for a hang-up.
std::string readFrom(int line, size_t count) {
    std::string text;
    while (text.size() < count) {
        pollfd ready{line, POLLIN, 0};
        char bytes[256];
        if (::poll(&ready, 1, LIMIT_MS) <= 0) {
            return text + " and no more";
        }
        const ssize_t got = ::read(line, bytes, std::min(sizeof bytes, count - text.size()));
        if (got <= 0) {
            return text + "gone";
        }
        text.append(bytes, static_cast<size_t>(got));
    }
    return text;
}

class RadioServerTest : public ::testing::Test {
protected:
    RadioServerTest() {
        std::string path = (std::filesystem::temp_directory_path() / "radioXXXXXX").string();
        folder = ::mkdtemp(path.data());
        options.control_path = folder + "/sim.sock";
    }
    ~RadioServerTest() override {
        if (server) {
            server->stop();
            thread.join();
        }
        server.reset();
        port.reset();
        std::filesystem::remove_all(folder);
    }
    std::string start(std::unique_ptr<HostPort> host_port) {
        port = std::move(host_port);
        server = std::make_unique<RadioServer>(options, *port);
        const std::string problem = server->start();
        EXPECT_TRUE(base::startThread(thread, "radio", [this] { server->run(); }));
        return problem;
    }
    std::string control(const std::string &request) const {
        const base::Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        options.control_path.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(::connect(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
        const std::string line = request + "\n";
        EXPECT_EQ(::write(socket.get(), line.data(), line.size()), static_cast<ssize_t>(line.size()));
        std::string answer;
        while (!answer.ends_with('\n')) {
            answer += readFrom(socket.get(), 1);
        }
        return answer;
    }
    // Opens the line when it is there, and resets the radio.
    Line connect(const std::string &name) {
        LineResult result;
        for (int left_ms = LIMIT_MS; left_ms > 0 && !result.line; left_ms -= 10) {
            result = openLine(name, {});
            if (!result.line) {
                (void)::poll(nullptr, 0, 10);
            }
        }
        EXPECT_EQ(result.problem, "");
        EXPECT_EQ(resetAt(result.line.get()), RESTARTED);
        return std::move(result.line);
    }
    static std::string resetAt(int line) {
        EXPECT_EQ(::write(line, RESET.data(), RESET.size()), static_cast<ssize_t>(RESET.size()));
        return readFrom(line, RESTARTED.size());
    }

    std::string folder;
    RadioOptions options;
    std::unique_ptr<HostPort> port;
    std::unique_ptr<RadioServer> server;
    std::thread thread;
};

TEST_F(RadioServerTest, IsPulledOutOfItsTerminalAndPluggedInAgain) {
    const std::string stick = folder + "/stick";
    ASSERT_EQ(start(makePtyPort(stick)), "");
    {
        const Line line = connect(stick);
        EXPECT_EQ(openLine(stick, {}).status, ORU_STATUS_BUSY);
        EXPECT_EQ(control(R"({"command":"line","event":"unplug"})"), "{\"ok\":true}\n");
        EXPECT_EQ(readFrom(line.get(), 1), "gone");
        EXPECT_EQ(openLine(stick, {}).status, ORU_STATUS_NOT_FOUND);
        EXPECT_NE(control(R"({"command":"line","event":"unplug"})").find("unplugged already"), std::string::npos);
    }
    EXPECT_EQ(control(R"({"command":"line","event":"replug"})"), "{\"ok\":true}\n");
    { const Line again = connect(stick); }
    const Line third = connect(stick); // closed and opened again, without a hang-up between
    EXPECT_EQ(control(R"({"command":"line","event":"reset","value":2})"), "{\"ok\":true}\n");
    EXPECT_EQ(readFrom(third.get(), 6), std::string("\xC1\x02\x02\x9B\x7B\x7E", 6));
}

TEST_F(RadioServerTest, ServesOneHostAtATimeOverTcp) {
    std::string problem;
    EXPECT_EQ(makeTcpPort("192.0.2.1:6638", false, problem), nullptr);
    EXPECT_NE(problem.find("--listen-any"), std::string::npos);
    for (const char *wrong : {"", "127.0.0.1", "127.0.0.1:", "127.0.0.1:70000", "host:1", ":1"}) {
        EXPECT_EQ(makeTcpPort(wrong, true, problem), nullptr) << wrong;
    }
    ASSERT_EQ(start(makeTcpPort("127.0.0.1:0", false, problem)), "");
    Line line = connect(port->name());
    const LineResult second = openLine(port->name(), {});
    EXPECT_EQ(readFrom(second.line.get(), 1), "gone");
    EXPECT_EQ(resetAt(line.get()), RESTARTED);
    line.close();
    line = connect(port->name());
    EXPECT_EQ(control(R"({"command":"line","event":"unplug"})"), "{\"ok\":true}\n");
    EXPECT_EQ(readFrom(line.get(), 1), "gone");
}

TEST_F(RadioServerTest, TakesFaultsOfTheLineAndNamesWhatIsWrong) {
    ASSERT_EQ(start(makePtyPort(folder + "/stick")), "");
    const struct {
        const char *request;
        const char *answer; // a part of it
    } rows[] = {
        {R"({"command":"wire","wire":{"lost":0.5,"ack_delay_ms":7}})", R"("lost":0.5,"naks":0.0,"not_ready":0.0)"},
        {R"({"command":"wire"})", R"("ack_delay_ms":7)"},
        {R"({"command":"wire","wire":{"lost":1.5}})", "from 0.0 to 1.0"},
        {R"({"command":"wire","wire":{"ack_delay_ms":0.5}})", "must be an integer"},
        {R"({"command":"wire","wire":{"gremlins":1}})", "has no \\\"gremlins\\\"; known: lost"},
        {R"({"command":"wire","wire":[]})", "must be an object"},
        {R"({"command":"wire","lost":0.5})", "unknown key"},
        {R"({"command":"line"})", "must be reset, error, silence, unplug or replug"},
        {R"({"command":"line","event":"reset","value":256})", "from 0 to 255"},
        {R"({"command":"line","event":"replug"})", "is plugged in"},
        {R"({"command":"list"})", "\"devices\":[]"},
    };
    for (const auto &[request, answer] : rows) {
        EXPECT_NE(control(request).find(answer), std::string::npos) << request << control(request);
    }
}

TEST_F(RadioServerTest, LeavesFilesAloneThatAreNotItsOwn) {
    std::ofstream(folder + "/file") << "mine";
    EXPECT_NE(start(makePtyPort(folder + "/file")), "");
    EXPECT_EQ(std::filesystem::file_size(folder + "/file"), 4U);
}

} // namespace
