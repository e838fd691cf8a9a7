// SPDX-License-Identifier: Apache-2.0
//
// Places that lines go to.
//
// The library's own sinks build every line in a fresh buffer with 250 bytes inside, so longer lines cost an allocation,
// and they wait for a slow reader. These keep one buffer for their whole life and never wait: they say that there is no
// room now, and the caller decides how long to wait for it.
//
// Not thread-safe: the log holds its lock around each call.
#pragma once
#include "base/descriptor.h"
#include <cstddef>
#include <memory>
#include <spdlog/pattern_formatter.h>
#include <string>
#include <string_view>

class Line_sink {
public:
    enum class Progress {
        OUT,
        NO_ROOM, // try again when descriptor() can be written to
        LOST,    // a reader that went away, a full disk
    };

    virtual ~Line_sink() = default;
    Line_sink(const Line_sink &) = delete;
    Line_sink &operator=(const Line_sink &) = delete;

    // Takes up a line. The rest of one that is not out is given up.
    void begin(const spdlog::details::log_msg &message);
    // Writes what is left of it and can be written now.
    virtual Progress proceed() = 0;
    virtual int descriptor() const = 0;
    // Turns to what has its name now, for example because the file was moved away; a line that is not out begins anew.
    // False, with errno, when that fails: it goes on as it was.
    virtual bool reopen() { return true; }

protected:
    // The formatter must not put anything behind the text.
    explicit Line_sink(std::unique_ptr<spdlog::formatter> formatter);

    // What stands before and behind a formatted line.
    virtual void putStart(spdlog::memory_buf_t & /*line*/, spdlog::level::level_enum /*level*/) {}
    virtual void putEnd(spdlog::memory_buf_t & /*line*/) {}
    std::string_view whole() const { return {line_.data(), line_.size()}; }

    std::string_view left_; // of the line, not written yet

private:
    std::unique_ptr<spdlog::formatter> formatter_;
    spdlog::memory_buf_t line_;
};

// Lines to a descriptor that stays the caller's.
class Descriptor_sink : public Line_sink {
public:
    struct Look {
        bool coloured = false;
        bool priorities = false; // "<N>" in front, as the journal takes them
    };
    Descriptor_sink(int descriptor, Look look);

    Progress proceed() override;
    int descriptor() const override { return descriptor_; }

protected:
    void putStart(spdlog::memory_buf_t &line, spdlog::level::level_enum level) override;
    void putEnd(spdlog::memory_buf_t &line) override { line.push_back('\n'); }
    void setDescriptor(int descriptor);

private:
    ssize_t write();

    int descriptor_;
    bool priorities_;
    bool socket_ = true; // until it proves not to be one
    bool torn_ = false;  // what was written last ended inside of a line
};

// Lines appended to a regular file, which is renamed PATH.1 before it would grow beyond a limit.
class File_sink final : public Descriptor_sink {
public:
    // Throws spdlog::spdlog_ex when the file cannot be opened or is not a regular one.
    File_sink(const std::string &path, size_t max_bytes, unsigned max_files);

    Progress proceed() override;
    bool reopen() override;

private:
    void rotate();
    void use(corvane::base::Descriptor file);

    corvane::base::Descriptor file_;
    std::string path_;
    size_t max_bytes_; // 0 = no limit
    unsigned max_files_;
    size_t size_;
};

// Lines to the datagram socket of a syslog daemon or the journal.
class Syslog_sink final : public Line_sink {
public:
    // Throws spdlog::spdlog_ex when nobody answers at the path.
    explicit Syslog_sink(std::string path);

    Progress proceed() override;
    int descriptor() const override { return socket_.get(); }

private:
    void putStart(spdlog::memory_buf_t &line, spdlog::level::level_enum level) override;
    bool connectSocket();

    std::string path_;
    corvane::base::Descriptor socket_;
};
