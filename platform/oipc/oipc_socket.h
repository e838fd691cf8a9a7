// SPDX-License-Identifier: Apache-2.0
//
// The listening socket of the service and the question who may connect to it.
#pragma once
#include "oru_socket_file.h"
#include "oru_status.h"
#include <span>
#include <string>
#include <sys/types.h>
#include <vector>

namespace oipc {

using corvane::base::Descriptor;

struct SocketSettings {
    std::string path{};
    mode_t mode = 0660;                // while nobody is listed but the service's own user and group
    std::vector<std::string> users{};  // names or numbers; besides root and the service's own user
    std::vector<std::string> groups{}; // names or numbers
};

// Who may connect: root, the service's own user, the users listed, and members of the groups listed. The kernel shows
// everybody whom it cannot name here (another user namespace) as its overflow user and group, so these match nobody.
struct AccessRules {
    uid_t own_uid = 0;
    gid_t own_gid = 0;
    uid_t overflow_uid = 65534;
    std::vector<uid_t> users{};
    std::vector<gid_t> groups{};
};

struct Peer {
    pid_t pid = 0;
    uid_t uid = static_cast<uid_t>(-1);
    gid_t gid = static_cast<gid_t>(-1);
    std::vector<gid_t> groups{}; // supplementary groups of the process
};

// Looks the names up once. A name that the system does not know, and one that stands for the overflow user or group,
// is logged and gives nobody access.
AccessRules resolveAccess(const SocketSettings &settings);
bool isAllowed(const Peer &peer, const AccessRules &rules);
bool isOwner(const Peer &peer, const AccessRules &rules); // root or the service's own user

// The file keeps out whom it can. Where others than the service's own user and group are listed it cannot tell, and is
// open to everybody: who gets in is decided by the credentials.
mode_t socketMode(const SocketSettings &settings, const AccessRules &rules);

// Credentials that the kernel noted when the peer connected. False when the kernel does not tell.
bool readPeer(int fd, Peer &peer);

Socket_file_result openListener(const SocketSettings &settings, const AccessRules &rules, Socket_file &listener);
// What went wrong, and what to do. Right after openListener: errno belongs to it.
const char *explain(Socket_file_result result);

// Ends both directions and takes what the peer had sent, so that closing does not discard what was sent to the peer.
void shutdownAndDrain(int fd);

} // namespace oipc
