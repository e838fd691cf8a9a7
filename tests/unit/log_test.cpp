// SPDX-License-Identifier: Apache-2.0
#include "../support/allocation_counter.h"
#include "log_sinks.h"
#include "oru_log_setup.h"
#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <regex>
#include <sstream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

// What a file, a pipe or a datagram socket has to give: of each line what stands behind a mark, by default the text.
Lines linesOf(int descriptor, const std::string &mark = "] ") {
    Lines lines;
    std::string part(1 << 20, '\0');
    for (ssize_t size = 0; (size = read(descriptor, part.data(), part.size())) > 0;) {
        std::istringstream stream(part.substr(0, static_cast<size_t>(size)));
        for (std::string line; std::getline(stream, line);) {
            lines.push_back(line.substr(line.find(mark) + mark.size()));
        }
    }
    return lines;
}

void log(const std::string &text) {
    oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_INFO, "tag", "%s", text.c_str());
}

class Log : public testing::Test {
protected:
    std::string name = (fs::temp_directory_path() / "corvane-log-XXXXXX").string();
    fs::path folder = mkdtemp(name.data());
    fs::path file = folder / "log";
    std::string error;

    ~Log() override {
        oruLog_configure({});
        fs::remove_all(folder);
    }
    oru_status_t logTo(const fs::path &path, size_t max_bytes = 0, unsigned max_files = 0) {
        return oruLog_configure({oruLog_config_t::sink_t::file, ORU_LOG_DEBUG, path, max_bytes, max_files}, &error);
    }
    Lines written(const std::string &suffix = "", const std::string &mark = "] ") const {
        const int descriptor = open((file.string() + suffix).c_str(), O_RDONLY);
        Lines lines = linesOf(descriptor, mark);
        close(descriptor);
        return lines;
    }
};

TEST_F(Log, MakesOneHarmlessLineOfAnyTextWithoutAllocating) {
    const std::string x(1023, 'x');
    const std::pair<std::string, std::string> cases[] = {
        {"newline at the end\n", "newline at the end"},
        {"", ""},
        {"\n", ""},
        {"forged\n2024-01-01 error [oru] line\r\t\x1b[2J\x7f", "forged?2024-01-01 error [oru] line???[2J?"},
        {"h\xC3\xA9 \xC2\x9B \xE2\x82\xAC", "h\xC3\xA9 \xC2? \xE2\x82\xAC"},
        {x + "\n", x},
        {x + "cut", x},
        {x.substr(1) + "\xC3\xA9", x.substr(1)},
        {x.substr(3) + "\xE2\x82\xAC" + "cut", x.substr(3) + "\xE2\x82\xAC"},
        {x.substr(3) + "\xF0\x9F\x90\x9D", x.substr(3)},
        {std::string(3000, '\x80'), std::string(1023, '\x80')},
    };
    ASSERT_EQ(logTo(file), ORU_STATUS_OK) << error;
    log("first"); // may set up the time zone
    const uint64_t before = allocations;
    errno = EXDEV;
    for (const auto &[text, expected] : cases) {
        log(text);
    }
    for (int32_t level = -1; level < 7; ++level) {
        oruLog_log(ORU_LOG_ID_MAIN, oruLog_level_t{level}, level == 3 ? nullptr : "tag", "%s: %d", "zb_svc", level);
    }
    oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_INFO, "tag", "%lc", static_cast<wint_t>(0x7FFFFFFF)); // fails and sets errno
    EXPECT_EQ(errno, EXDEV);
    EXPECT_EQ(allocations, before);
    Lines all = {"first"};
    std::ranges::transform(cases, std::back_inserter(all), [](const auto &row) { return row.second; });
    for (const int level : {1, 2, 3, 4, 5, 6}) {
        all.push_back("zb_svc: " + std::to_string(level));
    }
    all.emplace_back("(text cannot be formatted)");
    EXPECT_EQ(written(), all);
    const std::string warning = written("", "")[all.size() - 5];
    const std::regex look("\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}[+-]\\d\\d:\\d\\d warn \\[-\\] zb_svc: 3");
    EXPECT_TRUE(std::regex_match(warning, look)) << warning;
}

