// SPDX-License-Identifier: Apache-2.0
//
// Sinks of the log.
//
// The library's own sinks build every line in a fresh buffer with 250 bytes inside, so longer lines cost an allocation,
// and they wait for a slow reader. These keep one buffer for their whole life and never wait: a line that does not go
// out at once is counted, and the count is written before the next line that does.
//
// Not thread-safe: the log holds its lock around each call.
#pragma once
#include <cstddef>
#include <cstdint>
#include <memory>
#include <spdlog/details/null_mutex.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/base_sink.h>
#include <string>
#include <string_view>

class Line_sink : public spdlog::sinks::base_sink<spdlog::details::null_mutex> {
protected:
    // The formatter must not put anything behind the text; put() gets lines without their end.
    explicit Line_sink(std::unique_ptr<spdlog::formatter> formatter);

    // Writes one line at once, or returns false. May append to the line.
    virtual bool put(spdlog::level::level_enum level, spdlog::memory_buf_t &line) = 0;

private:
    void sink_it_(const spdlog::details::log_msg &message) override;
    void flush_() override {}
    bool write(const spdlog::details::log_msg &message);
    bool reportDropped();

    spdlog::memory_buf_t line_;
    uint64_t dropped_ = 0;
};

// Lines to a descriptor that stays the caller's.
class Descriptor_sink : public Line_sink {
public:
    Descriptor_sink(int descriptor, bool coloured);

protected:
    bool put(spdlog::level::level_enum level, spdlog::memory_buf_t &line) override;
    void setDescriptor(int descriptor) { descriptor_ = descriptor; }
    int descriptor() const { return descriptor_; }

private:
    int descriptor_;
    bool torn_ = false; // the last write ended inside of a line
};

// Lines appended to a regular file, which is renamed PATH.1 before it would grow beyond a limit.
class File_sink final : public Descriptor_sink {
public:
    // Throws spdlog::spdlog_ex when the file cannot be opened or is not a regular one.
    File_sink(const std::string &path, size_t max_bytes, unsigned max_files);
    ~File_sink() override;

private:
    bool put(spdlog::level::level_enum level, spdlog::memory_buf_t &line) override;
    void rotate();

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
    ~Syslog_sink() override;

private:
    bool put(spdlog::level::level_enum level, spdlog::memory_buf_t &line) override;
    bool connectSocket();

    std::string path_;
    int socket_ = -1;
};
