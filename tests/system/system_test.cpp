// SPDX-License-Identifier: Apache-2.0
#include "system_fixture.h"
#include <algorithm>
#include <future>
#include <numeric>
#include <random>
#include <set>
#include <sys/prctl.h>
#include <sys/stat.h>

namespace {

class SystemTest : public ::testing::TestWithParam<const char *> {};
INSTANTIATE_TEST_SUITE_P(Modes, SystemTest, ::testing::Values("descriptor", "thread"),
                         [](const auto &row) { return std::string(row.param); });

// Devices join while known ones are sent away, until the daemon is gone.
class Storm {
public:
    static constexpr int DEVICES = 24;

    Storm(Daemon &daemon, Listener &listener, unsigned seed)
        : daemon_(daemon), listener_(listener), random_(seed), thread_([this] { blow(); }) {}
    void end() { thread_.join(); }
    bool sentAway(const oruZb_device_t &device) const { return sent_away_.contains(Listener::eui(device)); }

private:
    void blow() {
        std::vector<int> order(DEVICES);
        std::iota(order.begin(), order.end(), 0);
        std::shuffle(order.begin(), order.end(), random_);
        for (const int i : order) {
            const std::string answer = daemon_.sim("{\"command\":\"join\",\"device\":\"d" + std::to_string(i) + "\"}");
            if (answer.empty()) {
                return;
            }
            if (answer.find("\"ok\":true") == std::string::npos && random_() % 2 == 0) { // in the network already
                sendAway(i);
            }
        }
    }
    void sendAway(int i) {
        const corvane::Eui64 eui64{0x02, 0, 0, 0xFF, 0xFE, 0, 1, static_cast<uint8_t>(i / 10 * 16 + i % 10)};
        const auto device = listener_.client.deviceByEui64(eui64);
        if (!device.ok()) { // joined before a kill, never discovered: it goes by itself
            (void)daemon_.sim("{\"command\":\"leave\",\"device\":\"d" + std::to_string(i) + "\"}");
            return;
        }
        oruZb_nodeInfo_t node{};
        node.id = device.value.node_id;
        memcpy(node.device_info.eui64, eui64.data(), eui64.size());
        sent_away_.insert(Listener::eui(device.value));
        (void)listener_.client.nodeLeave(node, nullptr);
    }

