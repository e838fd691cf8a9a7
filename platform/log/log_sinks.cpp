// SPDX-License-Identifier: Apache-2.0
#include "log_sinks.h"
#include "oru_log.h"
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <spdlog/common.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace {

constexpr size_t line_capacity = 2048; // of the kept buffer: the text, the tag and the time, with room to spare
constexpr std::string_view own_tag = "oru_log";
constexpr mode_t file_mode = 0640;

struct Level_look {
    std::string_view name;
    std::string_view colour; // escape sequence of a terminal
    int severity;            // of syslog
};

// In the order of spdlog's levels, which is ours.
constexpr std::array<Level_look, 6> level_looks = {{
    {"verbose", "\033[37m", LOG_DEBUG},
    {"debug", "\033[36m", LOG_DEBUG},
    {"info", "\033[32m", LOG_INFO},
    {"warn", "\033[33;1m", LOG_WARNING},
    {"error", "\033[31;1m", LOG_ERR},
    {"fatal", "\033[1;41m", LOG_CRIT},
}};
static_assert(int{SPDLOG_LEVEL_TRACE} == int{ORU_LOG_VERBOSE} && int{SPDLOG_LEVEL_CRITICAL} == int{ORU_LOG_FATAL},
              "levels map one to one");

const Level_look &lookOf(spdlog::level::level_enum level) {
    return level_looks.at(static_cast<size_t>(level));
}

void append(spdlog::memory_buf_t &line, std::string_view text) {
    line.append(text.data(), text.data() + text.size());
}

// The name of the level, as the configuration spells it.
class Level_flag final : public spdlog::custom_flag_formatter {
public:
    explicit Level_flag(bool coloured) : coloured_(coloured) {}

    void format(const spdlog::details::log_msg &message, const std::tm &, spdlog::memory_buf_t &line) override {
        const Level_look &look = lookOf(message.level);
        if (coloured_) {
            append(line, look.colour);
        }
        append(line, look.name);
        if (coloured_) {
            append(line, "\033[0m");
        }
    }

    std::unique_ptr<custom_flag_formatter> clone() const override { return std::make_unique<Level_flag>(coloured_); }

private:
    bool coloured_;
};

std::unique_ptr<spdlog::formatter> makeFormatter(const char *pattern, bool coloured) {
    auto formatter = std::make_unique<spdlog::pattern_formatter>(spdlog::pattern_time_type::local, "");
    formatter->add_flag<Level_flag>('*', coloured).set_pattern(pattern);
    return formatter;
}

constexpr const char *stream_pattern = "%Y-%m-%dT%H:%M:%S.%e%z %* [%n] %v";
constexpr const char *syslog_pattern = "%b %d %H:%M:%S corvane[%P]: [%n] %v"; // behind "<priority>"

// Rotation must find the file also after the process has changed its working directory.
std::string absolutePath(const std::string &path) {
    std::error_code error;
    const std::filesystem::path absolute = std::filesystem::absolute(path, error);
    return error ? path : absolute.string();
}

int openFile(const std::string &path, int more_flags) {
    // Non-blocking, so that a named pipe without a reader is refused and not waited for.
    return open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NONBLOCK | more_flags, file_mode);
}

} // namespace

Line_sink::Line_sink(std::unique_ptr<spdlog::formatter> formatter) : base_sink(std::move(formatter)) {
    line_.reserve(line_capacity);
}

void Line_sink::sink_it_(const spdlog::details::log_msg &message) {
    if (!reportDropped() || !write(message)) {
        ++dropped_;
    }
}

bool Line_sink::write(const spdlog::details::log_msg &message) {
    line_.clear();
    formatter_->format(message, line_);
    return put(message.level, line_);
}

bool Line_sink::reportDropped() {
    if (dropped_ == 0) {
        return true;
    }
    std::array<char, 64> text{};
    (void)std::snprintf(text.data(), text.size(), "%llu log lines dropped", static_cast<unsigned long long>(dropped_));
    if (!write({own_tag, spdlog::level::warn, text.data()})) {
        return false;
    }
    dropped_ = 0;
    return true;
}

Descriptor_sink::Descriptor_sink(int descriptor, bool coloured)
    : Line_sink(makeFormatter(stream_pattern, coloured)), descriptor_(descriptor) {}

