// SPDX-License-Identifier: Apache-2.0
//
// The log: makes one text of each call on the caller's stack, without a lock, and hands it to the writer.
#include "log_sinks.h"
#include "log_writer.h"
#include "oru_log_setup.h"
#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <span>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr const char *syslog_socket = "/dev/log";
constexpr Log_writer::Milliseconds exit_limit{1000};

constinit std::atomic<int32_t> minimum_level{ORU_LOG_INFO};

// The journal tells its streams in the environment, which children inherit whatever became of their descriptors.
bool isJournal(int descriptor) {
    const char *stream = std::getenv("JOURNAL_STREAM"); // NOLINT(concurrency-mt-unsafe): start-up
    unsigned long long device = 0;
    unsigned long long inode = 0;
    struct stat status {};
    return stream != nullptr && std::sscanf(stream, "%llu:%llu", &device, &inode) == 2 &&
           fstat(descriptor, &status) == 0 && status.st_dev == device && status.st_ino == inode;
}

std::unique_ptr<Line_sink> standardError() {
    Descriptor_sink::Look look;
    look.coloured = isatty(STDERR_FILENO) == 1 && std::getenv("NO_COLOR") == nullptr;
    look.priorities = isJournal(STDERR_FILENO);
    return std::make_unique<Descriptor_sink>(STDERR_FILENO, look);
}

void finishLog();

// Never destroyed: other threads log while the process exits.
Log_writer &theLog() {
    static Log_writer *const log = [] {
        auto *writer = new Log_writer(standardError());
        (void)std::atexit(finishLog);
        return writer;
    }();
    return *log;
}

void finishLog() {
    theLog().finish(exit_limit);
}

// Default action afterwards; the mask of the handler lets it wait for the end of this one.
void onCrash(int signal_number) {
    theLog().waitAfterCrash();
    (void)raise(signal_number);
}

// The last lines before a crash are the ones that matter. Whoever has a handler of his own keeps it.
void catchCrashes() {
    for (const int number : {SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL}) {
        struct sigaction former {};
        struct sigaction action {};
        action.sa_handler = onCrash;
        action.sa_flags = static_cast<int>(SA_RESETHAND);
        if (sigaction(number, nullptr, &former) == 0 && former.sa_handler == SIG_DFL) {
            (void)sigaction(number, &action, nullptr);
        }
    }
}

std::unique_ptr<Line_sink> makeSink(const oruLog_config_t &config) {
    switch (config.sink) {
    case oruLog_config_t::sink_t::standard_error:
        return standardError();
    case oruLog_config_t::sink_t::syslog:
        return std::make_unique<Syslog_sink>(syslog_socket);
    case oruLog_config_t::sink_t::file:
        return std::make_unique<File_sink>(config.file, config.max_file_bytes, config.max_files);
    }
    throw spdlog::spdlog_ex("no such place to log to");
}

int32_t nearestLevel(int32_t level) {
    return std::clamp<int32_t>(level, ORU_LOG_VERBOSE, ORU_LOG_FATAL);
}

// The length to which a cut text must be shortened so that no UTF-8 character is left in half: back to the last byte
// that begins a character, unless that one is complete.
size_t wholeCharacters(std::string_view text) {
    size_t start = text.size();
    while (start > 0 && text.size() - start < 4 && (static_cast<uint8_t>(text[start - 1]) & 0xC0U) == 0x80U) {
        --start;
    }
    if (start == 0) {
        return text.size();
    }
    --start;
    const auto lead = static_cast<uint8_t>(text[start]);
    const size_t needed = lead >= 0xF0U ? 4 : lead >= 0xE0U ? 3 : lead >= 0xC0U ? 2 : 1;
    return text.size() - start < needed ? start : text.size();
}

// ASCII controls, and the second set of them (U+0080 to U+009F), which terminals obey as well.
void replaceControls(std::span<char> text) {
    uint8_t previous = 0;
    for (char &character : text) {
        const auto byte = static_cast<uint8_t>(character);
        const bool second_set = previous == 0xC2U && byte < 0xA0U;
        if (byte < 0x20U || byte == 0x7FU || second_set) {
            character = '?';
        }
        previous = byte;
    }
}

// Formats into buffer; the result lies in it.
std::string_view makeText(std::span<char, log_text_capacity> buffer, const char *format, va_list arguments)
    __attribute__((format(printf, 2, 0)));

std::string_view makeText(std::span<char, log_text_capacity> buffer, const char *format, va_list arguments) {
    const int wanted = std::vsnprintf(buffer.data(), buffer.size(), format, arguments);
    if (wanted < 0) {
        return "(text cannot be formatted)";
    }
    auto length = static_cast<size_t>(wanted);
    if (length >= buffer.size()) {
        length = wholeCharacters({buffer.data(), buffer.size() - 1});
    } else if (length > 0 && buffer[length - 1] == '\n') {
        --length;
    }
    replaceControls(buffer.first(length));
    return {buffer.data(), length};
}

} // namespace

void oruLog_log(oruLog_id_t /*id*/, oruLog_level_t level, const char *tag, const char *format, ...) {
    const int32_t kept_level = nearestLevel(level);
    if (format == nullptr || kept_level < minimum_level.load(std::memory_order_relaxed)) {
        return;
    }
    const int callers_errno = errno;
    std::array<char, log_text_capacity> buffer; // not cleared: only what the formatting wrote is read
    va_list arguments;
    va_start(arguments, format);
    const std::string_view text = makeText(buffer, format, arguments);
    va_end(arguments);
    try {
        const auto severity = static_cast<spdlog::level::level_enum>(kept_level);
        if (kept_level == ORU_LOG_FATAL) {
            theLog().logAtOnce(severity, tag == nullptr ? "-" : tag, text);
        } else {
            theLog().log(severity, tag == nullptr ? "-" : tag, text);
        }
    } catch (const std::exception &) {
        // Out of memory for the first line: there is nowhere to say so.
    }
    errno = callers_errno;
}

oru_status_t oruLog_configure(const oruLog_config_t &config, std::string *error) {
    try {
        theLog().setSink(makeSink(config));
        catchCrashes();
        minimum_level = nearestLevel(config.level);
    } catch (const spdlog::spdlog_ex &failure) {
        if (error != nullptr) {
            *error = failure.what();
        }
        return ORU_STATUS_BAD_PARAM;
    } catch (const std::bad_alloc &) {
        return ORU_STATUS_OUT_OF_MEMORY;
    }
    return ORU_STATUS_OK;
}

bool oruLog_flush(uint32_t limit_ms) {
    return theLog().flush(Log_writer::Milliseconds(limit_ms));
}
