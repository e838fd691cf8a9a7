// SPDX-License-Identifier: Apache-2.0
//
// Platform start-up: puts the log settings in force and makes sure that the two folders the layers write to exist and
// can be written, so that a wrong path is one clear line at start and not a puzzle hours later. Prepares what belongs
// to the process as a whole: its standard streams, the signals all threads inherit, core dumps. Runs before the daemon
// forks into the background: no threads, no sockets, no further descriptor stays open.
#include "base/descriptor.h"
#include "config_internal.h"
#include "oru_init.h"
#include "oru_log_setup.h"
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <poll.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using corvane::base::Descriptor;

constexpr const char *log_tag = "oru_config";

struct folder_t {
    const std::string &path;
    mode_t mode; // of a folder that start-up creates
    const char *key;
    bool may_wait; // what cannot be written now is no reason to end: the store reads what is there and writes later
};

void reportFolder(const folder_t &folder, const char *what, int error_number) {
    oruConfig_reportError(std::string(folder.key) + " \"" + folder.path + "\" " + what + ": " + strerror(error_number) +
                          "; create it, make it writable for user id " + std::to_string(geteuid()) + ", or set " +
                          folder.key + " in the configuration file");
}

// Creates only the last component: a missing parent is more likely a spelling mistake than a wish.
bool createMissing(const folder_t &folder) {
    if (mkdir(folder.path.c_str(), folder.mode) == 0) {
        // mkdir applied the umask; clients of other users must be able to enter the socket folder.
        return chmod(folder.path.c_str(), folder.mode) == 0;
    }
    return errno == EEXIST;
}

// Where there are no files without a name: one with a name, which an earlier start may have left behind.
bool tryToWriteNamed(const std::string &path) {
    const Descriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    return file && unlink(path.c_str()) == 0;
}

// Permission bits alone do not tell: read-only mounts, quotas and security modules have their say as well.
bool tryToWrite(const folder_t &folder) {
    if (const Descriptor file(open(folder.path.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600)); file) {
        return true;
    }
    // A full disk is no reason to leave the home without its network: the store waits for space.
    return tryToWriteNamed(folder.path + "/.corvane-probe") || errno == ENOSPC || errno == EDQUOT;
}

oru_status_t prepareFolder(const folder_t &folder) {
    if (!createMissing(folder)) {
        reportFolder(folder, "cannot be created", errno);
        return ORU_STATUS_GENERAL_ERROR;
    }
    struct stat info = {};
    if (stat(folder.path.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
        reportFolder(folder, "is not a folder", ENOTDIR);
        return ORU_STATUS_GENERAL_ERROR;
    }
    if (!tryToWrite(folder)) {
        reportFolder(folder, "cannot be written", errno);
        return folder.may_wait ? ORU_STATUS_OK : ORU_STATUS_GENERAL_ERROR;
    }
    return ORU_STATUS_OK;
}

oru_status_t applyLogSettings(const oruConfig_t &config) {
    oruLog_config_t log;
    switch (config.log_sink) {
    case oruConfig_log_sink_t::STANDARD_ERROR:
        log.sink = oruLog_config_t::sink_t::standard_error;
        break;
    case oruConfig_log_sink_t::SYSTEM_LOG:
        log.sink = oruLog_config_t::sink_t::syslog;
        break;
    case oruConfig_log_sink_t::LOG_FILE:
        log.sink = oruLog_config_t::sink_t::file;
        break;
    }
    log.level = config.log_level;
    log.file = config.log_file;
    log.max_file_bytes = size_t{config.log_max_size_kib} * 1024;
    log.max_files = config.log_max_files;
    std::string error;
    const oru_status_t status = oruLog_configure(log, &error);
    if (status != ORU_STATUS_OK) {
        oruConfig_reportError("the log cannot be set up: " + error + "; check the [log] settings");
    }
    return status;
}

// A descriptor below 3 that is closed would be given to the next file, and log lines or messages written into it.
void openMissingStreams() {
    for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
        if (fcntl(descriptor, F_GETFD) < 0 && open("/dev/null", O_RDWR) < 0) {
            return;
        }
    }
}