TEST_F(Log, RotatesWithinItsLimitsAndStaysWhereAnotherPlaceCannotBeOpened) {
    ASSERT_EQ(logTo(file, 400, 2), ORU_STATUS_OK) << error;
    for (int index = 0; index < 40; ++index) {
        log(std::to_string(index));
    }
    Lines kept;
    for (const std::string suffix : {".2", ".1", ""}) {
        EXPECT_LE(fs::file_size(file.string() + suffix), 400U);
        std::ranges::copy(written(suffix), std::back_inserter(kept));
    }
    EXPECT_FALSE(fs::exists(file.string() + ".3"));
    ASSERT_GT(kept.size(), 12U);
    for (size_t index = 0; index < kept.size(); ++index) {
        EXPECT_EQ(kept[index], std::to_string(40 - kept.size() + index));
    }
    ASSERT_EQ(logTo(file, 50, 0), ORU_STATUS_OK) << error;
    ASSERT_EQ(mkfifo((folder / "pipe").c_str(), 0600), 0);
    for (const fs::path &path : {fs::path(), folder / "none" / "log", folder, folder / "pipe", fs::path("/dev/null")}) {
        EXPECT_EQ(logTo(path), ORU_STATUS_BAD_PARAM);
        EXPECT_NE(error.find("\"" + path.string() + "\""), std::string::npos) << error;
    }
    log("only this");
    EXPECT_EQ(written().size(), 1U);
}

void send(Line_sink &sink, const std::string &text) {
    sink.log({"tag", spdlog::level::err, text});
}

void expectDroppedLinesToBeCounted(Line_sink &sink, int reader) {
    for (int index = 0; index < 5000; ++index) { // more than any queue takes
        send(sink, std::string(600, 'x'));
    }
    const size_t received = linesOf(reader).size();
    EXPECT_GT(received, 0U);
    send(sink, "afterwards");
    send(sink, "reported once");
    const std::string report = std::to_string(5000 - received) + " log lines dropped";
    EXPECT_EQ(linesOf(reader), (Lines{report, "afterwards", "reported once"}));
}

TEST_F(Log, PipeWithoutAReaderNeitherBlocksNorEndsTheProcess) {
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    ASSERT_EQ(fcntl(ends[0], F_SETFL, O_NONBLOCK), 0);
    Descriptor_sink sink(ends[1], false);
    expectDroppedLinesToBeCounted(sink, ends[0]);
    close(ends[0]);
    send(sink, "must not end the process with a signal");
    close(ends[1]);
}

// A stand-in for the system's log daemon.
int listenAt(const fs::path &path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.string().copy(address.sun_path, sizeof(address.sun_path) - 1);
    fs::remove(path);
    const int daemon = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
    EXPECT_EQ(bind(daemon, reinterpret_cast<const sockaddr *>(&address), sizeof(address)), 0);
    return daemon;
}

TEST_F(Log, SyslogSinkSurvivesABusyAndARestartedDaemon) {
    EXPECT_THROW(Syslog_sink{file}, spdlog::spdlog_ex);
    EXPECT_THROW(Syslog_sink(std::string(200, 'x')), spdlog::spdlog_ex);
    int daemon = listenAt(file);
    Syslog_sink sink(file);
    expectDroppedLinesToBeCounted(sink, daemon);
    close(daemon);
    daemon = listenAt(file);
    send(sink, "reconnected");
    const Lines lines = linesOf(daemon, "");
    ASSERT_EQ(lines.size(), 1U);
    const std::regex look("<27>[A-Z][a-z]{2} \\d\\d [0-9:]{8} corvane\\[\\d+\\]: \\[tag\\] reconnected");
    EXPECT_TRUE(std::regex_match(lines[0], look)) << lines[0];
    close(daemon);
}

} // namespace
