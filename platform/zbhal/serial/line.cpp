// SPDX-License-Identifier: Apache-2.0
#include "line.h"
#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <netdb.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <termios.h>

namespace corvane::zbhal::serial {

namespace {

constexpr std::string_view TCP_PREFIX = "tcp:";
constexpr auto CONNECT_LIMIT = std::chrono::milliseconds(2500); // what is left of 3 s is for the name
constexpr int SPARE_PROBE_S = 10; // keep-alive of a silent network line: a dead peer is noticed within half a minute
constexpr int PROBES = 2;

struct Speed {
    uint32_t bits_per_second;
    speed_t code;
};
constexpr auto SPEEDS = std::to_array<Speed>({
    {57600, B57600},
    {115200, B115200},
    {230400, B230400},
    {460800, B460800},
});

LineResult failure(oru_status_t status, std::string problem) {
    return {{}, status, std::move(problem)};
}

std::string errnoText() {
    return std::strerror(errno);
}

// ---- serial ports

LineResult explainOpen(const std::string &path) {
    switch (errno) {
    case ENOENT:
    case ENODEV:
    case ENXIO:
        return failure(ORU_STATUS_NOT_FOUND,
                       path + " is not there: is the adapter plugged in? \"corvanectl adapters\" lists what is");
    case EACCES:
    case EPERM:
        return failure(ORU_STATUS_GENERAL_ERROR,
                       "no permission to open " + path + ": the daemon's user has to be in its group, usually dialout");
    case EBUSY: {
        const int holder = holderOf(path);
        return failure(ORU_STATUS_BUSY, path + " is in use by another program" +
                                            (holder != 0 ? " (process " + std::to_string(holder) + ")" : "") +
                                            ": stop that one");
    }
    default:
        return failure(ORU_STATUS_GENERAL_ERROR, "cannot open " + path + ": " + errnoText());
    }
}

LineResult openPort(const std::string &path, const LineSettings &settings) {
    base::Descriptor port(::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    if (!port) {
        return explainOpen(path);
    }
    if (::isatty(port.get()) == 0) {
        return failure(ORU_STATUS_NOT_SUPPORTED, path + " is not a serial port");
    }
    // Two locks, for programs use the one or the other. Neither is left behind by a process that is killed.
    if (::flock(port.get(), LOCK_EX | LOCK_NB) != 0) {
        errno = EBUSY;
        return explainOpen(path);
    }
    (void)::ioctl(port.get(), TIOCEXCL);
    if (!applyLineSettings(port.get(), settings)) {
        return failure(ORU_STATUS_GENERAL_ERROR, "cannot set up " + path + ": " + errnoText());
    }
    (void)::tcflush(port.get(), TCIOFLUSH); // of whoever had it before
    return {Line(std::move(port)), ORU_STATUS_OK, {}};
}

// ---- network lines

struct AddressDeleter {
    void operator()(addrinfo *list) const { ::freeaddrinfo(list); }
};
using Addresses = std::unique_ptr<addrinfo, AddressDeleter>;

// HOST:PORT, [HOST]:PORT for an IPv6 address. False: neither.
bool splitAddress(std::string_view text, std::string &host, std::string &port) {
    const size_t colon = text.rfind(':');
    if (colon == std::string_view::npos) {
        return false;
    }
    host = text.substr(0, colon);
    port = text.substr(colon + 1);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);
    } else if (host.find(':') != std::string::npos) {
        return false;
    }
    uint16_t number = 0;
    const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), number);
    return !host.empty() && error == std::errc() && end == port.data() + port.size() && number != 0;
}

// 0, or the errno of the failure.
int connectWithin(int socket, const addrinfo &address, std::chrono::steady_clock::time_point deadline) {
    if (::connect(socket, address.ai_addr, address.ai_addrlen) == 0) {
        return 0;
    }
    if (errno != EINPROGRESS) {
        return errno;
    }
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd entry{socket, POLLOUT, 0};
        const int ready = ::poll(&entry, 1, static_cast<int>(std::max<int64_t>(left.count(), 0)));
        if (ready > 0) {
            break;
        }
        if (ready == 0 || errno != EINTR) {
            return ready == 0 ? ETIMEDOUT : errno;
        }
    }
    int error = 0;
    socklen_t size = sizeof error;
    return ::getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : errno;
}

