// SPDX-License-Identifier: Apache-2.0
#include "log_sinks.h"
#include "oru_log_setup.h"
#include "os_test_support.h"
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <vector>

// Heap allocations of the calling thread, counted in log_allocations.cpp.
size_t allocationCount();

namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

Lines split(std::istream &&stream) {
    Lines lines;
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

bool matches(const std::string &line, const std::string &expression) {
    return testing::Matcher<const std::string &>(testing::MatchesRegex(expression)).Matches(line);
}

std::string textOf(const std::string &line) {
    return line.substr(std::min(line.find("] "), line.size() - 2) + 2);
}

void log(const std::string &text) {
    oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_INFO, "tag", "%s", text.c_str());
}

class Log : public testing::Test {
protected:
    std::string name = (fs::temp_directory_path() / "corvane-log-XXXXXX").string();
    fs::path folder = mkdtemp(name.data());
    fs::path file = folder / "log";

    ~Log() override {
        oruLog_configure({});
        fs::remove_all(folder);
    }
    static void logTo(const fs::path &path, size_t max_bytes = 0, unsigned max_files = 0) {
        std::string error;
        EXPECT_EQ(oruLog_configure({oruLog_config_t::sink_t::file, ORU_LOG_DEBUG, path, max_bytes, max_files}, &error),
                  ORU_STATUS_OK)
            << error;
    }
};

TEST_F(Log, MakesOneHarmlessLineOfAnyText) {
    const std::string x(1023, 'x');
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"newline at the end\n", "newline at the end"},
        {"", ""},
        {"\n", ""},
        {"forged\n2024-01-01 error [oru] line\r\t\x1b[2J\x7f", "forged?2024-01-01 error [oru] line???[2J?"},
        {"h\xC3\xA9 \xC2\x9B \xE2\x82\xAC", "h\xC3\xA9 \xC2? \xE2\x82\xAC"},
        {x, x},
        {x + "\n", x},
        {x + "cut", x},
        {x.substr(1) + "\xC3\xA9", x.substr(1)},
        {x.substr(3) + "\xE2\x82\xAC" + "cut", x.substr(3) + "\xE2\x82\xAC"},
        {x.substr(3) + "\xF0\x9F\x90\x9D", x.substr(3)},
        {std::string(3000, '\x80'), std::string(1023, '\x80')},
    };
    logTo(file);
    for (const auto &[text, expected] : cases) {
        log(text);
    }
    const Lines lines = split(std::ifstream(file));
    ASSERT_EQ(lines.size(), cases.size());
    for (size_t index = 0; index < cases.size(); ++index) {
        EXPECT_EQ(textOf(lines[index]), cases[index].second) << index;
    }
}

TEST_F(Log, WritesTimeLevelAndTagAndDropsLowLevels) {
    logTo(file);
    errno = EXDEV;
    for (int32_t level = -1; level < 7; ++level) {
        oruLog_log(ORU_LOG_ID_MAIN, oruLog_level_t{level}, level == 3 ? nullptr : "oru_zigbee", "%s: %d", "zb_svc",
                   level);
    }
    EXPECT_EQ(errno, EXDEV);
    const std::string time = "[0-9]{4}(-[0-9]{2}){2}T[0-9]{2}(:[0-9]{2}){2}[.][0-9]{3}[+-][0-9]{2}:[0-9]{2} ";
    const Lines lines = split(std::ifstream(file));
    ASSERT_EQ(lines.size(), 6U);
    EXPECT_TRUE(matches(lines[0], time + "debug .oru_zigbee. zb_svc: 1")) << lines[0];
    EXPECT_TRUE(matches(lines[2], time + "warn .-. zb_svc: 3")) << lines[2];
    EXPECT_TRUE(matches(lines[5], time + "fatal .oru_zigbee. zb_svc: 6")) << lines[5];
}

TEST_F(Log, RotatesWithinItsLimits) {
    logTo(file, 400, 2);
    for (int index = 0; index < 40; ++index) {
        log(std::to_string(index));
    }
    Lines kept;
    for (const std::string end : {".2", ".1", ""}) {
        EXPECT_LE(fs::file_size(file.string() + end), 400U);
        const Lines lines = split(std::ifstream(file.string() + end));
        kept.insert(kept.end(), lines.begin(), lines.end());
    }
    EXPECT_FALSE(fs::exists(file.string() + ".3"));
    ASSERT_GT(kept.size(), 12U);
    for (size_t index = 0; index < kept.size(); ++index) {
        EXPECT_EQ(textOf(kept[index]), std::to_string(40 - kept.size() + index));
    }
    logTo(file, 50, 0);
    log("only this");
    ASSERT_EQ(split(std::ifstream(file)).size(), 1U);
}

