// SPDX-License-Identifier: Apache-2.0
//
// A hang ends in a restart: the daemon under a small supervisor that listens to its notifications.
#include "system_fixture.h"
#include <algorithm>
#include <poll.h>
#include <sys/resource.h>
#include <termios.h>

namespace {

// Takes the place of the service manager: the notification socket, and the environment that names it.
class Supervisor {
public:
    explicit Supervisor(Daemon &daemon) : fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        const std::string path = daemon.path("notify");
        strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        daemon.in_child = [path] {
            const rlimit no_core{0, 0};
            (void)setrlimit(RLIMIT_CORE, &no_core);
            setenv("NOTIFY_SOCKET", path.c_str(), 1);
            setenv("WATCHDOG_USEC", "400000", 1);
            setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1);
        };
        thread_ = std::thread([this] { listen(); });
    }
    ~Supervisor() {
        over_ = true;
        thread_.join();
        close(fd_);
    }
    Supervisor(const Supervisor &) = delete;
    Supervisor &operator=(const Supervisor &) = delete;

    std::vector<Clock::time_point> heard(const std::string &text) {
        const std::lock_guard lock(mutex_);
        return heard_[text];
    }
    bool hears(const std::string &text, std::size_t count, Clock::time_point since = {}) {
        return eventually([&] {
            const auto times = heard(text);
            return std::ranges::count_if(times, [&](auto at) { return at > since; }) >= static_cast<long>(count);
        });
    }

private:
    void listen() {
        char text[256];
        pollfd entry{fd_, POLLIN, 0};
        while (!over_) {
            if (poll(&entry, 1, 20) > 0) {
                const ssize_t size = recv(fd_, text, sizeof text, 0);
                const std::lock_guard lock(mutex_);
                heard_[std::string(text, static_cast<std::size_t>(std::max<ssize_t>(size, 0)))].push_back(Clock::now());
            }
        }
    }

    int fd_;
    std::atomic<bool> over_{false};
    std::mutex mutex_;
    std::map<std::string, std::vector<Clock::time_point>> heard_;
    std::thread thread_;
};

class SupervisorTest : public ::testing::TestWithParam<const char *> {};
INSTANTIATE_TEST_SUITE_P(Modes, SupervisorTest, ::testing::Values("descriptor", "thread"),
                         [](const auto &row) { return std::string(row.param); });

TEST_P(SupervisorTest, AHangEndsInARestartAndNoRestartLosesAnything) {
    Daemon daemon(GetParam());
    daemon.radio = "watchdog_seconds = 3\n"; // a busy disk may hold up a write, and the loop with it, for one
    Supervisor supervisor(daemon);
    daemon.start();
    ASSERT_TRUE(supervisor.hears("READY=1", 1));
    ASSERT_TRUE(supervisor.hears("WATCHDOG=1", 3));
    std::map<uint64_t, oruZb_device_t> before;
    {
        Listener listener(daemon);
        ASSERT_TRUE(listener.connect());
        ASSERT_TRUE(listener.formAndOpen());
        ASSERT_TRUE(daemon.simJoin(0) && daemon.simJoin(1));
        ASSERT_TRUE(eventually([&] { return listener.discovered().size() == 2; }));
        before = listener.discovered();
        const auto begin = Clock::now();
        ASSERT_EQ(daemon.sim("{\"command\":\"hang\",\"milliseconds\":600000}"), "{\"ok\":true}");
        EXPECT_EQ(listener.client.ping().value, "pong"); // needs nothing of the radio
        ASSERT_TRUE(eventually([&] { return daemon.hasEnded(); }));
        const auto end = Clock::now();
        const int status = daemon.wait();
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT) << status;
        EXPECT_NE(daemon.said().find("watchdog: the main loop has not called"), std::string::npos) << daemon.said();
        const auto silence = end - supervisor.heard("WATCHDOG=1").back();
        EXPECT_GT(silence, 1s); // of the 2.6 s between the supervisor's limit and the daemon's own
        std::cout << "ended " << (end - begin) / 1ms << " ms after the hang began, silent for the last "
                  << silence / 1ms << " ms\n";
    }
    for (int restarts = 0; restarts < 2; ++restarts) { // after the hang, and after an orderly end
        SCOPED_TRACE(restarts);
        const auto restart = Clock::now();
        daemon.start();
        ASSERT_TRUE(supervisor.hears("READY=1", 1, restart));
        ASSERT_TRUE(supervisor.hears("WATCHDOG=1", 3, restart));
        Listener listener(daemon);
        ASSERT_TRUE(listener.connect());
        ASSERT_TRUE(eventually([&] { return listener.client.adapterState().value == ORU_ZB_ADAPTER_SERVICE_READY; }));
        ASSERT_EQ(listener.client.deviceCount().value, before.size());
        for (uint32_t i = 0; i < before.size(); ++i) {
            const oruZb_device_t device = listener.client.deviceByIndex(i).value;
            EXPECT_EQ(memcmp(&device, &before[Listener::eui(device)], sizeof device), 0) << i;
            ASSERT_TRUE(listener.client.sendCommand(toggle(device.node_id)).ok());
        }
        EXPECT_TRUE(eventually([&] { return listener.count(ORU_ZB_SVC_SENDCMD_SUCCESS) == 2; }));
        EXPECT_TRUE(eventually([&] { return listener.count(ORU_ZB_SVC_INCOMING_MSG) >= 2; })); // default responses
        EXPECT_EQ(daemon.end(restarts == 0 ? SIGTERM : SIGINT), 0);
    }
}

