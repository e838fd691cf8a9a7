// SPDX-License-Identifier: Apache-2.0
//
// A Unix socket that listens under a name in the file system, inside the platform only. What a process that has ended
// left under the name is replaced; what somebody else serves, and what is no socket, is never touched, neither when the
// socket is opened nor when it is closed. Not for several threads at a time.
#pragma once
#include "base/descriptor.h"
#include <string>
#include <sys/types.h>

enum class Socket_file_result {
    ok,
    bad_path,     // empty, or too long for a socket address
    no_folder,    // errno says why
    busy,         // another process is opening a socket of this name at this moment
    not_a_socket, // the name belongs to something else, which is left alone
    served,       // by another process, or nobody can tell
    failed,       // errno says why
};

class Socket_file {
public:
    static constexpr size_t longest_path = 107; // bytes

    Socket_file() = default;
    ~Socket_file() { close(); }
    Socket_file(Socket_file &&) noexcept = default;
    Socket_file &operator=(Socket_file &&other) noexcept;

    // Binds and listens; non-blocking, close-on-exec. The file has `mode` whatever the umask is, before the first
    // client can connect. `type` is SOCK_STREAM or SOCK_SEQPACKET. While it runs, a file `<path>.lock` of mode 0600
    // keeps other processes of the same user from doing the same.
    Socket_file_result open(const std::string &path, int type, mode_t mode, int backlog);
    // Removes the name if it still leads here, then stops listening.
    void close();

    int get() const { return listener_.get(); }
    // False when somebody has removed or replaced the file: nobody can connect any more.
    bool isInPlace() const;

private:
    Socket_file_result bindAndListen(int type, mode_t mode, int backlog);

    std::string path_;
    corvane::base::Descriptor listener_;
    // Of the file. The bound socket keeps the inode, so that no other file gets its number.
    dev_t device_ = 0;
    ino_t inode_ = 0;
};
