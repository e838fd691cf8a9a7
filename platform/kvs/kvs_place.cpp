// SPDX-License-Identifier: Apache-2.0
//
// Where the files of the store are: the lock of their folder, files that are moved, deleted or replaced while they are
// open, and the copy that a medium on which nothing can be written is read from.
#include "kvs_database.h"
#include "oru_log.h"
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace {

using corvane::base::Descriptor;

enum class place_t : uint8_t {
    kept,
    lost,     // one of the names is gone, or leads to another file: what is written is gone with the connection
    replaced, // the database itself is another file now, perhaps a backup that was restored
    unknown,  // errno says why
};

place_t placeOf(const kvsDatabase_t &database) {
    constexpr std::array<const char *, 3> suffixes = {"", "-wal", "-shm"};
    for (size_t i = 0; i < suffixes.size(); i++) {
        struct stat file = {};
        const bool there = stat((database.path + suffixes[i]).c_str(), &file) == 0;
        if (!there && errno != ENOENT) {
            return place_t::unknown;
        }
        const bool ours = there && kvsFileId_t{file.st_dev, file.st_ino} == database.files[i];
        if (!ours && database.files[i].inode != 0) {
            return i == 0 && there ? place_t::replaced : place_t::lost;
        }
    }
    return place_t::kept;
}

// The connection still has everything, whatever became of the names.
kvsResult_t saveAsNew(kvsDatabase_t &database) {
    const std::string target = database.path + ".new";
    (void)unlink(target.c_str()); // left over from a crash, and rarely there
    kvsResult_t result = kvsFile_create(target);
    if (!result.ok()) {
        return result;
    }
    sqlite3_stmt *raw = nullptr;
    sqlite3 *const connection = database.connection.get();
    (void)sqlite3_prepare_v2(connection, "VACUUM INTO ?1", -1, &raw, nullptr); // null on failure, stepping fails then
    const kvsStatement_t statement(raw);
    (void)sqlite3_bind_text(raw, 1, target.data(), static_cast<int>(target.size()), SQLITE_STATIC);
    if (sqlite3_step(raw) != SQLITE_DONE) {
        return kvsConnection_failure(connection, "cannot write", target);
    }
    const Descriptor file(open(target.c_str(), O_RDWR | O_CLOEXEC));
    const bool synced = file && fsync(file.get()) == 0;
    return synced ? kvsResult_t{} : kvsSystemFailure("cannot write", target, errno);
}

kvsResult_t writeBack(kvsDatabase_t &database) {
    kvsResult_t result = saveAsNew(database);
    std::string aside;
    if (result.ok()) {
        result = kvsRebuild_replace(database.path, aside);
    }
    if (!result.ok()) {
        return {KVS_MOVED, database.path + " was moved or deleted while in use, and " + result.text};
    }
    kvsDatabase_close(database);
    oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_ERROR, kvs_log_tag,
               "store: %s or a file beside it was moved or deleted while in use; all of it was written back%s%s",
               database.path.c_str(), aside.empty() ? "" : ", what had its name is now ", aside.c_str());
    return {};
}

bool sameFile(int descriptor, const std::string &path) {
    struct stat held = {};
    return fstat(descriptor, &held) == 0 && kvsFileId_t{held.st_dev, held.st_ino} == kvsFile_id(path);
}

// Read-only, or so full that not even an empty file fits.
bool cannotBeWritten(int error_number) {
    return error_number == EROFS || error_number == ENOSPC || error_number == EDQUOT;
}

kvsResult_t lock(int descriptor, const std::string &directory) {
    if (flock(descriptor, LOCK_EX | LOCK_NB) == 0) {
        return {};
    }
    if (errno == EWOULDBLOCK) {
        return {KVS_FOLDER_IN_USE, "another process uses the folder " + directory +
                                       " (it holds corvane.lock); stop it or set another store.directory"};
    }
    oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_WARN, kvs_log_tag,
               "store: the folder %s cannot be locked; make sure that no second corvane uses it", directory.c_str());
    return {};
}

} // namespace

kvsFileId_t kvsFile_id(const std::string &path) {
    struct stat file = {};
    return stat(path.c_str(), &file) == 0 ? kvsFileId_t{file.st_dev, file.st_ino} : kvsFileId_t{};
}

kvsResult_t kvsPlace_keep(kvsDatabase_t &database) {
    switch (placeOf(database)) {
    case place_t::kept:
        return {};
    case place_t::lost:
        return writeBack(database);
    case place_t::replaced:
        return {KVS_REPLACED, database.path + " was replaced by another file while in use, and nothing is written to "
                                              "that one; restart corvane to use it"};
    case place_t::unknown:
        break;
    }
    return kvsSystemFailure("cannot read", database.path, errno);
}

kvsResult_t kvsLock_take(Descriptor &held, const std::string &directory) {
    const std::string path = directory + "/corvane.lock";
    if (held && sameFile(held.get(), path)) {
        return {};
    }
    Descriptor taken(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (!taken && cannotBeWritten(errno)) {
        taken.reset(open(path.c_str(), O_RDONLY | O_CLOEXEC));
        if (!taken && (errno == ENOENT || cannotBeWritten(errno))) {
            return {};
        }
    }
    kvsResult_t result = taken ? lock(taken.get(), directory) : kvsSystemFailure("cannot open", path, errno);
    if (result.ok()) {
        held = std::move(taken); // the former one locks a file that has lost its name
    }
    return result;
}

kvsResult_t kvsCopy_open(kvsDatabase_t &database, const std::string &directory, const std::string &scratch) {
    namespace fs = std::filesystem;
    const std::string original = directory + "/corvane.db";
    const bool repaired = kvsFile_id(original + ".repaired").inode != 0; // takes the name when it can
    std::error_code error;
    fs::remove_all(scratch, error);
    fs::create_directory(scratch, error);
    fs::permissions(scratch, fs::perms::owner_all, error);
    fs::copy_file(repaired ? original + ".repaired" : original, scratch + "/corvane.db", error);
    if (!error && !repaired && kvsFile_id(original + "-wal").inode != 0) {
        fs::copy_file(original + "-wal", scratch + "/corvane.db-wal", error);
    }
    if (error) {
        return kvsSystemFailure("cannot copy", original, error.value());
    }
    const kvsSetAside_t before = kvs_set_aside;
    const kvsResult_t result = kvsDatabase_open(database, scratch, 0);
    kvs_set_aside = before; // what is damaged is so in the original, which is still there
    database.copy = true;
    if (!result.ok()) {
        kvsDatabase_close(database);
    }
    return result;
}
