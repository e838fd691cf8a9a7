// SPDX-License-Identifier: Apache-2.0
#include "host_port.h"
#include "oru_log.h"
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

namespace corvane::coprocessor {

namespace {

constexpr char TAG[] = "radio";

std::string because(const std::string &what) {
    return what + ": " + std::strerror(errno);
}

// ---- pseudo terminal

class PtyPort final : public HostPort {
public:
    explicit PtyPort(std::string link) : link_(std::move(link)) {}
    ~PtyPort() override { PtyPort::unplug(); }

    std::string plug() override;
    void unplug() override;
    std::string name() const override { return link_; }
    void dropHost() override {} // the terminal outlives its hosts

private:
    std::string point(const char *terminal);

    const std::string link_;
    base::Descriptor terminal_; // kept open: else the line would hang up between two hosts
};

std::string PtyPort::plug() {
    base::Descriptor master(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK));
    std::array<char, 128> path{};
    if (!master || ::grantpt(master.get()) != 0 || ::unlockpt(master.get()) != 0 ||
        ::ptsname_r(master.get(), path.data(), path.size()) != 0) {
        return because("no pseudo terminal");
    }
    base::Descriptor terminal(::open(path.data(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    termios settings{};
    if (!terminal || ::tcgetattr(terminal.get(), &settings) != 0) {
        return because(path.data());
    }
    ::cfmakeraw(&settings);
    if (::tcsetattr(terminal.get(), TCSANOW, &settings) != 0) {
        return because(path.data());
    }
    std::string problem = point(path.data());
    if (problem.empty()) {
        host_ = std::move(master);
        terminal_ = std::move(terminal);
    }
    return problem;
}

// There is no moment in which the name is missing or points nowhere.
std::string PtyPort::point(const char *terminal) {
    struct stat info {};
    if (::lstat(link_.c_str(), &info) == 0 && !S_ISLNK(info.st_mode)) {
        return link_ + " is there already and is not a symbolic link";
    }
    const std::string scratch = link_ + ".new";
    (void)::unlink(scratch.c_str());
    if (::symlink(terminal, scratch.c_str()) != 0 || std::rename(scratch.c_str(), link_.c_str()) != 0) {
        return because(link_);
    }
    return {};
}

void PtyPort::unplug() {
    if (host_) {
        (void)::unlink(link_.c_str());
    }
    terminal_.reset();
    host_.reset();
}

// ---- TCP

class TcpPort final : public HostPort {
public:
    explicit TcpPort(const sockaddr_in &address) : address_(address) {}

    std::string plug() override;
    void unplug() override {
        listener_.reset();
        host_.reset();
    }
    std::string name() const override;
    void acceptHost() override;
    void dropHost() override { host_.reset(); }

private:
    sockaddr_in address_; // with the port in use from the first plug on
};

std::string TcpPort::name() const {
    std::array<char, INET_ADDRSTRLEN> text{};
    (void)::inet_ntop(AF_INET, &address_.sin_addr, text.data(), text.size());
    return "tcp:" + std::string(text.data()) + ":" + std::to_string(ntohs(address_.sin_port));
}

std::string TcpPort::plug() {
    base::Descriptor listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int on = 1;
    socklen_t size = sizeof address_;
    auto *const address = reinterpret_cast<sockaddr *>(&address_);
    if (!listener || ::setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        ::bind(listener.get(), address, size) != 0 || ::listen(listener.get(), 1) != 0 ||
        ::getsockname(listener.get(), address, &size) != 0) {
        return because(name());
    }
    listener_ = std::move(listener);
    return {};
}

void TcpPort::acceptHost() {
    base::Descriptor host(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!host) {
        return;
    }
    if (host_) {
        oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_INFO, TAG, "a second host was turned away");
        return;
    }
    const int on = 1;
    (void)::setsockopt(host.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on); // frames are short, and waited for
    host_ = std::move(host);
}

} // namespace

std::unique_ptr<HostPort> makePtyPort(std::string link) {
    return std::make_unique<PtyPort>(std::move(link));
}

std::unique_ptr<HostPort> makeTcpPort(const std::string &address, bool any, std::string &problem) {
    sockaddr_in parsed{};
    parsed.sin_family = AF_INET;
    const size_t colon = std::min(address.rfind(':'), address.size());
    const std::string number = address.substr(std::min(colon + 1, address.size()));
    uint16_t port = 0;
    const auto read = std::from_chars(number.data(), number.data() + number.size(), port);
    if (::inet_pton(AF_INET, address.substr(0, colon).c_str(), &parsed.sin_addr) != 1 || read.ec != std::errc() ||
        read.ptr != number.data() + number.size()) {
        problem = "\"" + address + "\" is not an IPv4 address and a port, as in 127.0.0.1:6638";
        return nullptr;
    }
    if (ntohl(parsed.sin_addr.s_addr) >> 24 != IN_LOOPBACKNET && !any) {
        problem =
            "whoever reaches " + address + " owns the network, without a password: say --listen-any if you mean it";
        return nullptr;
    }
    parsed.sin_port = htons(port);
    return std::make_unique<TcpPort>(parsed);
}

} // namespace corvane::coprocessor