TEST_F(Log, StaysWhereItWasWhenTheNewPlaceCannotBeOpened) {
    logTo(file);
    ASSERT_EQ(mkfifo((folder / "pipe").c_str(), 0600), 0);
    for (const fs::path &path : {fs::path(), folder / "none" / "log", folder, folder / "pipe", fs::path("/dev/null")}) {
        std::string error;
        EXPECT_EQ(oruLog_configure({oruLog_config_t::sink_t::file, ORU_LOG_INFO, path}, &error), ORU_STATUS_BAD_PARAM);
        EXPECT_NE(error.find("\"" + path.string() + "\""), std::string::npos) << error;
    }
    log("still here");
    ASSERT_EQ(split(std::ifstream(file)).size(), 1U);
}

TEST_F(Log, LinesOfAnyLengthDoNotAllocate) {
    const std::string x(2000, 'x');
    logTo(file);
    log(x); // the first line of a process may set up the time zone
    const size_t before = allocationCount();
    for (const int length : {1, 200, 300, 1023, 2000}) {
        oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_INFO, "oru_zigbee", "%.*s", length, x.c_str());
    }
    EXPECT_EQ(allocationCount(), before);
}

TEST_F(Log, DropsLinesWhenNobodyReadsAndSaysHowMany) {
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe(ends.data()), 0);
    const int saved = dup(STDERR_FILENO);
    ASSERT_EQ(dup2(ends[1], STDERR_FILENO), STDERR_FILENO);
    ASSERT_EQ(fcntl(ends[0], F_SETFL, O_NONBLOCK), 0);
    const auto drain = [&] {
        std::string all(1 << 20, '\0');
        const ssize_t length = read(ends[0], all.data(), all.size());
        return split(std::istringstream(all.substr(0, static_cast<size_t>(std::max<ssize_t>(length, 0)))));
    };
    oruLog_configure({});
    for (int index = 0; index < 1000; ++index) { // ten times what a pipe holds
        log(std::string(600, 'x'));
    }
    const size_t first = drain().size();
    log("afterwards");
    const Lines second = drain();
    log("reported once");
    const Lines third = drain();
    close(ends[0]);
    log("must not end the process with a signal");
    dup2(saved, STDERR_FILENO);
    close(saved);
    close(ends[1]);
    EXPECT_GT(first, 0U);
    ASSERT_EQ(second.size(), 2U);
    EXPECT_EQ(textOf(second[0]), std::to_string(1000 - first) + " log lines dropped");
    EXPECT_EQ(textOf(second[1]), "afterwards");
    EXPECT_EQ(third.size(), 1U);
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

std::string receive(int daemon) {
    std::string datagram(2048, '\0');
    datagram.resize(static_cast<size_t>(std::max<ssize_t>(recv(daemon, datagram.data(), datagram.size(), 0), 0)));
    return datagram;
}

TEST_F(Log, SyslogSinkSurvivesABusyAndARestartedDaemon) {
    EXPECT_THROW(Syslog_sink{file}, spdlog::spdlog_ex);
    EXPECT_THROW(Syslog_sink(std::string(200, 'x')), spdlog::spdlog_ex);
    int daemon = listenAt(file);
    Syslog_sink sink(file);
    const auto send = [&](const std::string &text) { sink.log({"tag", spdlog::level::err, text}); };
    send("first");
    const std::string line = "<27>[A-Z][a-z]{2} [0-9]{2} [0-9:]{8} corvane.[0-9]+.: .tag. first";
    EXPECT_TRUE(matches(receive(daemon), line));
    for (int index = 0; index < 5000; ++index) { // more than its queue takes
        send("x");
    }
    int received = 0;
    while (!receive(daemon).empty()) {
        ++received;
    }
    send("afterwards");
    EXPECT_EQ(textOf(receive(daemon)), std::to_string(5000 - received) + " log lines dropped");
    EXPECT_EQ(textOf(receive(daemon)), "afterwards");
    close(daemon);
    daemon = listenAt(file);
    send("reconnected");
    EXPECT_EQ(textOf(receive(daemon)), "reconnected");
    close(daemon);
}

TEST(LogDeathTest, ThreadsMayLogWhileTheLogIsSetUpAndWhileTheProcessExits) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            static std::atomic<int> lines{0};
            for (int thread = 0; thread < 3; ++thread) {
                std::thread([] {
                    for (;;) {
                        log("line " + std::to_string(++lines));
                    }
                }).detach();
            }
            for (int round = 0; round < 50; ++round) {
                oruLog_configure({});
            }
            waitFor([] { return lines > 100; });
            std::exit(0);
        },
        testing::ExitedWithCode(0), "line");
}

} // namespace
