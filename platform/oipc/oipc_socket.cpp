// SPDX-License-Identifier: Apache-2.0
#include "oipc_socket.h"
#include "oipc_log.h"
#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <grp.h>
#include <optional>
#include <pwd.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace oipc {

void Fd::reset(int fd) {
    if (fd_ >= 0) {
        ::close(fd_);
    }
    fd_ = fd;
}

namespace {

constexpr int BACKLOG = 16;

std::optional<uint32_t> parseNumber(const std::string &text) {
    uint32_t number = 0;
    const char *end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    return error == std::errc{} && stop == end && !text.empty() ? std::optional(number) : std::nullopt;
}

// The reentrant look-ups of users and groups have the same shape: a record, and room for its texts.
template <class Record, class Call>
std::optional<Record> lookUp(Call call) {
    std::vector<char> room(1024);
    for (;;) {
        Record record{};
        Record *found = nullptr;
        const int error = call(&record, room.data(), room.size(), &found);
        if (error != ERANGE) {
            return error == 0 && found != nullptr ? std::optional(record) : std::nullopt;
        }
        room.resize(room.size() * 2);
    }
}

std::optional<uid_t> userId(const std::string &name) {
    if (const auto number = parseNumber(name)) {
        return *number;
    }
    const auto found = lookUp<passwd>([&](passwd *record, char *room, std::size_t size, passwd **result) {
        return ::getpwnam_r(name.c_str(), record, room, size, result);
    });
    return found ? std::optional(found->pw_uid) : std::nullopt;
}

std::optional<gid_t> groupId(const std::string &name) {
    if (const auto number = parseNumber(name)) {
        return *number;
    }
    const auto found = lookUp<group>([&](group *record, char *room, std::size_t size, group **result) {
        return ::getgrnam_r(name.c_str(), record, room, size, result);
    });
    return found ? std::optional(found->gr_gid) : std::nullopt;
}

bool makeAddress(const std::string &path, sockaddr_un &address) {
    address = {};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) {
        OIPC_LOG(ORU_LOG_ERROR, "socket path %s is too long, %zu bytes are possible", path.c_str(),
                 sizeof address.sun_path - 1);
        return false;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return true;
}

const sockaddr *generic(const sockaddr_un &address) {
    return reinterpret_cast<const sockaddr *>(&address);
}

bool isServed(const sockaddr_un &address) {
    const Fd probe(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    // A full backlog (EAGAIN) also means that somebody listens.
    return ::connect(probe.get(), generic(address), sizeof address) == 0 || errno == EAGAIN;
}

oru_status_t removeStale(const sockaddr_un &address) {
    struct stat info {};
    if (::lstat(address.sun_path, &info) != 0) {
        return ORU_STATUS_OK;
    }
    if (!S_ISSOCK(info.st_mode)) {
        OIPC_LOG(ORU_LOG_ERROR, "%s exists and is not a socket, remove it or choose another runtime directory",
                 address.sun_path);
        return ORU_STATUS_ALREADY_EXISTS;
    }
    if (isServed(address)) {
        OIPC_LOG(ORU_LOG_ERROR, "another process already serves %s, stop it first", address.sun_path);
        return ORU_STATUS_ALREADY_EXISTS;
    }
    OIPC_LOG(ORU_LOG_INFO, "replacing the stale socket %s", address.sun_path);
    ::unlink(address.sun_path);
    return ORU_STATUS_OK;
}

// Between bind and listen nobody can connect, so the permissions are in place before the first client.
oru_status_t bindAndListen(int fd, const sockaddr_un &address, const SocketSettings &settings,
                           const AccessRules &rules) {
    if (::bind(fd, generic(address), sizeof address) != 0) {
        OIPC_LOG(ORU_LOG_ERROR, "cannot create socket %s: %s", address.sun_path, std::strerror(errno));
        return ORU_STATUS_GENERAL_ERROR;
    }
    if (!rules.groups.empty() && ::chown(address.sun_path, static_cast<uid_t>(-1), rules.groups.front()) != 0) {
        OIPC_LOG(ORU_LOG_WARN, "cannot give socket %s to group %u, its members may be unable to connect: %s",
                 address.sun_path, static_cast<unsigned>(rules.groups.front()), std::strerror(errno));
    }
    if (::chmod(address.sun_path, settings.mode) != 0 || ::listen(fd, BACKLOG) != 0) {
        OIPC_LOG(ORU_LOG_ERROR, "cannot listen on socket %s: %s", address.sun_path, std::strerror(errno));
        ::unlink(address.sun_path);
        return ORU_STATUS_GENERAL_ERROR;
    }
    return ORU_STATUS_OK;
}

} // namespace

AccessRules resolveAccess(const SocketSettings &settings) {
    AccessRules rules;
    rules.own_uid = ::geteuid();
    for (const auto &name : settings.users) {
        if (const auto id = userId(name)) {
            rules.users.push_back(*id);
        } else {
            OIPC_LOG(ORU_LOG_WARN, "user %s is not known on this system and gets no access", name.c_str());
        }
    }
    for (const auto &name : settings.groups) {
        if (const auto id = groupId(name)) {
            rules.groups.push_back(*id);
        } else {
            OIPC_LOG(ORU_LOG_WARN, "group %s is not known on this system and gets no access", name.c_str());
        }
    }
    return rules;
}

bool isAllowed(const Peer &peer, const AccessRules &rules) {
    if (peer.uid == 0 || peer.uid == rules.own_uid) {
        return true;
    }
    if (std::ranges::find(rules.users, peer.uid) != rules.users.end()) {
        return true;
    }
    return std::ranges::any_of(rules.groups, [&](gid_t gid) {
        return peer.gid == gid || std::ranges::find(peer.groups, gid) != peer.groups.end();
    });
}

bool readPeer(int fd, Peer &peer) {
    ucred credentials{};
    socklen_t size = sizeof credentials;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) {
        return false;
    }
    peer.pid = credentials.pid;
    peer.uid = credentials.uid;
    peer.gid = credentials.gid;
    // The groups the process really has; asking the user database could block the caller.
    peer.groups.resize(64);
    for (int attempt = 0; attempt < 2; ++attempt) {
        size = static_cast<socklen_t>(peer.groups.size() * sizeof(gid_t));
        const int result = ::getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, peer.groups.data(), &size);
        const std::size_t count = size / sizeof(gid_t);
        if (result == 0) {
            peer.groups.resize(count);
            return true;
        }
        peer.groups.resize(errno == ERANGE ? count : 0);
    }
    peer.groups.clear();
    return true;
}