TEST(OutputTest, OutlivesTheReaderOfItsOutput) {
    for (const bool from_the_start : {true, false}) {
        SCOPED_TRACE(from_the_start);
        int ends[2];
        ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
        Daemon daemon;
        daemon.log = "sink = \"stderr\"\nlevel = \"debug\"\n";
        daemon.in_child = [&] {
            dup2(ends[1], 1);
            dup2(ends[1], 2);
        };
        if (from_the_start) {
            close(ends[0]);
        }
        daemon.start();
        close(ends[1]);
        Listener listener(daemon);
        ASSERT_TRUE(listener.connect());
        if (!from_the_start) {
            close(ends[0]);
        }
        ASSERT_TRUE(listener.formAndOpen());
        ASSERT_TRUE(daemon.simJoin(0));
        EXPECT_TRUE(eventually([&] { return listener.count(ORU_ZB_SVC_DEVICE_DISCOVERED) == 1; }));
        EXPECT_EQ(daemon.end(SIGTERM), 0);
    }
}

// Two ends, of which the second takes nothing any more.
std::pair<int, int> stalled(bool terminal) {
    int ends[2] = {-1, -1};
    if (terminal) {
        ends[0] = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        EXPECT_TRUE(grantpt(ends[0]) == 0 && unlockpt(ends[0]) == 0);
        ends[1] = open(ptsname(ends[0]), O_RDWR | O_NOCTTY | O_CLOEXEC);
        termios raw{};
        cfmakeraw(&raw);
        EXPECT_EQ(tcsetattr(ends[1], TCSANOW, &raw), 0);
    } else {
        EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    }
    const int mode = fcntl(ends[1], F_GETFL);
    (void)fcntl(ends[1], F_SETFL, mode | O_NONBLOCK);
    while (write(ends[1], "#", 1) == 1) {
    }
    (void)fcntl(ends[1], F_SETFL, mode);
    (void)fcntl(ends[0], F_SETFL, O_NONBLOCK);
    return {ends[0], ends[1]};
}

std::string drain(int reader) {
    std::string text;
    char part[4096];
    for (ssize_t size = 0; (size = read(reader, part, sizeof part)) > 0;) {
        text.append(part, static_cast<std::size_t>(size));
    }
    return text;
}

TEST(OutputTest, AStalledReaderHoldsUpNeitherStartNorServiceNorEnd) {
    for (const bool terminal : {false, true}) {
        SCOPED_TRACE(terminal ? "terminal" : "pipe");
        const auto [reader, writer] = stalled(terminal);
        Daemon daemon;
        daemon.log = "sink = \"stderr\"\n";
        daemon.radio = "watchdog_seconds = 3\n";
        Supervisor supervisor(daemon);
        daemon.in_child = [former = daemon.in_child, end = writer] {
            former();
            dup2(end, 1);
            dup2(end, 2);
        };
        daemon.start();
        ASSERT_TRUE(supervisor.hears("READY=1", 1));
        Listener listener(daemon);
        ASSERT_TRUE(listener.connect());
        ASSERT_TRUE(listener.formAndOpen());
        const auto logMuch = [&] { // more than the log holds back
            for (int i = 0; i < 8000; ++i) {
                ASSERT_TRUE(listener.client.ping().ok());
            }
        };
        logMuch();
        EXPECT_TRUE(supervisor.hears("WATCHDOG=1", 3, Clock::now()));
        std::string text;
        EXPECT_TRUE(eventually([&] {
            text += drain(reader);
            return text.find("oru_log] ") != std::string::npos && text.ends_with("\n");
        })) << text.substr(0, 2000);
        EXPECT_NE(text.find(" log lines dropped\n"), std::string::npos);
        EXPECT_NE(text.find("oru zigbee svc start\n"), std::string::npos) << "from before the reader came back";
        logMuch();
        const auto begin = Clock::now();
        EXPECT_EQ(daemon.end(SIGTERM), 0);
        const auto took = Clock::now() - begin;
        EXPECT_LT(took, 3s); // the two of any end, and the one that the log has for what waits
        std::cout << "ended " << took / 1ms << " ms after the signal\n";
        close(reader);
        close(writer);
    }
}

} // namespace
