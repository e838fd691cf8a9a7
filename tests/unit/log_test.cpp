// SPDX-License-Identifier: Apache-2.0
#include "../support/allocation_counter.h"
#include "log_writer.h"
#include "oru_log_setup.h"
#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <regex>
#include <sstream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
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
        EXPECT_TRUE(oruLog_flush(10000));
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
    log("first"); // starts the writer and may set up the time zone
    ASSERT_TRUE(oruLog_flush(10000));
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
    EXPECT_TRUE(oruLog_flush(10000));
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

// One line for each number, more than the ring and any queue take, while nobody reads; then the reader comes back.
void expectDroppedLinesToBeCountedInPlace(Log_writer &writer, int reader) {
    constexpr int count = 3000;
    for (int number = 0; number < count; ++number) {
        writer.log(spdlog::level::err, "tag", std::to_string(number) + " " + std::string(600, 'x'));
    }
    Lines lines;
    for (bool over = false; !over;) {
        over = writer.flush(std::chrono::milliseconds(5));
        std::ranges::move(linesOf(reader), std::back_inserter(lines));
    }
    int next = 0;
    int reports = 0;
    for (const std::string &line : lines) {
        const bool report = line.ends_with(" log lines dropped");
        EXPECT_TRUE(report || line.size() > 600) << line;
        next = report ? next + std::stoi(line) : next + 1;
        EXPECT_TRUE(report || std::stoi(line) == next - 1) << line.substr(0, 5) << " after " << next;
        reports += report ? 1 : 0;
    }
    EXPECT_EQ(next, count);
    EXPECT_GE(reports, 1);
}

TEST_F(Log, PipeWithoutAReaderNeitherBlocksNorEndsTheProcess) {
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    ASSERT_EQ(fcntl(ends[0], F_SETFL, O_NONBLOCK), 0);
    const auto sink = [&] { return std::make_unique<Descriptor_sink>(ends[1], Descriptor_sink::Look{false, true}); };
    Log_writer writer(sink());
    writer.log(spdlog::level::warn, "tag", "direct");
    const Lines direct = linesOf(ends[0], "");
    ASSERT_EQ(direct.size(), 1U);
    EXPECT_EQ(direct[0].substr(0, 5), "<4>20") << "a priority for the journal";
    writer.setSink(sink());
    expectDroppedLinesToBeCountedInPlace(writer, ends[0]);
    while (writer.flush(std::chrono::milliseconds(50))) {
        writer.log(spdlog::level::err, "tag", std::string(1000, 'x'));
    }
    const auto begin = std::chrono::steady_clock::now();
    writer.logAtOnce(spdlog::level::critical, "tag", "no room for last words");
    writer.finish(std::chrono::milliseconds(100));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(2));
    close(ends[0]);
    writer.setSink(sink());
    writer.log(spdlog::level::err, "tag", "must not end the process with a signal");
    EXPECT_TRUE(writer.flush(std::chrono::seconds(10)));
    writer.finish(std::chrono::seconds(10));
    close(ends[1]);
}

TEST_F(Log, NothingIsLostAtTheEndOfTheProcess) {
    const std::pair<const char *, void (*)()> ends[] = {
        {"exit", [] { exit(0); }},
        {"abort", [] { abort(); }},
        {"a line that may be the last one",
         [] {
             oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_FATAL, "tag", "because");
             _exit(0);
         }},
    };
    for (const auto &[how, end] : ends) {
        SCOPED_TRACE(how);
        ASSERT_EQ(oruLog_configure({}), ORU_STATUS_OK); // no thread at the fork
        fs::remove(file);
        const pid_t child = fork();
        if (child == 0) {
            logTo(file);
            for (int index = 0; index < 500; ++index) {
                log("line");
            }
            end();
        }
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(WIFSIGNALED(status) ? WTERMSIG(status) : 0, end == ends[1].second ? SIGABRT : 0);
        const Lines lines = written();
        EXPECT_EQ(std::ranges::count(lines, "line"), 500);
        EXPECT_EQ(lines.back(), end == ends[2].second ? "because" : "line");
    }
}

TEST_F(Log, OpensItsFileAnewOnSighupAndKnowsTheJournal) {
    sigset_t hang_up;
    sigemptyset(&hang_up);
    sigaddset(&hang_up, SIGHUP);
    ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &hang_up, nullptr), 0);
    ASSERT_EQ(logTo(file), ORU_STATUS_OK) << error;
    log("before");
    ASSERT_EQ(written(), Lines{"before"});
    const auto hangUp = [&](const std::string &answer) {
        kill(getpid(), SIGHUP);
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while ((written().empty() || written().back() != answer) && std::chrono::steady_clock::now() < end) {
        }
        EXPECT_EQ(written().back(), answer);
    };
    fs::rename(file, file.string() + ".old");
    log("still there");
    EXPECT_EQ(written(".old").back(), "still there");
    std::ofstream(file) << "";
    hangUp("SIGHUP: the log goes on here");
    fs::rename(file, folder / "moved");
    fs::create_directory(file);
    file = folder / "moved";
    hangUp("SIGHUP: the log cannot be opened anew: Is a directory");
    log("goes on");
    EXPECT_EQ(written().back(), "goes on");

    testing::internal::CaptureStderr();
    struct stat info {};
    ASSERT_EQ(fstat(STDERR_FILENO, &info), 0);
    setenv("JOURNAL_STREAM", (std::to_string(info.st_dev) + ":" + std::to_string(info.st_ino)).c_str(), 1);
    ASSERT_EQ(oruLog_configure({}), ORU_STATUS_OK);
    unsetenv("JOURNAL_STREAM");
    log("with a priority");
    EXPECT_TRUE(oruLog_flush(10000));
    EXPECT_EQ(testing::internal::GetCapturedStderr().substr(0, 5), "<6>20");
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
    Log_writer writer(std::make_unique<Syslog_sink>(file));
    writer.setSink(std::make_unique<Syslog_sink>(file));
    expectDroppedLinesToBeCountedInPlace(writer, daemon);
    close(daemon);
    daemon = listenAt(file);
    writer.log(spdlog::level::err, "tag", "reconnected");
    EXPECT_TRUE(writer.flush(std::chrono::seconds(10)));
    const Lines lines = linesOf(daemon, "");
    ASSERT_EQ(lines.size(), 1U);
    const std::regex look("<27>[A-Z][a-z]{2} \\d\\d [0-9:]{8} corvane\\[\\d+\\]: \\[tag\\] reconnected");
    EXPECT_TRUE(std::regex_match(lines[0], look)) << lines[0];
    writer.finish(std::chrono::seconds(10));
    close(daemon);
}

} // namespace
