// SPDX-License-Identifier: Apache-2.0
#include "virtual/control.h"
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <mutex>
#include <nlohmann/json.hpp>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace corvane::mesh {
namespace {

// Notes what it is asked to do. Knows one device, "lamp".
class NotingTarget : public SimTarget {
public:
    std::vector<SimDevice> list() override {
        return {{"lamp", {2, 0, 0, 0, 0, 0, 0, 9}, Role::router, true, 0x1234, "coordinator", 200, "on"}};
    }
    std::string join(const std::string &name) override { return device("join", name); }
    std::string rejoin(const std::string &name, bool secured) override {
        return device(secured ? "rejoin secured" : "rejoin unsecured", name);
    }
    std::string leave(const std::string &name) override { return device("leave", name); }
    std::string announce(const std::string &name) override { return device("announce", name); }
    std::string changeAddress(const std::string &name) override { return device("address", name); }
    std::string report(const std::string &name) override { return device("report", name); }
    std::string setPower(const std::string &name, bool on) override { return device(on ? "on" : "off", name); }
    std::string setAttribute(const std::string &name, uint8_t endpoint, uint16_t cluster_id, uint16_t attribute_id,
                             int64_t value) override {
        return device("set " + std::to_string(endpoint) + " " + std::to_string(cluster_id) + " " +
                          std::to_string(attribute_id) + " " + std::to_string(value),
                      name);
    }
    std::string setFaults(const std::string &name, const Faults &wanted) override {
        faults = wanted;
        return device("faults", name);
    }
    std::string getFaults(const std::string &name, Faults &current) override {
        current = faults;
        return name == "lamp" ? "" : "no device named \"" + name + "\"";
    }
    std::string setAir(const AirSpec &wanted) override {
        air = wanted;
        return note("air");
    }
    AirSpec getAir() override { return air; }
    std::string refuseNext(const std::string &operation, uint32_t count, int32_t status) override {
        return note("refuse " + operation + " " + std::to_string(count) + " " + std::to_string(status));
    }
    std::string adapterReset() override { return note("reset"); }
    std::string adapterFatalError() override { return note("fatal"); }
    std::string adapterHang(uint32_t milliseconds) override { return note("hang " + std::to_string(milliseconds)); }

