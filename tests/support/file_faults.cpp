// SPDX-License-Identifier: Apache-2.0
//
// The linker puts these in front of the C library's, for shared libraries too. No header that declares one of them with
// other attributes may come in.
#include "file_faults.h"
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstring>
#include <dlfcn.h>
#include <sys/types.h>

extern "C" [[noreturn]] void _exit(int);

namespace {

constexpr int any_write = 03 | 0100; // O_ACCMODE, O_CREAT
std::atomic<unsigned> calls{0}, changes{0}, failures{0}, first_failing{0}, failing_count{0}, deadly{0};
std::atomic<unsigned> openings_left{0};
std::atomic<int> failing_error{0};
std::atomic<const char *> open_end{nullptr}, below{nullptr};

bool fail() {
    ++failures;
    errno = failing_error;
    return true;
}

bool refuses(bool change, const char *path = nullptr) {
    if (change && ++changes == deadly) {
        _exit(42);
    }
    const unsigned number = ++calls;
    if (failing_count > 0 && number >= first_failing && number - first_failing < failing_count) {
        return fail();
    }
    const char *const part = below;
    return change && path != nullptr && part != nullptr && strstr(path, part) != nullptr && fail();
}

bool refusesOpening(const char *path, int flags) {
    const char *const end = open_end;
    const size_t length = strlen(path);
    if (end != nullptr && (flags & any_write) != 0 && openings_left > 0 && length >= strlen(end) &&
        strcmp(path + length - strlen(end), end) == 0) {
        --openings_left;
        return fail();
    }
    return refuses((flags & any_write) != 0, path);
}

template <typename Function>
Function *real(const char *name) {
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

} // namespace

namespace filefaults {
void off() {
    calls = changes = failures = first_failing = failing_count = deadly = openings_left = 0;
    open_end = below = nullptr;
}
void failCalls(unsigned first, unsigned count, int error) {
    off();
    failing_error = error;
    first_failing = first;
    failing_count = count;
}
void failOpening(const char *end, unsigned count, int error) {
    off();
    failing_error = error;
    openings_left = count;
    open_end = end;
}
void failChangesBelow(const char *part, int error) {
    off();
    failing_error = error;
    below = part;
}
void dieBeforeChange(unsigned nth) {
    off();
    deadly = nth;
}
unsigned failed() {
    return failures;
}
} // namespace filefaults

#define OPEN(name)                                                                                                     \
    int name(const char *path, int flags, ...) {                                                                       \
        va_list arguments;                                                                                             \
        va_start(arguments, flags);                                                                                    \
        const mode_t mode = va_arg(arguments, mode_t);                                                                 \
        va_end(arguments);                                                                                             \
        static auto *const next = real<int(const char *, int, ...)>(#name);                                            \
        return refusesOpening(path, flags) ? -1 : next(path, flags, mode);                                             \
    }
#define CALL(result, name, change, path, parameters, arguments)                                                        \
    result name parameters {                                                                                           \
        static auto *const next = real<result parameters>(#name);                                                      \
        return refuses(change, path) ? -1 : next arguments;                                                            \
    }

extern "C" {
OPEN(open)
OPEN(open64)
CALL(int, stat, false, nullptr, (const char *path, void *file), (path, file))
CALL(int, stat64, false, nullptr, (const char *path, void *file), (path, file))
CALL(int, access, false, nullptr, (const char *path, int mode), (path, mode))
CALL(int, rename, true, path, (const char *path, const char *to), (path, to))
CALL(int, link, true, path, (const char *path, const char *to), (path, to))
CALL(int, unlink, true, path, (const char *path), (path))
CALL(int, ftruncate, true, nullptr, (int fd, off_t size), (fd, size))
CALL(int, ftruncate64, true, nullptr, (int fd, off_t size), (fd, size))
CALL(int, fsync, true, nullptr, (int fd), (fd))
CALL(int, fdatasync, true, nullptr, (int fd), (fd))
CALL(int, flock, false, nullptr, (int fd, int operation), (fd, operation))
CALL(ssize_t, pread64, false, nullptr, (int fd, void *to, size_t size, off_t at), (fd, to, size, at))
CALL(ssize_t, write, true, nullptr, (int fd, const void *from, size_t size), (fd, from, size))
CALL(ssize_t, pwrite64, true, nullptr, (int fd, const void *from, size_t size, off_t at), (fd, from, size, at))
CALL(ssize_t, sendfile, true, nullptr, (int to, int from, off_t *at, size_t size), (to, from, at, size))
}
