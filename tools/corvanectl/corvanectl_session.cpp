// SPDX-License-Identifier: Apache-2.0
#include "corvanectl_session.h"
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fmt/format.h>
#include <thread>
#include <unistd.h>

namespace corvane::ctl {

namespace {

using Clock = std::chrono::steady_clock;

constexpr double MAX_TIMEOUT_S = 86400;
constexpr Milliseconds START_UP{5000}; // time that a service has to come up, and its adapter after it
constexpr Milliseconds START_UP_POLL{50};
constexpr const char *CONNECTION_LOST = "the service ended the connection; has it been stopped?";

Exit exitOf(const Outcome &outcome) {
    switch (outcome.transport) {
    case Transport::Ok:
        return Exit::Refused;
    case Transport::NoService:
        return Exit::NoService;
    case Transport::Refused:
    case Transport::ConnectionLost:
    case Transport::OtherVersion:
        return Exit::ConnectionLost;
    case Transport::TimedOut:
        return Exit::TimedOut;
    case Transport::Invalid:
        return Exit::Usage;
    }
    return Exit::Refused;
}

} // namespace

const char *exitName(Exit exit) {
    switch (exit) {
    case Exit::Done:
        return "OK";
    case Exit::Refused:
        return "REFUSED";
    case Exit::Usage:
        return "USAGE";
    case Exit::NoService:
        return "NO_SERVICE";
    case Exit::ConnectionLost:
        return "CONNECTION_LOST";
    case Exit::TimedOut:
        return "TIMED_OUT";
    }
    return "";
}

Milliseconds Session::timeout() const {
    return Milliseconds(static_cast<int64_t>(std::clamp(settings.timeout_s, 0.0, MAX_TIMEOUT_S) * 1000));
}

std::string Session::socketPath() const {
    return settings.socket.empty() ? defaultSocketPath() : settings.socket;
}

std::string Session::simSocketPath() const {
    if (!settings.sim_socket.empty()) {
        return settings.sim_socket;
    }
    const char *own = std::getenv("CORVANE_SIM_SOCKET");
    return own != nullptr && *own != '\0'
               ? std::string(own)
               : (std::filesystem::path(socketPath()).parent_path() / "corvane-sim.sock").string();
}

Client &Session::client() {
    if (connected_) {
        return client_;
    }
    client_.onEvent([this](const Event &event) { live_ ? live_(event) : keep(event); });
    Options options;
    options.socket_path = socketPath();
    options.connect_timeout = timeout();
    options.call_timeout = timeout();
    options.completion_timeout = timeout();
    const Outcome outcome = connectPatiently(options);
    if (outcome.transport == Transport::Invalid) {
        throw UsageError(fmt::format("\"{}\" is too long for the path of a socket", options.socket_path));
    }
    if (outcome.transport == Transport::NoService) {
        throw Failure(Exit::NoService, fmt::format("no service at {}: is corvane running, and may this user use the "
                                                   "socket?",
                                                   options.socket_path));
    }
    if (outcome.transport == Transport::Refused && outcome.status == ORU_STATUS_BUSY) {
        throw Failure(Exit::ConnectionLost, "the service has no place for another client now; end one and try again",
                      outcome.status, statusName(outcome.status));
    }
    require(outcome, "connecting to " + options.socket_path);
    connected_ = true;
    if (just_started_) {
        awaitSettledAdapter();
    }
    return client_;
}

Outcome Session::connectPatiently(const Options &options) {
    const auto deadline = Clock::now() + std::min(timeout(), START_UP);
    for (;;) {
        Outcome outcome = client_.connect(options);
        const bool forbidden = ::access(options.socket_path.c_str(), W_OK) != 0 && errno == EACCES;
        if (outcome.transport != Transport::NoService || forbidden || Clock::now() >= deadline) {
            return outcome;
        }
        just_started_ = true;
        std::this_thread::sleep_for(START_UP_POLL);
    }
}

void Session::awaitSettledAdapter() {
    const auto onItsWay = [this] {
        const auto state = client().adapterState();
        return state.ok() &&
               (state.value == ORU_ZB_ADAPTER_TURNING_ON || (just_started_ && state.value == ORU_ZB_ADAPTER_OFF));
    };
    for (const auto deadline = Clock::now() + std::min(timeout(), START_UP); onItsWay() && Clock::now() < deadline;) {
        client_.pollUntil([] { return false; }, START_UP_POLL);
    }
}

void Session::fail(const Outcome &outcome, std::string_view what) const {
    const std::string message = fmt::format("{}: {}", what, outcome.describe());
    const bool has_status = outcome.status != ORU_STATUS_OK;
    Failure failure(exitOf(outcome), message);
    if (has_status) {
        failure.status = outcome.status;
        failure.status_name = statusName(outcome.status);
    }
    throw failure;
}

void Session::require(const Outcome &outcome, std::string_view what) const {
    if (!outcome.ok()) {
        fail(outcome, what);
    }
}

void Session::complete(std::string_view what, const std::function<Outcome(Client &, Completion)> &call) {
    std::optional<Outcome> completed;
    require(call(client(), [&](const Outcome &outcome) { completed = outcome; }), what);
    // The library times the call out by itself; the second on top only guards against waiting for ever.
    client_.pollUntil([&] { return completed || !client_.connected(); }, timeout() + Milliseconds(1000));
    client_.poll(Milliseconds(0)); // the completion of a lost connection may still wait for delivery
    require(completed.value_or(Outcome{Transport::ConnectionLost, ORU_STATUS_OK}), what);
}

Exchange Session::exchange(std::string_view what, const oruZb_clusterCmd_t &command, const ExchangeOptions &options) {
    std::optional<Exchange> ended;
    require(client().startExchange(command, options, [&](const Exchange &exchange) { ended = exchange; }), what);
    client_.pollUntil([&] { return ended.has_value(); }, Milliseconds::max());
    if (!ended->answered() && ended->transport != Transport::TimedOut) {
        throw Failure(Exit::ConnectionLost, CONNECTION_LOST);
    }
    return *ended;
}

bool Session::poll(const std::function<bool()> &done, Milliseconds wait) {
    bool reached = false;
    client().pollUntil([&] { return (reached = done()) || !client_.connected(); }, wait);
    if (!reached && !client_.connected()) {
        throw Failure(Exit::ConnectionLost, CONNECTION_LOST);
    }
    return reached;
}

void Session::keep(const Event &event) {
    if (events_.size() == MAX_KEPT) {
        events_.pop_front();
    }
    events_.push_back({event.id, {event.payload.begin(), event.payload.end()}});
}

std::optional<StoredEvent> Session::waitEvent(const EventFilter &filter, Milliseconds wait) {
    std::optional<StoredEvent> found;
    const auto look = [&] {
        const auto match = std::ranges::find_if(events_, [&](const auto &event) { return filter(event.view()); });
        if (match != events_.end()) {
            found = std::move(*match);
            events_.erase(match);
        }
        return found.has_value();
    };
    poll(look, wait);
    return found;
}

std::string describeRef(const DeviceRef &ref) {
    if (const auto *node_id = std::get_if<uint16_t>(&ref)) {
        return hexUpper(*node_id);
    }
    if (const auto *eui64 = std::get_if<Eui64>(&ref)) {
        return formatEui64(eui64->data());
    }
    return fmt::format("#{}", std::get<uint32_t>(ref));
}

oruZb_device_t Session::findDevice(const DeviceRef &ref) {
    Client &service = client();
    Result<oruZb_device_t> result;
    if (const auto *node_id = std::get_if<uint16_t>(&ref)) {
        result = service.deviceByNodeId(*node_id);
    } else if (const auto *eui64 = std::get_if<Eui64>(&ref)) {
        result = service.deviceByEui64(*eui64);
    } else {
        result = service.deviceByIndex(std::get<uint32_t>(ref));
    }
    if (result.answered() && result.status == ORU_STATUS_NOT_FOUND) {
        throw Failure(
            Exit::Refused,
            fmt::format("the service knows no device {}; \"corvanectl devices\" lists them", describeRef(ref)),
            result.status, statusName(result.status));
    }
    return value(result, "device " + describeRef(ref));
}

std::vector<oruZb_device_t> Session::allDevices() {
    std::vector<oruZb_device_t> devices;
    const uint32_t count = value(client().deviceCount(), "number of devices");
    for (uint32_t index = 0; index < count; ++index) {
        const auto device = client().deviceByIndex(index);
        if (device.answered() && device.status == ORU_STATUS_NOT_FOUND) {
            break; // one has left meanwhile
        }
        const auto sameDevice = [&](const oruZb_device_t &known) {
            return std::ranges::equal(known.device_info.eui64, device.value.device_info.eui64);
        };
        if (value(device, "list of devices"); std::ranges::none_of(devices, sameDevice)) { // one has joined meanwhile
            devices.push_back(device.value);
        }
    }
    return devices;
}

void requireAddress(uint16_t node_id) {
    if (node_id == NO_ADDRESS) {
        throw Failure(Exit::Refused, "0xFFFE stands for \"address not known\": another device has taken the node id of "
                                     "this one; it can be reached again when it has announced itself or joined");
    }
}

void Session::answer(const Json &object, std::string_view text) const {
    if (settings.json) {
        printJson(object);
    } else {
        printLine(text);
    }
}

} // namespace corvane::ctl