    std::string note(const std::string &what) {
        done = what;
        return "";
    }
    std::string device(const std::string &what, const std::string &name) {
        return name == "lamp" ? note(what) : "no device named \"" + name + "\"";
    }
    std::string done;
    Faults faults;
    AirSpec air;
};

TEST(MeshControlLine, CommandsReachTheMesh) {
    const std::pair<const char *, const char *> cases[] = {
        {R"({"command":"join","device":"lamp"})", "join"},
        {R"({"command":"rejoin","device":"lamp"})", "rejoin secured"},
        {R"({"command":"rejoin","device":"lamp","secured":false})", "rejoin unsecured"},
        {R"({"command":"leave","device":"lamp"})", "leave"},
        {R"({"command":"announce","device":"lamp"})", "announce"},
        {R"({"command":"address","device":"lamp"})", "address"},
        {R"({"command":"report","device":"lamp"})", "report"},
        {R"({"command":"power","device":"lamp","on":false})", "off"},
        {R"({"command":"set","device":"lamp","cluster":"ias_zone","attribute":"zone_status","value":true})",
         "set 1 1280 2 1"},
        {R"({"command":"set","device":"lamp","endpoint":2,"cluster":1026,"attribute":0,"value":-500})",
         "set 2 1026 0 -500"},
        {R"({"command":"refuse","operation":"sendZclUnicast","count":3,"status":-15})", "refuse sendZclUnicast 3 -15"},
        {R"({"command":"refuse","operation":"enable"})", "refuse enable 1 -1"},
        {R"({"command":"reset"})", "reset"},
        {R"({"command":"fatal"})", "fatal"},
        {R"({"command":"hang","milliseconds":250})", "hang 250"},
    };
    for (const auto &[line, done] : cases) {
        NotingTarget target;
        EXPECT_EQ(handleControlLine(line, target), R"({"ok":true})") << line;
        EXPECT_EQ(target.done, done) << line;
    }
}

TEST(MeshControlLine, SettingsChangeOneByOne) {
    NotingTarget target;
    target.faults.answer_delay_ms = 70;
    const auto after = nlohmann::json::parse(handleControlLine(
        R"({"command":"faults","device":"lamp","faults":{"silent":true,"zdo_length_delta":-3}})", target));
    EXPECT_EQ(after["faults"]["silent"], true);
    EXPECT_EQ(after["faults"]["zdo_length_delta"], -3);
    EXPECT_EQ(after["faults"]["answer_delay_ms"], 70);
    EXPECT_TRUE(target.faults.silent);
    EXPECT_EQ(handleControlLine(R"({"command":"air","air":{"loss":0.25}})", target),
              R"({"air":{"delay_ms":8,"interference":0.0,"jitter_ms":6,"loss":0.25,"max_in_flight":32,)"
              R"("pta_denial":0.0},"ok":true})");
    EXPECT_EQ(target.air.loss, 0.25);
    EXPECT_EQ(handleControlLine(R"({"command":"list"})", target),
              R"({"devices":[{"eui64":"02:00:00:00:00:00:00:09","in_network":true,"link_quality":200,"name":"lamp",)"
              R"("node_id":4660,"parent":"coordinator","role":"router","state":"on"}],"ok":true})");
}

TEST(MeshControlLine, NonsenseIsRefusedAndDoesNothing) {
    const std::pair<std::string, const char *> cases[] = {
        {"", "the request is not valid JSON"},
        {"{", "the request is not valid JSON"},
        {std::string("{\"command\":\"\xff\"}"), "the request is not valid JSON"},
        {std::string(5000, '['), "the request is not valid JSON"},
        {"[]", "the request must be a JSON object"},
        {"{}", "\"command\" is missing"},
        {R"({"command":7})", "\"command\" must be a text that is not empty"},
        {R"({"command":"dance"})", "unknown command \"dance\"; known: list, join, rejoin,"},
        {R"({"command":"list","x":1})", "unknown key \"x\"; known: command"},
        {R"({"command":"join"})", "\"device\" is missing"},
        {R"({"command":"join","device":["lamp"]})", "\"device\" must be a text"},
        {R"({"command":"join","device":"oven"})", "no device named \"oven\""},
        {R"({"command":"rejoin","device":"lamp","secured":1})", "\"secured\" must be true or false"},
        {R"({"command":"power","device":"lamp"})", "\"on\" is missing"},
        {R"({"command":"set","device":"lamp","cluster":"on_of","attribute":0,"value":1})",
         "\"cluster\": there is none named \"on_of\""},
        {R"({"command":"set","device":"lamp","cluster":6,"attribute":"level","value":1})",
         "\"attribute\": there is none named \"level\""},
        {R"({"command":"set","device":"lamp","cluster":65536,"attribute":0,"value":1})",
         "\"cluster\" must be an integer from 0 to 65535"},
        {R"({"command":"set","device":"lamp","cluster":6,"attribute":0,"value":18446744073709551615})",
         "\"value\" must be an integer from -9223372036854775808 to"},
        {R"({"command":"set","device":"lamp","cluster":6,"attribute":0,"value":1.0})", "\"value\" must be an integer"},
        {R"({"command":"set","device":"lamp","cluster":6,"attribute":0})", "\"value\" is missing"},
        {R"({"command":"set","device":"lamp","endpoint":0,"cluster":6,"attribute":0,"value":1})",
         "\"endpoint\" must be an integer from 1 to 240"},
        {R"({"command":"faults","device":"lamp","faults":{"silent":true,"x":1}})", "unknown key \"x\"; known: silent"},
        {R"({"command":"faults","device":"lamp","faults":{"send_status":256}})", "\"send_status\" must be an integer"},
        {R"({"command":"faults","device":"lamp","faults":3})", "\"faults\" must be an object"},
        {R"({"command":"faults","device":"oven"})", "no device named \"oven\""},
        {R"({"command":"air","air":{"loss":1.5}})", "\"loss\" must be a number from 0 to 1"},
        {R"({"command":"air","air":{"loss":"a"}})", "\"loss\" must be a number from 0 to 1"},
        {R"({"command":"refuse","operation":""})", "\"operation\" must be a text that is not empty"},
        {R"({"command":"refuse","operation":"x","status":0})", "\"status\" must not be 0"},
        {R"({"command":"hang"})", "\"milliseconds\" is missing"},
        {R"({"command":"hang","milliseconds":-1})", "\"milliseconds\" must be an integer from 0"},
    };
    for (const auto &[line, error] : cases) {
        NotingTarget target;
        const auto answer = nlohmann::json::parse(handleControlLine(line, target));
        EXPECT_EQ(answer["ok"], false) << line;
        EXPECT_EQ(answer["error"].get<std::string>().substr(0, std::strlen(error)), error) << line;
        EXPECT_EQ(target.done, "") << line;
        EXPECT_FALSE(target.faults.silent) << line;
    }
}

class MeshControlServer : public testing::Test {
protected:
    void SetUp() override {
        char name[] = "/tmp/simctl-XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        folder = name;
        path = folder + "/sim.sock";
    }
    void TearDown() override { std::filesystem::remove_all(folder); }

