// SPDX-License-Identifier: Apache-2.0
//
// The control socket: one thread, one client at a time, every wait bounded. A client may send several lines; it loses
// the connection when a line is too long or does not arrive in time. Only the service's own user and root may connect.
#include "control.h"
#include "base/descriptor.h"
#include "base/thread.h"
#include "oru_log.h"
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace corvane::mesh {
namespace {

constexpr size_t kMaxLine = 8192;
constexpr int kClientTimeoutMs = 2000; // for the next line, and for the client to take an answer
constexpr int kBacklog = 8;

void logFault(const std::string &path, const char *what) {
    oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_ERROR, "oru_zigbee", "%s: control socket %s: %s: %s", "zbHal", path.c_str(),
               what, std::strerror(errno));
}

using base::Descriptor;

bool fillAddress(const std::string &path, sockaddr_un &address) {
    address = {};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return false;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return true;
}

// A socket that nobody listens on is left over from a killed daemon. Anything else at the path is not ours to remove.
bool removeStale(const std::string &path, const sockaddr_un &address) {
    struct stat info {};
    if (lstat(path.c_str(), &info) != 0) {
        return errno == ENOENT;
    }
    if (!S_ISSOCK(info.st_mode)) {
        errno = EEXIST;
        return false;
    }
    const Descriptor probe(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!probe) {
        return false;
    }
    if (connect(probe.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 ||
        errno != ECONNREFUSED) {
        errno = EADDRINUSE;
        return false;
    }
    return unlink(path.c_str()) == 0 || errno == ENOENT;
}

Descriptor listenAt(const std::string &path) {
    sockaddr_un address;
    if (!fillAddress(path, address) || !removeStale(path, address)) {
        return Descriptor();
    }
    Descriptor listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    // The mode is set before the name exists, so that there is no moment in which others could connect.
    if (!listener || fchmod(listener.get(), 0600) != 0 ||
        bind(listener.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        listen(listener.get(), kBacklog) != 0) {
        return Descriptor();
    }
    return listener;
}

bool peerAllowed(int fd) {
    ucred peer{};
    socklen_t length = sizeof peer;
    return getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 && (peer.uid == geteuid() || peer.uid == 0);
}

} // namespace

class ControlServer {
public:
    ControlServer(std::string path, Descriptor listener, Descriptor wake, LineHandler handler)
        : path_(std::move(path)), listener_(std::move(listener)), wake_(std::move(wake)), handler_(std::move(handler)) {
        struct stat info {};
        if (lstat(path_.c_str(), &info) == 0) {
            device_ = info.st_dev;
            inode_ = info.st_ino;
        }
    }
    // False with errno when there is no thread.
    bool start() {
        return base::startThread(thread_, "zbhal-control", [this] { run(); });
    }

    ControlServer(const ControlServer &) = delete;
    ControlServer &operator=(const ControlServer &) = delete;

    ~ControlServer() {
        const uint64_t one = 1;
        (void)!write(wake_.get(), &one, sizeof one); // an eventfd at 0 always takes it
        if (thread_.joinable()) {
            thread_.join();
        }
        removeSocket();
    }

private:
    // But not a successor's. The listener is still open, so nobody else's file can have its inode.
    void removeSocket() {
        struct stat info {};
        if (lstat(path_.c_str(), &info) == 0 && info.st_ino == inode_ && info.st_dev == device_) {
            unlink(path_.c_str());
        }
    }

    // Waits for events on fd; false on time-out, error or when the server stops. Time-out -1: for ever.
    bool await(int fd, short events, int timeout_ms) {
        pollfd fds[] = {{fd, events, 0}, {wake_.get(), POLLIN, 0}};
        int ready = 0;
        do {
            ready = poll(fds, 2, timeout_ms);
        } while (ready < 0 && errno == EINTR);
        stopping_ = stopping_ || fds[1].revents != 0;
        return ready > 0 && !stopping_;
    }

    void run() {
        while (!stopping_) {
            if (!await(listener_.get(), POLLIN, -1)) {
                continue;
            }
            const Descriptor client(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
            if (client && peerAllowed(client.get())) {
                serveAsMemoryAllows(client.get());
            } else if (client) {
                errno = EACCES;
                logFault(path_, "refused a client of another user");
            } else if (errno == EMFILE || errno == ENFILE) {
                (void)await(wake_.get(), POLLIN, kClientTimeoutMs); // the client stays in the backlog
            }
        }
    }

    // A client for whom there is no memory loses its connection.
    void serveAsMemoryAllows(int client) {
        try {
            serve(client);
        } catch (const std::bad_alloc &) {
            errno = ENOMEM;
            logFault(path_, "dropped a client");
        }
    }

    void serve(int client) {
        std::string input;
        while (await(client, POLLIN, kClientTimeoutMs)) {
            char block[4096];
            const ssize_t count = recv(client, block, sizeof block, 0);
            if (count < 0 && (errno == EAGAIN || errno == EINTR)) {
                continue;
            }
            if (count <= 0) {
                return;
            }
            input.append(block, static_cast<size_t>(count));
            if (!answerLines(client, input)) {
                return;
            }
        }
    }

    // Answers the complete lines in input and takes them out; false when the connection is to be closed.
    bool answerLines(int client, std::string &input) {
        size_t end = 0;
        while ((end = input.find('\n')) != std::string::npos && end <= kMaxLine) {
            const std::string answer = handler_(input.substr(0, end)) + "\n";
            input.erase(0, end + 1);
            if (!sendAll(client, answer)) {
                return false;
            }
        }
        if (input.size() > kMaxLine) {
            sendAll(client, "{\"error\":\"the request is longer than 8192 bytes\",\"ok\":false}\n");
            return false;
        }
        return true;
    }

    bool sendAll(int client, const std::string &text) {
        size_t sent = 0;
        while (sent < text.size()) {
            const ssize_t count = send(client, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
            if (count > 0) {
                sent += static_cast<size_t>(count);
            } else if (errno != EINTR && !(errno == EAGAIN && await(client, POLLOUT, kClientTimeoutMs))) {
                return false;
            }
        }
        return true;
    }

    const std::string path_;
    const Descriptor listener_;
    const Descriptor wake_;
    const LineHandler handler_;
    dev_t device_ = 0;
    ino_t inode_ = 0;
    bool stopping_ = false; // touched by the thread only
    std::thread thread_;
};

std::unique_ptr<ControlServer, void (*)(ControlServer *)> startControlServer(const std::string &socket_path,
                                                                             SimTarget &target) {
    return startControlServer(socket_path,
                              [&target](const std::string &line) { return handleControlLine(line, target); });
}

std::unique_ptr<ControlServer, void (*)(ControlServer *)> startControlServer(const std::string &socket_path,
                                                                             LineHandler handler) {
    const auto destroy = [](ControlServer *server) { delete server; };
    try {
        Descriptor listener = listenAt(socket_path);
        Descriptor wake(listener ? eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK) : -1);
        if (wake) {
            auto *const server =
                new ControlServer(socket_path, std::move(listener), std::move(wake), std::move(handler));
            if (server->start()) {
                return {server, destroy};
            }
            logFault(socket_path, "has no thread");
            delete server;
            return {nullptr, destroy};
        }
        logFault(socket_path, "cannot be created");
    } catch (const std::bad_alloc &) {
        errno = ENOMEM;
        logFault(socket_path, "cannot be created");
    }
    return {nullptr, destroy};
}

} // namespace corvane::mesh
