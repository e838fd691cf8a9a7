// SPDX-License-Identifier: Apache-2.0
//
// The real daemon in a process of its own, in a folder of its own, on the virtual mesh: real sockets, real store.
#pragma once
#include "../support/records.h"
#include "corvane_client.h"
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// Sanitizers keep freed memory, and shadow the rest.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool SANITIZED = true;
#else
inline constexpr bool SANITIZED = false;
#endif

inline bool eventually(const std::function<bool()> &condition, std::chrono::milliseconds limit = 20s) {
    const auto end = Clock::now() + limit;
    while (!condition()) {
        if (Clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(2ms);
    }
    return true;
}

class Daemon {
public:
    explicit Daemon(std::string event_mode = "descriptor") : event_mode_(std::move(event_mode)) {
        char name[] = "/tmp/corvane-system.XXXXXX";
        folder_ = mkdtemp(name);
        log = "sink = \"file\"\nfile = \"" + folder_ + "/log\"\n";
        std::filesystem::create_directory(folder_ + "/run");
        std::filesystem::create_directory(folder_ + "/state");
        scenario = routers(6);
    }
    ~Daemon() {
        if (pid_ > 0) {
            (void)end(SIGKILL);
        }
        if (!::testing::Test::HasFailure()) {
            std::filesystem::remove_all(folder_);
        } else {
            std::cerr << "kept: " << folder_ << "\n";
        }
    }
    Daemon(const Daemon &) = delete;
    Daemon &operator=(const Daemon &) = delete;

    std::string scenario, config;   // texts of the two files; config beside the log and the radio
    std::string log, radio;         // settings of those two tables, radio beside the event mode
    std::function<void()> in_child; // runs in the daemon's process before it becomes the daemon
    std::vector<std::string> arguments{"-p", "virtual:scenario.toml"};

    // A mesh of routers d0, d1, ... with one on/off endpoint each, quick on the air; `more` is added to each.
    static std::string routers(int count, const std::string &more = {}) {
        std::ostringstream text;
        text << "name = \"test\"\nseed = 3\nspeed = 20.0\n[coordinator]\nstartup_ms = 5\nform_ms = 10\n"
                "[air]\ndelay_ms = 1\njitter_ms = 0\nshared_medium = false\n";
        for (int i = 0; i < count; ++i) {
            text << "[[device]]\nname = \"d" << i << "\"\neui64 = \"02:00:00:ff:fe:00:01:" << (i < 10 ? "0" : "") << i
                 << "\"\nrole = \"router\"\n[[device.endpoint]]\nid = 1\ndevice_id = 0x0100\n"
                    "input_clusters = [\"basic\", \"on_off\"]\n"
                 << more;
        }
        return text.str();
    }

    pid_t start() {
        write("scenario.toml", scenario);
        write("corvane.toml",
              "version = 1\n[log]\n" + log + "[radio]\nevent_mode = \"" + event_mode_ + "\"\n" + radio + config);
        pid_ = fork();
        if (pid_ == 0) {
            (void)!chdir(folder_.c_str());
            setenv("RUNTIME_DIRECTORY", (folder_ + "/run").c_str(), 1);
            setenv("STATE_DIRECTORY", (folder_ + "/state").c_str(), 1);
            unsetenv("NOTIFY_SOCKET");
            const int output = open("output", O_CREAT | O_WRONLY | O_APPEND, 0600);
            dup2(output, 1);
            dup2(output, 2);
            if (in_child) {
                in_child();
            }
            std::vector<char *> argv{const_cast<char *>(CORVANE_BINARY), const_cast<char *>("corvane.toml")};
            for (std::string &argument : arguments) {
                argv.push_back(argument.data());
            }
            argv.push_back(nullptr);
            execv(CORVANE_BINARY, argv.data());
            _exit(127);
        }
        return pid_;
    }
    // Ends the daemon and gives its wait status.
    int end(int signal) {
        kill(pid_, signal);
        return wait();
    }
    int wait() {
        int status = -1;
        waitpid(pid_, &status, 0);
        pid_ = -1;
        return status;
    }
    bool hasEnded() const { // its status stays for wait()
        siginfo_t info{};
        return waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid != 0;
    }
    pid_t pid() const { return pid_; }

    std::string path(const std::string &name) const { return folder_ + "/" + name; }
    std::string read(const std::string &name) const {
        std::ifstream in(path(name));
        return {std::istreambuf_iterator<char>(in), {}};
    }
    std::string said() const { return read("log") + read("output"); }
    void write(const std::string &name, const std::string &text) const { std::ofstream(path(name)) << text; }

    // One line to the mesh's control socket; empty when it does not answer.
    std::string sim(const std::string &json) const {
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        strncpy(address.sun_path, path("run/corvane-sim.sock").c_str(), sizeof address.sun_path - 1);
        std::string answer;
        if (connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0 &&
            send(fd, (json + "\n").data(), json.size() + 1, MSG_NOSIGNAL) > 0) {
            char byte = 0;
            while (recv(fd, &byte, 1, 0) == 1 && byte != '\n') {
                answer += byte;
            }
        }
        close(fd);
        return answer;
    }
    bool simJoin(int i) const {
        return sim("{\"command\":\"join\",\"device\":\"d" + std::to_string(i) + "\"}").find("\"ok\":true") !=
               std::string::npos;
    }

private:
    std::string folder_, event_mode_;
    pid_t pid_ = -1;
};

// A connected client that remembers what it is told.
class Listener {
public:
    explicit Listener(const Daemon &daemon) : daemon_(daemon) {
        client.onEvent([this](const corvane::Event &event) {
            const std::lock_guard lock(mutex_);
            if (const auto device = event.device(); device && event.id == ORU_ZB_SVC_DEVICE_DISCOVERED) {
                discovered_[eui(*device)] = *device;
            } else if (device && event.id == ORU_ZB_SVC_DEVICE_LEFT) {
                discovered_.erase(eui(*device));
            }
            ++counts_[event.id];
        });
    }
    bool connect() {
        corvane::Options options;
        options.socket_path = daemon_.path("run/corvane.sock");
        return eventually([&] { return client.connect(options).ok(); }, 10s) && client.start();
    }
    int count(uint16_t event) {
        const std::lock_guard lock(mutex_);
        return counts_[event];
    }
    std::map<uint64_t, oruZb_device_t> discovered() {
        const std::lock_guard lock(mutex_);
        return discovered_;
    }
    static uint64_t eui(const oruZb_device_t &device) {
        uint64_t value = 0;
        memcpy(&value, device.device_info.eui64, sizeof value);
        return value;
    }
    bool up() { // the stack has settled, with or without a network
        const oruZb_adapterState_t state = client.adapterState().value;
        return state == ORU_ZB_ADAPTER_ON || state == ORU_ZB_ADAPTER_SERVICE_READY;
    }
    bool formAndOpen() {
        return eventually([&] { return up(); }) && client.formNetworkManual(15, nullptr).ok() &&
               eventually([&] { return client.adapterState().value == ORU_ZB_ADAPTER_SERVICE_READY; }) &&
               client.permitJoin(true).ok();
    }

private:
    const Daemon &daemon_;
    std::mutex mutex_;
    std::map<uint64_t, oruZb_device_t> discovered_;
    std::map<uint16_t, int> counts_;

public:
    corvane::Client client; // last: its handlers use what is above
};
