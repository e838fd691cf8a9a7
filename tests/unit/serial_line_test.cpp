// SPDX-License-Identifier: Apache-2.0
//
// Opening a line: a real pseudo terminal, a real listener on the loopback, and everything that is neither.
#include "serial/line.h"
#include <arpa/inet.h>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <termios.h>

using namespace corvane::zbhal::serial;
using corvane::base::Descriptor;

namespace {

struct Pty {
    Descriptor master{::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)};
    std::string path;
    Pty() {
        EXPECT_EQ(::grantpt(master.get()) | ::unlockpt(master.get()), 0);
        path = ::ptsname(master.get());
    }
};

struct Listener {
    Descriptor socket{::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    std::string name;
    Listener() {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = ::htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        EXPECT_EQ(::bind(socket.get(), reinterpret_cast<sockaddr *>(&address), size), 0);
        EXPECT_EQ(::listen(socket.get(), 1), 0);
        EXPECT_EQ(::getsockname(socket.get(), reinterpret_cast<sockaddr *>(&address), &size), 0);
        name = "tcp:127.0.0.1:" + std::to_string(::ntohs(address.sin_port));
    }
};

TEST(SerialLine, CarriesEveryByteAsItIs) {
    std::string all;
    for (int byte = 0; byte < 256; ++byte) {
        all.push_back(static_cast<char>(byte));
    }
    const Pty pty;
    const Listener listener;
    for (const std::string &name : {pty.path, listener.name}) {
        const LineResult result = openLine(name, {.speed = 230400});
        ASSERT_TRUE(result.line) << result.problem;
        char back[512];
        EXPECT_EQ(::read(result.line.get(), back, sizeof back), -1) << "nothing there is not the end of the line";
        EXPECT_EQ(errno, EAGAIN);
        const Descriptor accepted(isTcpLine(name) ? ::accept(listener.socket.get(), nullptr, nullptr) : -1);
        const int peer = accepted ? accepted.get() : pty.master.get();
        ASSERT_EQ(::write(result.line.get(), all.data(), all.size()), 256);
        size_t got = 0;
        while (got < all.size()) {
            const ssize_t count = ::read(peer, back + got, sizeof back - got);
            ASSERT_GT(count, 0);
            got += static_cast<size_t>(count);
        }
        EXPECT_EQ(std::string(back, got), all);
    }
}

TEST(SerialLine, IsSetUpAndLeftToOthers) {
    const Pty pty;
    for (int i = 0; i < 2; ++i) { // the second time although the first left the port exclusive while it was open
        const LineResult result = openLine(pty.path, {.speed = 460800, .flow = FlowControl::hardware});
        ASSERT_TRUE(result.line) << result.problem;
        termios mode{};
        ASSERT_EQ(::tcgetattr(result.line.get(), &mode), 0);
        EXPECT_EQ(::cfgetospeed(&mode), static_cast<speed_t>(B460800));
        EXPECT_EQ(mode.c_cflag & (HUPCL | CRTSCTS), CRTSCTS);
        EXPECT_FALSE(applyLineSettings(result.line.get(), {.speed = 12345}));
        const pid_t child = ::fork();
        if (child == 0) {
            const LineResult second = openLine(pty.path, {});
            const bool named = second.problem.find(std::to_string(::getppid())) != std::string::npos;
            ::_exit(second.status == ORU_STATUS_BUSY && named ? 0 : 1);
        }
        int status = -1;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0) << "a second program is kept out and told who is in";
    }
}

TEST(SerialLine, FailsInWords) {
    std::string gone;
    {
        const Listener closed;
        gone = closed.name;
    }
    const struct {
        std::string name;
        oru_status_t status;
        const char *says;
    } rows[] = {
        {"/dev/no-such-port", ORU_STATUS_NOT_FOUND, "plugged in"},
        {"/dev/null", ORU_STATUS_NOT_SUPPORTED, "not a serial port"},
        {"/proc/self/exe", ORU_STATUS_GENERAL_ERROR, "cannot open"},
        {gone, ORU_STATUS_NOT_FOUND, "cannot connect"},
        {"tcp:", ORU_STATUS_BAD_PARAM, "HOST:PORT"},
        {"tcp:127.0.0.1", ORU_STATUS_BAD_PARAM, "HOST:PORT"},
        {"tcp:127.0.0.1:0", ORU_STATUS_BAD_PARAM, "HOST:PORT"},
        {"tcp:127.0.0.1:66000", ORU_STATUS_BAD_PARAM, "HOST:PORT"},
        {"tcp:::1:4000", ORU_STATUS_BAD_PARAM, "HOST:PORT"},
        {"tcp:no host:1", ORU_STATUS_NOT_FOUND, "cannot find"},
    };
    for (const auto &[name, status, says] : rows) {
        const LineResult result = openLine(name, {});
        EXPECT_FALSE(result.line);
        EXPECT_EQ(result.status, status) << name << ": " << result.problem;
        EXPECT_NE(result.problem.find(says), std::string::npos) << result.problem;
    }
}

} // namespace