oru_status_t openListener(const SocketSettings &settings, const AccessRules &rules, Fd &listener) {
    sockaddr_un address{};
    if (!makeAddress(settings.path, address)) {
        return ORU_STATUS_PARAM_OUT_OF_RANGE;
    }
    // The lock on the folder covers the time between finding a socket stale and listening on the new one, so that two
    // processes that start together cannot remove each other's socket.
    const auto folder = std::filesystem::path(settings.path).parent_path();
    const Fd lock(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!lock) {
        OIPC_LOG(ORU_LOG_ERROR, "cannot open the folder of socket %s: %s", settings.path.c_str(), std::strerror(errno));
        return errno == ENOENT || errno == ENOTDIR ? ORU_STATUS_NOT_FOUND : ORU_STATUS_GENERAL_ERROR;
    }
    if (::flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
        OIPC_LOG(ORU_LOG_ERROR, "another process is just opening a socket in %s", folder.c_str());
        return ORU_STATUS_BUSY;
    }
    if (const auto status = removeStale(address); status != ORU_STATUS_OK) {
        return status;
    }
    Fd fd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const auto status = bindAndListen(fd.get(), address, settings, rules);
    if (status == ORU_STATUS_OK) {
        listener = std::move(fd);
    }
    return status;
}

void shutdownAndDrain(int fd) {
    ::shutdown(fd, SHUT_RDWR);
    std::array<char, 1> byte{};
    while (::recv(fd, byte.data(), byte.size(), MSG_DONTWAIT) > 0) {
    }
}

} // namespace oipc
