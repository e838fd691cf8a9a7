// SPDX-License-Identifier: Apache-2.0
//
// The listening socket of the service and the question who may connect to it.
#pragma once
#include "oru_status.h"
#include <span>
#include <string>
#include <sys/types.h>
#include <vector>

namespace oipc {

// Owns a file descriptor.
class Fd {
public:
    Fd() = default;
    explicit Fd(int fd) : fd_(fd) {}
    ~Fd() { reset(); }
    Fd(Fd &&other) noexcept : fd_(other.release()) {}
    Fd &operator=(Fd &&other) noexcept {
        reset(other.release());
        return *this;
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int release() {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }
    void reset(int fd = -1);

private:
    int fd_ = -1;
};

struct SocketSettings {
    std::string path{};
    mode_t mode = 0660;
    std::vector<std::string> users{};  // names or numbers; besides root and the service's own user
    std::vector<std::string> groups{}; // names or numbers; the first one becomes the group of the socket
};

// Who may connect: root, the service's own user, the users listed, and members of the groups listed.
struct AccessRules {
    uid_t own_uid = 0;
    std::vector<uid_t> users{};
    std::vector<gid_t> groups{};
};

struct Peer {
    pid_t pid = 0;
    uid_t uid = static_cast<uid_t>(-1);
    gid_t gid = static_cast<gid_t>(-1);
    std::vector<gid_t> groups{}; // supplementary groups of the process
};

// Looks the names up once. A name that the system does not know is logged and gives nobody access.
AccessRules resolveAccess(const SocketSettings &settings);
bool isAllowed(const Peer &peer, const AccessRules &rules);

// Credentials that the kernel noted when the peer connected. False when the kernel does not tell.
bool readPeer(int fd, Peer &peer);

// Binds and listens, non-blocking. A socket file that nobody listens on is replaced. ORU_STATUS_ALREADY_EXISTS when
// another process serves the path, ORU_STATUS_NOT_FOUND when the folder is missing, ORU_STATUS_PARAM_OUT_OF_RANGE when
// the path is too long for a socket address; every failure is logged with its cause.
oru_status_t openListener(const SocketSettings &settings, const AccessRules &rules, Fd &listener);

// Ends both directions and takes what the peer had sent, so that closing does not discard what was sent to the peer.
void shutdownAndDrain(int fd);

} // namespace oipc