    int connectClient() const {
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0) << std::strerror(errno);
        const timeval deadline{10, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &deadline, sizeof deadline);
        return fd;
    }
    // Everything up to the line feed; empty when the server closes the connection first.
    static std::string receiveLine(int fd) {
        std::string line;
        for (char c = 0; recv(fd, &c, 1, 0) == 1;) {
            if (c == '\n') {
                return line;
            }
            line += c;
        }
        return "";
    }
    static void sendText(int fd, const std::string &text) {
        EXPECT_EQ(send(fd, text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
    }

    NotingTarget target;
    std::string folder;
    std::string path;
};

TEST_F(MeshControlServer, ServesClientsOneAfterTheOther) {
    const auto server = startControlServer(path, target);
    ASSERT_NE(server, nullptr);
    struct stat info {};
    ASSERT_EQ(stat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777U, 0600U);
    for (int i = 0; i < 20; i++) {
        const int client = connectClient();
        sendText(client, R"({"command":"reset"})"
                         "\nnon");
        EXPECT_EQ(receiveLine(client), R"({"ok":true})");
        sendText(client, "sense\n");
        EXPECT_EQ(receiveLine(client), R"({"error":"the request is not valid JSON","ok":false})");
        close(client);
    }
}

TEST_F(MeshControlServer, RudeClientsDoNoHarm) {
    auto server = startControlServer(path, target);
    ASSERT_NE(server, nullptr);
    const int flooding = connectClient();
    sendText(flooding, std::string(9000, 'x'));
    EXPECT_EQ(receiveLine(flooding), R"({"error":"the request is longer than 8192 bytes","ok":false})");
    const int gone = connectClient(); // closes before its answer
    sendText(gone, "{\"command\":\"list\"}\n");
    close(gone);
    const int stalled = connectClient(); // says half a line and no more: loses the connection, the next is served
    sendText(stalled, "{\"comm");
    const int polite = connectClient();
    sendText(polite, "{\"command\":\"reset\"}\n");
    EXPECT_EQ(receiveLine(polite), R"({"ok":true})");
    EXPECT_EQ(receiveLine(stalled), "");
    server.reset(); // with a client still connected
    EXPECT_FALSE(std::filesystem::exists(path));
    for (const int client : {flooding, stalled, polite}) {
        close(client);
    }
}

TEST_F(MeshControlServer, ReplacesOnlyASocketThatNobodyServes) {
    {
        const int stale = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        ASSERT_EQ(bind(stale, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        close(stale);
    }
    auto server = startControlServer(path, target);
    ASSERT_NE(server, nullptr);
    EXPECT_EQ(startControlServer(path, target), nullptr) << "in use";
    EXPECT_TRUE(std::filesystem::exists(path));
    server.reset();
    std::ofstream(path) << "precious";
    EXPECT_EQ(startControlServer(path, target), nullptr) << "not a socket";
    EXPECT_TRUE(std::filesystem::is_regular_file(path));
    EXPECT_EQ(startControlServer(folder + "/" + std::string(200, 'x'), target), nullptr) << "too long";
    EXPECT_EQ(startControlServer(folder + "/none/sim.sock", target), nullptr) << "no such folder";
}

} // namespace
} // namespace corvane::mesh