    Daemon &daemon_;
    Listener &listener_;
    std::mt19937 random_;
    std::set<uint64_t> sent_away_;
    std::thread thread_;
};

// Every device whose discovery was announced is there after a kill, byte for byte, and so is every other known one.
TEST(CrashTest, NothingAnnouncedIsLostByKill) {
    const char *wanted = getenv("CORVANE_CRASHES");
    const int crashes = wanted != nullptr ? atoi(wanted) : 12;
    const char *seed_text = getenv("CORVANE_SEED");
    std::mt19937 random(seed_text != nullptr ? static_cast<unsigned>(atoi(seed_text)) : 1);
    Daemon daemon;
    daemon.scenario = Daemon::routers(Storm::DEVICES);
    int discoveries = 0, compared = 0;
    for (int crash = 0; crash < crashes; ++crash) {
        daemon.start();
        Listener listener(daemon);
        ASSERT_TRUE(listener.connect());
        ASSERT_TRUE(eventually([&] { return listener.up(); }));
        if (listener.client.adapterState().value == ORU_ZB_ADAPTER_SERVICE_READY) {
            ASSERT_TRUE(listener.client.permitJoin(true).ok());
        } else {
            ASSERT_TRUE(listener.formAndOpen());
        }
        std::map<uint64_t, oruZb_device_t> expected;
        for (uint32_t i = 0; i < listener.client.deviceCount().value; ++i) {
            const oruZb_device_t device = listener.client.deviceByIndex(i).value;
            expected[Listener::eui(device)] = device;
        }
        const auto end = Clock::now() + std::chrono::milliseconds(20 + random() % 400);
        Storm storm(daemon, listener, static_cast<unsigned>(random()));
        std::this_thread::sleep_until(end);
        (void)daemon.end(SIGKILL);
        storm.end();
        ASSERT_TRUE(eventually([&] { return !listener.client.connected(); }, 5s));
        discoveries += listener.count(ORU_ZB_SVC_DEVICE_DISCOVERED);
        for (const auto &[eui64, device] : listener.discovered()) {
            expected[eui64] = device;
        }

        daemon.start();
        Listener after(daemon);
        ASSERT_TRUE(after.connect());
        ASSERT_TRUE(eventually([&] { return after.client.deviceCount().ok(); })); // calls are taken from then on
        for (const auto &[eui64, device] : expected) {
            corvane::Eui64 key{};
            memcpy(key.data(), device.device_info.eui64, key.size());
            const auto found = after.client.deviceByEui64(key);
            if (storm.sentAway(device) && found.status == ORU_STATUS_NOT_FOUND) {
                continue;
            }
            ASSERT_TRUE(found.ok()) << found.describe() << ", kill " << crash;
            EXPECT_EQ(memcmp(&found.value, &device, sizeof device), 0) << "kill " << crash;
            ++compared;
        }
        ASSERT_EQ(daemon.end(SIGTERM), 0);
    }
    EXPECT_GT(discoveries, crashes);
    std::cout << crashes << " kills, " << discoveries << " discoveries, " << compared << " records compared\n";
}

TEST_P(SystemTest, TerminatesWithinTwoSecondsUnderLoad) {
    Daemon daemon(GetParam());
    daemon.start();
    std::vector<std::unique_ptr<Listener>> listeners;
    for (int i = 0; i < 8; ++i) {
        listeners.push_back(std::make_unique<Listener>(daemon));
        ASSERT_TRUE(listeners.back()->connect());
    }
    ASSERT_TRUE(listeners[0]->formAndOpen());
    (void)daemon.simJoin(0);
    std::atomic<bool> over{false};
    std::vector<std::jthread> load;
    for (auto &listener : listeners) {
        load.emplace_back([&over, &listener] {
            while (!over) {
                (void)listener->client.sendCommandAsync(toggle(0x1234), nullptr);
                (void)listener->client.serverPing();
                (void)listener->client.asyncPing(nullptr);
            }
        });
    }
    EXPECT_TRUE(eventually([&] { return listeners[0]->count(ORU_ZB_SVC_DEVICE_DISCOVERED) == 1; }));
    const auto begin = Clock::now();
    EXPECT_EQ(daemon.end(SIGTERM), 0);
    EXPECT_LT(Clock::now() - begin, 2s);
    over = true;
}

TEST_P(SystemTest, WaitsForTheAdapterWhenAsked) {
    Daemon daemon(GetParam());
    daemon.radio = "wait_for_adapter = true\n";
    daemon.arguments = {"-p", "virtual:later.toml"};
    daemon.start();
    Listener listener(daemon);
    ASSERT_TRUE(listener.connect());
    ASSERT_TRUE(eventually([&] { return daemon.said().find("(waiting for it)") != std::string::npos; }));
    EXPECT_EQ(listener.client.adapterState().value, ORU_ZB_ADAPTER_TURNING_ON);
    EXPECT_TRUE(eventually([&] { return listener.client.setRegion("DE").ok(); })); // for the adapter when it comes
    daemon.write("later.toml", daemon.scenario);
    EXPECT_TRUE(listener.formAndOpen());
    const std::string said = daemon.said();
    EXPECT_EQ(said.find("(waiting for it)"), said.rfind("(waiting for it)"));
    EXPECT_EQ(said.find(" error "), said.rfind(" error ")) << said;
    EXPECT_EQ(daemon.end(SIGTERM), 0);
}

TEST(BadInputTest, ClearErrors) {
    struct Row {
        const char *what;
        std::function<void(Daemon &)> spoil;
        int exit_status; // -1: any but 0
        std::vector<std::string> said;
    };
    const auto port = [](const char *name) { return [name](Daemon &d) { d.arguments = {"-p", name}; }; };
    const std::vector<Row> rows = {
        {"unknown key", [](Daemon &d) { d.config = "[store]\nfolder = \"x\"\n"; }, -1, {":8:1", "folder"}},
        {"syntax", [](Daemon &d) { d.config = "[store\n"; }, -1, {":7:7"}},
        {"scenario syntax", [](Daemon &d) { d.scenario = "name = \"x\"\nseed = twelve\n"; }, 0, {"scenario.toml:2:"}},
        {"scenario value", [](Daemon &d) { d.scenario += "link_quality = 900\n"; }, 0, {"scenario.toml:"}},
        {"no scenario", port("virtual:nowhere.toml"), 0, {"nowhere.toml"}},
        {"no such device", port("/dev/ttyNONE9"), 0, {"/dev/ttyNONE9"}},
        {"not an adapter", port("/dev/null"), 0, {"/dev/null"}},
        {"state folder is a file",
         [](Daemon &d) {
             std::filesystem::remove(d.path("state"));
             d.write("state", "");
         },
         -1,
         {"/state"}},
        {"no state folder anywhere",
         [](Daemon &d) {
             std::filesystem::remove_all(d.path("state"));
             d.config = "[store]\ndirectory = \"/proc/nope/state\"\n";
         },
         -1,
         {"/proc/nope/state"}},
        {"no configuration file",
         [](Daemon &d) {
             d.in_child = [] { unlink("corvane.toml"); };
             d.arguments = {"-p", "/dev/null"};
         },
         0,
         {"file corvane.toml cannot be read: No such file"}},
        {"options end at the first argument that is none",
         [](Daemon &d) {
             d.in_child = [] { setenv("POSIXLY_CORRECT", "1", 1); };
             d.arguments = {"-p", "virtual:nowhere.toml"};
         },
         0,
         {"nowhere.toml"}},
        {"help", [](Daemon &d) { d.arguments = {"-h"}; }, 1, {"Usage: corvane -B|-h|-p <port>", "\t -h : print this"}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        Daemon daemon;
        row.spoil(daemon);
        daemon.start();
        const auto started = [&] { return daemon.said().find("started in") != std::string::npos; };
        ASSERT_TRUE(eventually([&] { return daemon.hasEnded() || started(); }));
        const int status = started() ? daemon.end(SIGKILL) : daemon.wait();
        EXPECT_TRUE(WIFEXITED(status)) << status;
        if (row.exit_status >= 0) {
            EXPECT_EQ(WEXITSTATUS(status), row.exit_status);
        } else {
            EXPECT_NE(WEXITSTATUS(status), 0);
        }
        for (const std::string &part : row.said) {
            EXPECT_NE(daemon.said().find(part), std::string::npos) << part << "\n" << daemon.said();
        }
    }
}

TEST(DaemonOptionTest, ServiceGoesOnInAChildProcess) {
    prctl(PR_SET_CHILD_SUBREAPER, 1); // the end of the child is then reported here
    Daemon daemon;
    daemon.arguments.insert(daemon.arguments.begin(), "-B");
    daemon.in_child = [] { setpgid(0, 0); };
    const pid_t group = daemon.start();
    EXPECT_EQ(daemon.wait(), 0);
    Listener listener(daemon);
    EXPECT_TRUE(listener.connect() && listener.formAndOpen());
    EXPECT_NE(daemon.said().find("oruZb_svc: daemon created"), std::string::npos);
    ASSERT_EQ(kill(-group, SIGTERM), 0);
    int status = -1;
    EXPECT_GT(waitpid(-group, &status, 0), 0);
    EXPECT_EQ(status, 0);
    prctl(PR_SET_CHILD_SUBREAPER, 0);
}

TEST(StartTest, PreparesWhatBelongsToTheProcess) {
    Daemon daemon;
    daemon.in_child = [] {
        for (const int stream : {0, 1, 2}) {
            close(stream);
        }
        (void)signal(SIGHUP, SIG_IGN); // as nohup does
    };
    daemon.start();
    Listener listener(daemon);
    ASSERT_TRUE(listener.connect());
    const std::string process = "/proc/" + std::to_string(daemon.pid());
    for (const std::string stream : {"0", "1", "2"}) {
        EXPECT_EQ(std::filesystem::read_symlink(process + "/fd/" + stream), "/dev/null");
    }
    EXPECT_EQ(daemon.read("state/corvane.lock"), "");
    std::ifstream limits(process + "/limits");
    const std::string text{std::istreambuf_iterator<char>(limits), {}};
    EXPECT_EQ(text.substr(text.find("Max core file size") + 18, 45).find_first_of("123456789u"), std::string::npos)
        << text;

    std::filesystem::rename(daemon.path("log"), daemon.path("old"));
    kill(daemon.pid(), SIGHUP);
    EXPECT_TRUE(
        eventually([&] { return daemon.read("log").find("SIGHUP: the log goes on here") != std::string::npos; }));
    EXPECT_EQ(listener.client.ping().value, "pong");
    EXPECT_EQ(daemon.end(SIGTERM), 0);

    daemon.arguments = {"-h"};
    std::filesystem::remove_all(daemon.path("state"));
    daemon.start();
    EXPECT_EQ(WEXITSTATUS(daemon.wait()), EXIT_FAILURE);
    EXPECT_FALSE(std::filesystem::exists(daemon.path("state"))) << "who asks for help wants nothing else";
}

// How often a text stands in the memory of a process, and how often where a core dump would show it.
struct Traces {
    int found, dumped;
};
Traces tracesOf(const std::string &text, pid_t process) {
    const std::string folder = "/proc/" + std::to_string(process);
    std::ifstream areas(folder + "/smaps");
    std::ifstream memory(folder + "/mem", std::ios::binary);
    Traces traces{0, 0};
    int found = 0;
    for (std::string line; std::getline(areas, line);) {
        unsigned long first = 0, end = 0;
        char readable = 0, writable = 0;
        if (sscanf(line.c_str(), "%lx-%lx %c%c", &first, &end, &readable, &writable) == 4) {
            std::string area(writable == 'w' ? end - first : 0, '\0');
            memory.clear();
            memory.seekg(static_cast<std::streamoff>(first));
            memory.read(area.data(), static_cast<std::streamsize>(area.size()));
            found = 0;
            for (std::size_t at = area.find(text); at != std::string::npos; at = area.find(text, at + 1)) {
                ++found;
            }
        } else if (line.starts_with("VmFlags:")) {
            traces.found += found;
            traces.dumped += line.find(" dd") == std::string::npos ? found : 0;
        }
    }
    return traces;
}

TEST(MemoryTest, InstallCodesLeaveNoTrace) {
    if (SANITIZED) {
        GTEST_SKIP() << "a sanitizer keeps what is freed";
    }
    Daemon daemon;
    daemon.start();
    oruZb_ztsDeviceInfo_t device{
        {2, 0, 0, 0xFF, 0xFE, 0, 1, 0}, // the code and its CRC
        {0x83, 0xFE, 0xD3, 0x40, 0x7A, 0x93, 0x97, 0x23, 0xA5, 0xC6, 0x39, 0xB2, 0x69, 0x16, 0xD5, 0x05, 0xC3, 0xB5}};
    const std::string code(reinterpret_cast<const char *>(device.install_code), 16);
    {
        Listener listener(daemon);
        ASSERT_TRUE(listener.connect());
        ASSERT_TRUE(listener.formAndOpen());
        ASSERT_TRUE(listener.client.ztsAdd({&device, 1}).ok());
        ASSERT_TRUE(listener.client.ztsEnable(nullptr).ok());
        EXPECT_TRUE(eventually([&] { return tracesOf(code, daemon.pid()).found == 2; })); // the list and the key table
        EXPECT_EQ(tracesOf(code, daemon.pid()).dumped, 0);
        ASSERT_TRUE(listener.client.ztsDisable(nullptr).ok());
        ASSERT_TRUE(listener.client.ztsClear().ok());
    }
    EXPECT_TRUE(eventually([&] { return tracesOf(code, daemon.pid()).found == 0; }))
        << tracesOf(code, daemon.pid()).found;
    EXPECT_EQ(daemon.end(SIGTERM), 0);
}

// Nothing is written to a file that replaced the store's own, and whoever asked is told.
TEST(StoreStateTest, ClientsLearnThatTheStoreFails) {
    Daemon daemon;
    daemon.start();
    Listener listener(daemon);
    std::promise<corvane::StoreState> told;
    listener.client.onPlatformEvent([&](const auto &event) { told.set_value(event.store().value()); });
    ASSERT_TRUE(listener.connect() && listener.formAndOpen());
    const auto info = listener.client.platformInfo();
    ASSERT_TRUE(info.ok());
    EXPECT_EQ(info.value.process_id, static_cast<uint32_t>(daemon.pid()));
    EXPECT_EQ(info.value.store.condition, corvane::StoreCondition::sound);
    EXPECT_EQ(listener.client.subscribe(1U << corvane::PLATFORM_EVENT_STORE_CHANGED).value, 2U);
    std::filesystem::remove(daemon.path("state/corvane.db"));
    daemon.write("state/corvane.db", "another file");
    ASSERT_TRUE(daemon.simJoin(0)); // something to store
    auto state = told.get_future();
    ASSERT_EQ(state.wait_for(20s), std::future_status::ready);
    const auto store = state.get();
    EXPECT_EQ(store.condition, corvane::StoreCondition::in_memory);
    EXPECT_NE(store.reason.find("was replaced"), std::string::npos) << store.reason;
    listener.client.subscribe(0);
}

TEST(SecondDaemonTest, LeavesTheFirstAlone) {
    Daemon daemon;
    daemon.start();
    Listener listener(daemon);
    ASSERT_TRUE(listener.connect());
    const pid_t first = daemon.pid();
    const pid_t second = daemon.start();
    int status = 0;
    ASSERT_EQ(waitpid(second, &status, 0), second);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) != 0);
    EXPECT_EQ(listener.client.ping().value, "pong");
    kill(first, SIGTERM);
    ASSERT_EQ(waitpid(first, &status, 0), first);
    EXPECT_EQ(status, 0);
}

TEST(ModesTest, FilesAndSocketsAreNotForEverybody) {
    Daemon daemon;
    daemon.start();
    Listener listener(daemon);
    ASSERT_TRUE(listener.connect());
    ASSERT_TRUE(listener.formAndOpen());
    for (const auto &[name, mode] : std::map<std::string, unsigned>{
             {"run/corvane.sock", 0660}, {"run/corvane-sim.sock", 0600}, {"state/corvane.db", 0600}}) {
        struct stat info {};
        ASSERT_EQ(stat(daemon.path(name).c_str(), &info), 0) << name;
        EXPECT_EQ(info.st_mode & 0777, mode) << name;
    }
    EXPECT_EQ(daemon.end(SIGTERM), 0);
}

} // namespace
