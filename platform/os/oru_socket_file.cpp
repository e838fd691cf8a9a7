// SPDX-License-Identifier: Apache-2.0
#include "oru_socket_file.h"
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

namespace {

using corvane::base::Descriptor;
using Result = Socket_file_result;

static_assert(sizeof sockaddr_un::sun_path == Socket_file::longest_path + 1);

bool isSameFile(const struct stat &one, const struct stat &other) {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

// Held from finding a name free to listening under it, or two processes that start together would remove each other's
// socket. A file of its own, because anybody who can open a folder can lock it. It is removed before it is let go, so
// that none lies about that another user could not open; who meets it in that moment tries again.
class Name_lock {
public:
    explicit Name_lock(const std::string &path) : path_(path + ".lock") {}
    ~Name_lock() {
        if (held_) {
            ::unlink(path_.c_str());
        }
    }
    Name_lock(const Name_lock &) = delete;
    Name_lock &operator=(const Name_lock &) = delete;

    Result take() {
        Result result = Result::busy;
        for (int attempt = 0; attempt < 10 && result == Result::busy; ++attempt) {
            result = tryToTake();
        }
        held_ = result == Result::ok;
        return result;
    }

private:
    Result tryToTake() {
        file_ = Descriptor(::open(path_.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (!file_) {
            return errno == ENOENT || errno == ENOTDIR ? Result::no_folder : Result::failed;
        }
        if (::flock(file_.get(), LOCK_EX | LOCK_NB) != 0) {
            return errno == EWOULDBLOCK ? Result::busy : Result::failed;
        }
        struct stat locked {
        }, named{};
        const bool current = ::fstat(file_.get(), &locked) == 0 && ::lstat(path_.c_str(), &named) == 0;
        return current && isSameFile(locked, named) ? Result::ok : Result::busy;
    }

    const std::string path_;
    Descriptor file_;
    bool held_ = false;
};

sockaddr_un addressOf(const std::string &path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return address;
}

// Refused is the one answer that means that nobody listens. A full backlog, a socket of another type or one that may
// not be opened belong to somebody.
bool isStale(const sockaddr_un &address, int type) {
    const Descriptor probe(::socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    return probe && ::connect(probe.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 &&
           errno == ECONNREFUSED;
}

Result freeName(const std::string &path, int type) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0) {
        return errno == ENOENT ? Result::ok : Result::failed;
    }
    if (!S_ISSOCK(info.st_mode)) {
        return Result::not_a_socket;
    }
    if (!isStale(addressOf(path), type)) {
        return Result::served;
    }
    return ::unlink(path.c_str()) == 0 || errno == ENOENT ? Result::ok : Result::failed;
}

} // namespace

Socket_file &Socket_file::operator=(Socket_file &&other) noexcept {
    close();
    path_ = std::move(other.path_);
    listener_ = std::move(other.listener_);
    device_ = other.device_;
    inode_ = other.inode_;
    return *this;
}

Result Socket_file::open(const std::string &path, int type, mode_t mode, int backlog) {
    if (path.empty() || path.size() > longest_path) {
        return Result::bad_path;
    }
    close();
    Name_lock lock(path);
    Result result = lock.take();
    if (result == Result::ok) {
        result = freeName(path, type);
    }
    if (result == Result::ok) {
        path_ = path;
        result = bindAndListen(type, mode, backlog);
    }
    if (result != Result::ok) {
        const int reason = errno;
        close();
        errno = reason;
    }
    return result;
}

// Nobody can connect before listen, so the mode is in place before the first client.
Result Socket_file::bindAndListen(int type, mode_t mode, int backlog) {
    const sockaddr_un address = addressOf(path_);
    Descriptor socket(::socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket || ::bind(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        return Result::failed;
    }
    listener_ = std::move(socket); // from here on close() removes the name
    struct stat info {};
    if (::lstat(path_.c_str(), &info) != 0) {
        return Result::failed;
    }
    device_ = info.st_dev;
    inode_ = info.st_ino;
    const bool listening = ::chmod(path_.c_str(), mode) == 0 && ::listen(listener_.get(), backlog) == 0;
    return listening ? Result::ok : Result::failed;
}

void Socket_file::close() {
    if (listener_ && isInPlace()) { // while it listens, nobody takes the name for free
        ::unlink(path_.c_str());
    }
    listener_.reset();
}

bool Socket_file::isInPlace() const {
    struct stat info {};
    return ::lstat(path_.c_str(), &info) == 0 && info.st_dev == device_ && info.st_ino == inode_;
}
