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

using corvane::base::Descriptor;

constexpr size_t line_capacity = 2048; // of the kept buffer: the text, the tag and the time, with room to spare
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

Descriptor openFile(const std::string &path, int more_flags) {
    // Non-blocking, so that a named pipe without a reader is refused and not waited for.
    return Descriptor(
        open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NONBLOCK | more_flags, file_mode));
}

// Gives the size of a regular file; false for anything else.
bool readSize(int descriptor, size_t &size) {
    struct stat status {};
    const bool regular = fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode);
    size = static_cast<size_t>(status.st_size);
    return regular;
}

} // namespace

Line_sink::Line_sink(std::unique_ptr<spdlog::formatter> formatter) : formatter_(std::move(formatter)) {
    line_.reserve(line_capacity);
}

void Line_sink::begin(const spdlog::details::log_msg &message) {
    line_.clear();
    putStart(line_, message.level);
    formatter_->format(message, line_);
    putEnd(line_);
    left_ = whole();
}

Descriptor_sink::Descriptor_sink(int descriptor, Look look)
    : Line_sink(makeFormatter(stream_pattern, look.coloured)), descriptor_(descriptor), priorities_(look.priorities) {}

void Descriptor_sink::setDescriptor(int descriptor) {
    descriptor_ = descriptor;
    torn_ = false;
    left_ = whole();
}

void Descriptor_sink::putStart(spdlog::memory_buf_t &line, spdlog::level::level_enum level) {
    if (torn_) {
        line.push_back('\n');
    }
    if (priorities_) {
        line.push_back('<');
        line.push_back(static_cast<char>('0' + lookOf(level).severity));
        line.push_back('>');
    }
}

// The descriptor may be shared with other programs, so it is not made non-blocking here. Where it is not, the question
// first makes waiting unlikely: the system reports a pipe as writable only when it has room for 4096 bytes.
ssize_t Descriptor_sink::write() {
    if (socket_) {
        const ssize_t sent = send(descriptor_, left_.data(), left_.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        socket_ = sent >= 0 || errno != ENOTSOCK;
        if (socket_) {
            return sent;
        }
    }
    pollfd ready = {descriptor_, POLLOUT, 0};
    (void)poll(&ready, 1, 0);
    if (ready.revents != POLLOUT) { // a closed pipe reports an error, and would end the process with a signal
        errno = ready.revents == 0 ? EAGAIN : EPIPE;
        return -1;
    }
    return ::write(descriptor_, left_.data(), left_.size());
}

Line_sink::Progress Descriptor_sink::proceed() {
    while (!left_.empty()) {
        const ssize_t written = write();
        if (written <= 0) {
            return written < 0 && errno == EAGAIN ? Progress::NO_ROOM : Progress::LOST;
        }
        left_.remove_prefix(static_cast<size_t>(written));
        torn_ = !left_.empty();
    }
    return Progress::OUT;
}

File_sink::File_sink(const std::string &path, size_t max_bytes, unsigned max_files)
    : Descriptor_sink(-1, {}), path_(absolutePath(path)), max_bytes_(max_bytes), max_files_(max_files), size_(0) {
    use(openFile(path_, 0));
    if (!file_) {
        spdlog::throw_spdlog_ex("cannot open log file \"" + path_ + "\"", errno);
    }
    if (!readSize(descriptor(), size_)) {
        spdlog::throw_spdlog_ex("cannot use log file \"" + path_ + "\": not a regular file");
    }
}

void File_sink::use(Descriptor file) {
    file_ = std::move(file);
    setDescriptor(file_.get());
}

Line_sink::Progress File_sink::proceed() {
    if (max_bytes_ != 0 && size_ != 0 && size_ + left_.size() > max_bytes_) {
        rotate();
    }
    const size_t before = left_.size();
    const Progress progress = Descriptor_sink::proceed();
    size_ += before - left_.size();
    return progress;
}

// Rotation that fails (no permission, for example) keeps the file in use and is tried again after as many bytes.
void File_sink::rotate() {
    const auto old = [this](unsigned index) { return index == 0 ? path_ : path_ + "." + std::to_string(index); };
    for (unsigned index = max_files_; index > 0; --index) {
        (void)std::rename(old(index - 1).c_str(), old(index).c_str()); // an old file that does not exist yet
    }
    if (Descriptor fresh = openFile(path_, max_files_ == 0 ? O_TRUNC : 0); fresh) {
        use(std::move(fresh));
    }
    size_ = 0;
}

bool File_sink::reopen() {
    Descriptor fresh = openFile(path_, 0);
    size_t size = 0;
    if (!fresh) {
        return false;
    }
    if (!readSize(fresh.get(), size)) {
        errno = EINVAL;
        return false;
    }
    use(std::move(fresh));
    size_ = size;
    return true;
}

Syslog_sink::Syslog_sink(std::string path) : Line_sink(makeFormatter(syslog_pattern, false)), path_(std::move(path)) {
    if (!connectSocket()) {
        spdlog::throw_spdlog_ex("cannot reach the system log at \"" + path_ + "\"", errno);
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
    Descriptor fresh(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fresh) {
        return false;
    }
    if (connect(fresh.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0) {
        const int reason = errno;
        fresh.reset();
        errno = reason;
        return false;
    }
    socket_ = std::move(fresh);
    return true;
}

void Syslog_sink::putStart(spdlog::memory_buf_t &line, spdlog::level::level_enum level) {
    std::array<char, 8> priority{};
    (void)std::snprintf(priority.data(), priority.size(), "<%d>", LOG_DAEMON | lookOf(level).severity);
    append(line, priority.data());
}

Line_sink::Progress Syslog_sink::proceed() {
    const auto sent = [this] {
        return send(socket_.get(), whole().data(), whole().size(), MSG_DONTWAIT | MSG_NOSIGNAL) >= 0;
    };
    // A restarted daemon leaves the old connection refused or unconnected.
    if (sent() || (errno != EAGAIN && connectSocket() && sent())) {
        return Progress::OUT;
    }
    return errno == EAGAIN ? Progress::NO_ROOM : Progress::LOST;
}