// The descriptor may be shared with other programs, so it is not made non-blocking. The system reports a pipe or socket
// as writable only when it has room for at least 4096 bytes or half of its buffer, more than a line.
bool Descriptor_sink::put(spdlog::level::level_enum, spdlog::memory_buf_t &line) {
    pollfd ready = {descriptor_, POLLOUT, 0};
    if (poll(&ready, 1, 0) != 1 || ready.revents != POLLOUT) { // a closed pipe reports an error, and would kill us
        return false;
    }
    line.push_back('\n');
    if (torn_) {
        torn_ = ::write(descriptor_, "\n", 1) != 1;
    }
    const ssize_t written = torn_ ? -1 : ::write(descriptor_, line.data(), line.size());
    if (written <= 0) {
        return false;
    }
    torn_ = static_cast<size_t>(written) < line.size();
    return !torn_;
}

File_sink::File_sink(const std::string &path, size_t max_bytes, unsigned max_files)
    : Descriptor_sink(-1, false), path_(absolutePath(path)), max_bytes_(max_bytes), max_files_(max_files), size_(0) {
    setDescriptor(openFile(path_, 0));
    if (descriptor() < 0) {
        spdlog::throw_spdlog_ex("cannot open log file \"" + path_ + "\"", errno);
    }
    struct stat status {};
    if (fstat(descriptor(), &status) != 0 || !S_ISREG(status.st_mode)) {
        close(descriptor());
        spdlog::throw_spdlog_ex("cannot use log file \"" + path_ + "\": not a regular file");
    }
    size_ = static_cast<size_t>(status.st_size);
}

File_sink::~File_sink() {
    if (descriptor() >= 0) {
        close(descriptor());
    }
}

bool File_sink::put(spdlog::level::level_enum level, spdlog::memory_buf_t &line) {
    if (max_bytes_ != 0 && size_ != 0 && size_ + line.size() + 1 > max_bytes_) {
        rotate();
    }
    const bool written = Descriptor_sink::put(level, line);
    size_ += written ? line.size() : 0;
    return written;
}

// Rotation that fails (no permission, for example) keeps the file in use and is tried again after as many bytes.
void File_sink::rotate() {
    const auto old = [this](unsigned index) { return index == 0 ? path_ : path_ + "." + std::to_string(index); };
    for (unsigned index = max_files_; index > 0; --index) {
        (void)std::rename(old(index - 1).c_str(), old(index).c_str()); // an old file that does not exist yet
    }
    const int fresh = openFile(path_, max_files_ == 0 ? O_TRUNC : 0);
    if (fresh >= 0) {
        close(descriptor());
        setDescriptor(fresh);
    }
    size_ = 0;
}

Syslog_sink::Syslog_sink(std::string path) : Line_sink(makeFormatter(syslog_pattern, false)), path_(std::move(path)) {
    if (!connectSocket()) {
        spdlog::throw_spdlog_ex("cannot reach the system log at \"" + path_ + "\"", errno);
    }
}

Syslog_sink::~Syslog_sink() {
    if (socket_ >= 0) {
        close(socket_);
    }
}

bool Syslog_sink::connectSocket() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path_.size() >= sizeof(address.sun_path)) {
        errno = ENAMETOOLONG;
        return false;
    }
    std::memcpy(address.sun_path, path_.c_str(), path_.size());
    const int fresh = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fresh < 0) {
        return false;
    }
    if (connect(fresh, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0) {
        const int reason = errno;
        close(fresh);
        errno = reason;
        return false;
    }
    if (socket_ >= 0) {
        close(socket_);
    }
    socket_ = fresh;
    return true;
}

bool Syslog_sink::put(spdlog::level::level_enum level, spdlog::memory_buf_t &line) {
    std::array<char, 8> priority{};
    (void)std::snprintf(priority.data(), priority.size(), "<%d>", LOG_DAEMON | lookOf(level).severity);
    std::array<iovec, 2> parts = {{{priority.data(), std::strlen(priority.data())}, {line.data(), line.size()}}};
    msghdr datagram{};
    datagram.msg_iov = parts.data();
    datagram.msg_iovlen = parts.size();
    const auto send = [this, &datagram] { return sendmsg(socket_, &datagram, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0; };
    if (send()) {
        return true;
    }
    // A restarted daemon leaves the old connection refused or unconnected.
    return errno != EAGAIN && connectSocket() && send();
}