void tune(int socket) {
    const int on = 1;
    (void)::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    (void)::setsockopt(socket, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    (void)::setsockopt(socket, IPPROTO_TCP, TCP_KEEPIDLE, &SPARE_PROBE_S, sizeof SPARE_PROBE_S);
    (void)::setsockopt(socket, IPPROTO_TCP, TCP_KEEPINTVL, &SPARE_PROBE_S, sizeof SPARE_PROBE_S);
    (void)::setsockopt(socket, IPPROTO_TCP, TCP_KEEPCNT, &PROBES, sizeof PROBES);
}

LineResult openTcp(const std::string &name) {
    std::string host;
    std::string port;
    if (!splitAddress(std::string_view(name).substr(TCP_PREFIX.size()), host, port)) {
        return failure(ORU_STATUS_BAD_PARAM, "\"" + name + "\" is not tcp:HOST:PORT");
    }
    const auto deadline = std::chrono::steady_clock::now() + CONNECT_LIMIT;
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo *found = nullptr;
    if (const int error = ::getaddrinfo(host.c_str(), port.c_str(), &hints, &found); error != 0) {
        return failure(ORU_STATUS_NOT_FOUND, "cannot find the host of " + name + ": " + ::gai_strerror(error));
    }
    const Addresses addresses(found);
    int problem = EHOSTUNREACH;
    for (const addrinfo *address = addresses.get(); address != nullptr; address = address->ai_next) {
        base::Descriptor socket(::socket(address->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        problem = socket ? connectWithin(socket.get(), *address, deadline) : errno;
        if (problem == 0) {
            tune(socket.get());
            return {Line(std::move(socket)), ORU_STATUS_OK, {}};
        }
    }
    return failure(problem == ECONNREFUSED ? ORU_STATUS_NOT_FOUND : ORU_STATUS_GENERAL_ERROR,
                   "cannot connect to " + name + ": " + std::strerror(problem));
}

} // namespace

// ---- who has it

namespace {

namespace fs = std::filesystem;

// True when one of the folder's entries is wanted. Folders of /proc vanish while one looks, those of others are hidden.
template <class Wanted>
bool findEntry(const fs::path &folder, Wanted wanted) {
    std::error_code error;
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
        if (wanted(entry->path())) {
            return true;
        }
    }
    return false;
}

int processId(const fs::path &folder) {
    const std::string name = folder.filename();
    int pid = 0;
    return std::from_chars(name.data(), name.data() + name.size(), pid).ec == std::errc() ? pid : 0;
}

} // namespace

void Line::close() {
    if (line_) {
        (void)::ioctl(line_.get(), TIOCNXCL);
        line_.reset();
    }
}

bool isTcpLine(std::string_view name) {
    return name.starts_with(TCP_PREFIX);
}

LineResult openLine(const std::string &name, const LineSettings &settings) {
    return isTcpLine(name) ? openTcp(name) : openPort(name, settings);
}

bool applyLineSettings(int line, const LineSettings &settings) {
    if (::isatty(line) == 0) {
        return true;
    }
    const auto speed = std::ranges::find(SPEEDS, settings.speed, &Speed::bits_per_second);
    termios mode{};
    if (speed == SPEEDS.end()) {
        errno = EINVAL;
        return false;
    }
    if (::tcgetattr(line, &mode) != 0) {
        return false;
    }
    ::cfmakeraw(&mode);
    mode.c_cflag &= ~static_cast<tcflag_t>(HUPCL | CSTOPB | CRTSCTS);
    mode.c_cflag |= CLOCAL | CREAD;
    mode.c_iflag &= ~static_cast<tcflag_t>(IXOFF);
    if (settings.flow == FlowControl::hardware) {
        mode.c_cflag |= CRTSCTS;
    } else if (settings.flow == FlowControl::software) {
        mode.c_iflag |= IXON | IXOFF;
    }
    mode.c_cc[VMIN] = 1; // with 0 a read of nothing looks like the end of the line
    mode.c_cc[VTIME] = 0;
    return ::cfsetspeed(&mode, speed->code) == 0 && ::tcsetattr(line, TCSANOW, &mode) == 0;
}

int holderOf(const std::string &path) {
    std::error_code error;
    const fs::path wanted = fs::canonical(path, error);
    int holder = 0;
    if (!error) {
        findEntry("/proc", [&](const fs::path &process) {
            const int pid = processId(process);
            const auto isIt = [&](const fs::path &open) { return fs::read_symlink(open, error) == wanted; };
            holder = pid != 0 && pid != ::getpid() && findEntry(process / "fd", isIt) ? pid : 0;
            return holder != 0;
        });
    }
    return holder;
}

} // namespace corvane::zbhal::serial