bool mayWait(int stream) {
    struct stat info = {};
    const int mode = fcntl(stream, F_GETFL);
    return mode >= 0 && (mode & O_ACCMODE) != O_RDONLY && (mode & O_NONBLOCK) == 0 && fstat(stream, &info) == 0 &&
           !S_ISREG(info.st_mode);
}

bool hasRoom(int stream) {
    pollfd room = {stream, POLLOUT, 0};
    return poll(&room, 1, 0) != 0;
}

// The mode of a descriptor is shared with other programs, the shell for one; so the stream gets an opening of its own.
// What cannot be opened once more, a socket for example, stays as it is: the log takes care of standard error, and on
// standard output there are only a few lines, which need some room once.
void neverWaitForReader(int stream) {
    if (!mayWait(stream)) {
        return;
    }
    const std::string name = "/proc/self/fd/" + std::to_string(stream);
    int opened = open(name.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (opened < 0 && stream == STDOUT_FILENO && !hasRoom(stream)) {
        opened = open("/dev/null", O_WRONLY | O_CLOEXEC);
    }
    if (opened >= 0) {
        (void)dup2(opened, stream);
        (void)close(opened);
    }
}

// Whoever reads standard output and error may go away, which is no reason to die: writing there fails instead. SIGHUP
// is for the log alone, so every thread inherits that it is blocked; a handler keeps it from being ignored.
void prepareSignals() {
    (void)std::signal(SIGPIPE, SIG_IGN);
    (void)std::signal(SIGHUP, [](int) {});
    sigset_t hang_up;
    sigemptyset(&hang_up);
    sigaddset(&hang_up, SIGHUP);
    (void)pthread_sigmask(SIG_BLOCK, &hang_up, nullptr);
}

// Memory holds the keys of the home.
void forbidCoreDumps() {
    const rlimit none = {0, 0};
    (void)setrlimit(RLIMIT_CORE, &none);
}

// The folders first: the log file may be meant to lie in one of them. All are tried, so that every mistake is named
// at the first start.
oru_status_t startUp() {
    oruConfig_prepareStreams();
    prepareSignals();
    forbidCoreDumps();
    const oruConfig_t &config = oruConfig_get();
    const folder_t state = {config.state_directory, 0700, "store.directory", true};
    const folder_t runtime = {config.runtime_directory, 0755, "ipc.directory", false};
    oru_status_t result = ORU_STATUS_OK;
    for (const oru_status_t status : {prepareFolder(state), prepareFolder(runtime), applyLogSettings(config)}) {
        result = result == ORU_STATUS_OK ? status : result;
    }
    return result;
}

oru_status_t guardedStartUp() {
    try {
        return startUp();
    } catch (const std::bad_alloc &) {
        return ORU_STATUS_OUT_OF_MEMORY;
    }
}

} // namespace

void oruConfig_prepareStreams() {
    openMissingStreams();
    neverWaitForReader(STDOUT_FILENO);
    neverWaitForReader(STDERR_FILENO);
}

// The log is still at its default here, standard error, so that whoever starts the daemon sees the line.
void oruConfig_reportError(std::string text) {
    for (char &c : text) {
        c = static_cast<unsigned char>(c) < 0x20 || c == 0x7F ? '?' : c;
    }
    oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_ERROR, log_tag, "%s", text.c_str());
}

extern "C" oru_status_t oru_init(void) {
    return guardedStartUp();
}

extern "C" oru_status_t oru_initWithConfig(const oruUserConfig_config_t *config) {
    if (config == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    if (config->version != 1) {
        return ORU_STATUS_BAD_PARAM;
    }
    if (config->thread_prio != nullptr) {
        oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_WARN, log_tag,
                   "the thread priorities of the configuration are valid but have no effect: all threads run with the "
                   "priority of the process");
    }
    return guardedStartUp();
}
