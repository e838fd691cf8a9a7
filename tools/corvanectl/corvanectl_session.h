// SPDX-License-Identifier: Apache-2.0
//
// What all commands share: the settings of the command line, one connection made on first use, and failures as
// exceptions that main() turns into a sentence, a JSON object and an exit status.
#pragma once
#include "corvane_client.h"
#include "corvanectl_output.h"
#include "corvanectl_parse.h"
#include "corvanectl_records.h"
#include <deque>
#include <functional>
#include <stdexcept>
#include <string>

namespace CLI {
class App;
}

namespace corvane::ctl {

enum class Exit : int {
    Done = 0,
    Refused = 1, // the service or the mesh refused, or answered an error
    Usage = 2,
    NoService = 3,
    ConnectionLost = 4, // or turned away
    TimedOut = 5,
};

const char *exitName(Exit exit); // "TIMED_OUT"; what stands for a status where nobody answered one

struct Failure : std::runtime_error {
    Failure(Exit code, const std::string &message)
        : std::runtime_error(message), exit(code), status_name(exitName(code)) {}
    Failure(Exit code, const std::string &message, int value, std::string name)
        : std::runtime_error(message), exit(code), status(value), status_name(std::move(name)) {}

    Exit exit;
    std::optional<int> status; // what the service, the radio or a device answered
    std::string status_name;
    Json details = Json::object(); // added to the JSON object
};

struct Settings {
    std::string socket;
    std::string sim_socket;
    double timeout_s = 10;
    bool json = false;
};

struct StoredEvent {
    uint16_t id;
    std::vector<uint8_t> payload;

    Event view() const { return {id, payload}; }
};

class Session {
public:
    using EventFilter = std::function<bool(const Event &)>;

    Settings settings;
    std::function<void()> run; // the chosen command, set while the command line is read

    Milliseconds timeout() const;
    std::string socketPath() const;
    std::string simSocketPath() const;

    // Connected; Failure when that does not work. A service that is just starting is waited for.
    Client &client();
    void awaitSettledAdapter(); // until it is on its way no longer, or the time is up
    // Live events go to `handler` instead of being kept for waitEvent(). Before the first client().
    void listen(EventHandler handler) { live_ = std::move(handler); }

    // Throws a Failure that begins with `what` unless the outcome is ok.
    void require(const Outcome &outcome, std::string_view what) const;
    template <class T>
    T value(const Result<T> &result, std::string_view what) const {
        require(result, what);
        return result.value;
    }
    [[noreturn]] void fail(const Outcome &outcome, std::string_view what) const;

    // An asynchronous call from start to callback. Answered with a status other than 0, or not at all: Failure.
    void complete(std::string_view what, const std::function<Outcome(Client &, Completion)> &call);

    // A command from start to end. Failure when it is not taken over, or the connection is lost.
    Exchange exchange(std::string_view what, const oruZb_clusterCmd_t &command, const ExchangeOptions &options);

    // Waits for one of the events since the connection was made that the filter accepts, and takes it.
    std::optional<StoredEvent> waitEvent(const EventFilter &filter, Milliseconds timeout);
    bool poll(const std::function<bool()> &done, Milliseconds timeout); // Failure when the connection is lost

    // The device, by whatever key; Failure with the key in its sentence when there is none.
    oruZb_device_t findDevice(const DeviceRef &ref);
    // One by one: asking for pages of them writes errors into the service's log as long as more remain.
    std::vector<oruZb_device_t> allDevices();

    // One answer: the object with --json, else the text.
    void answer(const Json &object, std::string_view text) const;

private:
    void keep(const Event &event);
    Outcome connectPatiently(const Options &options);

    static constexpr std::size_t MAX_KEPT = 1000;
    Client client_;
    bool connected_ = false;
    bool just_started_ = false; // the service was not there at first
    EventHandler live_;
    std::deque<StoredEvent> events_;
};

std::string describeRef(const DeviceRef &ref);

constexpr uint16_t NO_ADDRESS = 0xFFFE; // node id of a device that cannot be reached now
void requireAddress(uint16_t node_id);  // Failure when it is none

// Each registers its commands; the callbacks set Session::run.
void addServiceCommands(CLI::App &app, Session &session); // ping, state, form, permit, install-codes, ...
void addRadioCommands(CLI::App &app, Session &session);   // radio, leave, clear, reset, scan, counters, ...
void addDeviceCommands(CLI::App &app, Session &session);  // devices, nodes, info, bind
void addSendCommands(CLI::App &app, Session &session);    // send, interpan
void addLatencyCommand(CLI::App &app, Session &session);
void addTableCommands(CLI::App &app, Session &session);   // children, routes, neighbors, map
void addMonitorCommands(CLI::App &app, Session &session); // monitor, wait
void addSimCommands(CLI::App &app, Session &session);

} // namespace corvane::ctl
