// SPDX-License-Identifier: Apache-2.0
//
// Platform start-up: puts the log settings in force and makes sure that the two folders the layers write to exist and
// can be written, so that a wrong path is one clear line at start and not a puzzle hours later. Runs before the daemon
// forks into the background: no threads, no sockets, no descriptor stays open.
#include "config_internal.h"
#include "oru_init.h"
#include "oru_log_setup.h"
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <sys/stat.h>
#include <unistd.h>

namespace {

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

// Permission bits alone do not tell: read-only mounts, quotas and security modules have their say as well.
bool tryToWrite(const folder_t &folder) {
    const std::string probe = folder.path + "/.corvane-probe-" + std::to_string(getpid());
    const int descriptor = open(probe.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (descriptor < 0) {
        // A full disk is no reason to leave the home without its network: the store waits for space.
        return errno == EEXIST || errno == ENOSPC || errno == EDQUOT;
    }
    (void)close(descriptor);
    (void)unlink(probe.c_str());
    return true;
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

// The folders first: the log file may be meant to lie in one of them. All are tried, so that every mistake is named
// at the first start. Whoever reads standard output and error may go away, which is no reason to die: writing there
// fails instead, and so it must before anything is written.
oru_status_t startUp() {
    (void)std::signal(SIGPIPE, SIG_IGN);
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
