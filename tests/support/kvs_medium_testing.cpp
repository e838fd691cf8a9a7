// SPDX-License-Identifier: Apache-2.0
//
// A default VFS in front of SQLite's own: it opens files with the original and then exchanges the three methods that
// change the medium in a copy of the file's method table.
#include "oru_kvs_testing.h"
#include <array>
#include <atomic>
#include <sqlite3.h>

namespace {

std::atomic<unsigned> first_refused{0};
std::atomic<unsigned> refused_count{0};
std::atomic<int> refusal_code{SQLITE_OK};
std::atomic<unsigned> seen{0};
std::atomic<unsigned> refused{0};

// The main file and its companions have different locking methods, but share those exchanged here.
struct methods_t {
    const sqlite3_io_methods *original;
    sqlite3_io_methods faulty;
};
std::array<methods_t, 4> methods = {};
sqlite3_vfs faulty_vfs = {};
int (*original_open)(sqlite3_vfs *, const char *, sqlite3_file *, int, int *) = nullptr;

bool refuse() {
    const unsigned number = ++seen;
    const bool hit = number >= first_refused && number - first_refused < refused_count;
    refused += hit ? 1 : 0;
    return hit;
}

int faultyWrite(sqlite3_file *file, const void *bytes, int size, sqlite3_int64 offset) {
    return refuse() ? refusal_code.load() : methods[0].original->xWrite(file, bytes, size, offset);
}

int faultyTruncate(sqlite3_file *file, sqlite3_int64 size) {
    return refuse() ? refusal_code.load() : methods[0].original->xTruncate(file, size);
}

int faultySync(sqlite3_file *file, int flags) {
    return refuse() ? refusal_code.load() : methods[0].original->xSync(file, flags);
}

int faultyOpen(sqlite3_vfs *vfs, const char *name, sqlite3_file *file, int flags, int *out_flags) {
    const int code = original_open(vfs, name, file, flags, out_flags);
    for (methods_t &known : methods) {
        if (file->pMethods != nullptr && known.original == nullptr) {
            known = {file->pMethods, *file->pMethods};
            known.faulty.xWrite = faultyWrite;
            known.faulty.xTruncate = faultyTruncate;
            known.faulty.xSync = faultySync;
        }
        if (file->pMethods != nullptr && known.original == file->pMethods) {
            file->pMethods = &known.faulty;
            break;
        }
    }
    return code;
}

} // namespace

void oruKvsTesting_failWrites(unsigned first, unsigned count, int sqlite_code) {
    if (original_open == nullptr) {
        faulty_vfs = *sqlite3_vfs_find(nullptr);
        original_open = faulty_vfs.xOpen;
        faulty_vfs.zName = "corvane-faults";
        faulty_vfs.pNext = nullptr;
        faulty_vfs.xOpen = faultyOpen;
        (void)sqlite3_vfs_register(&faulty_vfs, 1);
    }
    first_refused = first;
    refusal_code = sqlite_code;
    seen = 0;
    refused = 0;
    refused_count = count;
}

unsigned oruKvsTesting_writesSeen() {
    return seen;
}

unsigned oruKvsTesting_writesRefused() {
    return refused;
}
