// SPDX-License-Identifier: Apache-2.0
#include "oipc_socket.h"
#include "oipc_log.h"
#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fcntl.h>
#include <grp.h>
#include <optional>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace oipc {

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

// The kernel's number for users or groups that have none here. Where a sandbox hides /proc/sys, the kernel's default.
uint32_t overflowId(const char *file) {
    const Descriptor source(::open(file, O_RDONLY | O_CLOEXEC));
    std::array<char, 16> text{};
    const ssize_t size = source ? ::read(source.get(), text.data(), text.size()) : 0;
    const auto number = parseNumber(std::string(text.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 1)) - 1));
    return number.value_or(65534);
}

template <class Id>
std::vector<Id> resolve(const char *kind, const std::vector<std::string> &names,
                        std::optional<Id> (*find)(const std::string &), Id overflow) {
    std::vector<Id> ids;
    for (const auto &name : names) {
        const auto id = find(name);
        if (id && *id != overflow) {
            ids.push_back(*id);
            continue;
        }
        OIPC_LOG(ORU_LOG_WARN, "%s %s %s and gets no access", kind, name.c_str(),
                 id ? "is what the kernel calls everybody it cannot name" : "is not known on this system");
    }
    return ids;
}

} // namespace

AccessRules resolveAccess(const SocketSettings &settings) {
    AccessRules rules;
    rules.own_uid = ::geteuid();
    rules.own_gid = ::getegid();
    rules.overflow_uid = overflowId("/proc/sys/kernel/overflowuid");
    rules.users = resolve("user", settings.users, userId, rules.overflow_uid);
    rules.groups = resolve("group", settings.groups, groupId, overflowId("/proc/sys/kernel/overflowgid"));
    return rules;
}

bool isOwner(const Peer &peer, const AccessRules &rules) {
    return peer.uid == 0 || (peer.uid == rules.own_uid && peer.uid != rules.overflow_uid);
}

bool isAllowed(const Peer &peer, const AccessRules &rules) {
    if (isOwner(peer, rules) || std::ranges::find(rules.users, peer.uid) != rules.users.end()) {
        return true;
    }
    return std::ranges::any_of(rules.groups, [&](gid_t gid) {
        return peer.gid == gid || std::ranges::find(peer.groups, gid) != peer.groups.end();
    });
}

mode_t socketMode(const SocketSettings &settings, const AccessRules &rules) {
    const bool others = std::ranges::any_of(rules.users, [&](uid_t uid) { return uid != 0 && uid != rules.own_uid; }) ||
                        std::ranges::any_of(rules.groups, [&](gid_t gid) { return gid != rules.own_gid; });
    return others ? mode_t{0666} : settings.mode;
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

Socket_file_result openListener(const SocketSettings &settings, const AccessRules &rules, Socket_file &listener) {
    return listener.open(settings.path, SOCK_SEQPACKET, socketMode(settings, rules), BACKLOG);
}

const char *explain(Socket_file_result result) {
    switch (result) {
    case Socket_file_result::bad_path:
        return "the path is too long for a socket";
    case Socket_file_result::busy:
        return "another process is just opening it";
    case Socket_file_result::not_a_socket:
        return "the file there is not a socket, remove it or choose another runtime directory";
    case Socket_file_result::served:
        return "another process serves it already, stop that one first";
    case Socket_file_result::ok:
    case Socket_file_result::no_folder:
    case Socket_file_result::failed:
        break;
    }
    return std::strerror(errno);
}

void shutdownAndDrain(int fd) {
    ::shutdown(fd, SHUT_RDWR);
    std::array<char, 1> byte{};
    while (::recv(fd, byte.data(), byte.size(), MSG_DONTWAIT) > 0) {
    }
}

} // namespace oipc
