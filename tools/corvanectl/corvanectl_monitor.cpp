// SPDX-License-Identifier: Apache-2.0
//
// Events in words: monitor shows all of them, wait waits for one.
#include "corvanectl_meters.h"
#include "corvanectl_names.h"
#include "corvanectl_send.h"
#include "corvanectl_zcl.h"
#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <deque>
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <map>
#include <memory>
#include <set>

namespace corvane::ctl {

namespace {

using SystemClock = std::chrono::system_clock;

constexpr int NAME_WIDTH = 24;

struct MonitorOptions {
    std::string count;
    double seconds = 0; // 0: without end
    std::vector<std::string> events;
};

std::string timeOfDay(SystemClock::time_point now, const char *format) {
    const auto milliseconds = std::chrono::duration_cast<Milliseconds>(now.time_since_epoch()).count() % 1000;
    return fmt::format(fmt::runtime(fmt::format("{{:{}}}.{{:03}}", format)),
                       fmt::localtime(SystemClock::to_time_t(now)), milliseconds);
}

std::string isoTime(SystemClock::time_point now) {
    const auto milliseconds = std::chrono::duration_cast<Milliseconds>(now.time_since_epoch()).count() % 1000;
    return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:03}Z", fmt::gmtime(SystemClock::to_time_t(now)), milliseconds);
}

Colour colourOf(uint16_t event_id) {
    switch (event_id) {
    case ORU_ZB_SVC_SENDCMD_FAILURE:
    case ORU_ZB_SVC_DEVICE_UNRESPONSIVE:
    case ORU_ZB_SVC_CHANNEL_BUSY:
    case ORU_ZB_SVC_SECURITY_ERROR:
    case ORU_ZB_SVC_ADAPTER_CRITICAL_ERROR:
        return Colour::Red;
    case ORU_ZB_SVC_DEVICE_LEFT:
    case ORU_ZB_SVC_NETWORK_DOWN:
    case ORU_ZB_SVC_ADAPTER_OFF:
        return Colour::Yellow;
    case ORU_ZB_SVC_INCOMING_MSG:
        return Colour::Cyan;
    case ORU_ZB_SVC_SENDCMD_SUCCESS:
        return Colour::Dim;
    default:
        return Colour::Green;
    }
}

uint16_t parseEvent(const std::string &text) {
    const auto events = allEvents();
    const auto found =
        std::ranges::find_if(events, [&](uint16_t id) { return zigbee::isSameName(eventName(id), text); });
    if (found == events.end()) {
        std::string known;
        for (const uint16_t id : events) {
            known += (known.empty() ? "" : ", ") + std::string(eventName(id));
        }
        throw UsageError(fmt::format("there is no event \"{}\"; the events are {}", text, known));
    }
    return *found;
}

// `meters` for an incoming message, otherwise null.
Json commandJson(const oruZb_clusterCmd_t &command, Meters *meters) {
    Json json;
    const bool incoming = meters != nullptr;
    json["node_id"] = hex16(command.dest_node);
    json["endpoint"] = incoming ? command.src_ep : command.dest_ep;
    json["own_endpoint"] = incoming ? command.dest_ep : command.src_ep;
    json["profile"] = hex16(command.profile_id);
    json["cluster"] = hex16(command.cluster_id);
    json["cluster_name"] = zigbee::clusterLabel(command.profile_id, command.cluster_id);
    const Bytes frame = frameOf(command);
    json["payload"] = formatHex(frame);
    json[command.profile_id == PROFILE_ZDO ? "zdo" : "zcl"] =
        decodeFrame(command.profile_id, command.cluster_id, frame, incoming ? &meters->scalesFor(command) : nullptr);
    if (!incoming) {
        json["confirmation_id"] = command.confirmation_id;
        json["status"] = static_cast<int>(command.status);
        json["status_name"] = clusterCommandStatusName(command.status);
    }
    return json;
}

std::string endpointSummary(const oruZb_device_t &device) {
    std::string text;
    for (const auto &endpoint : endpointsOf(device.device_info)) {
        text += fmt::format("{}{}: {}", text.empty() ? "" : ", ", endpoint.endpoint,
                            deviceTypeText(endpoint.profile_id, endpoint.device_id));
    }
    return text;
}

// "event", "id" and what its record tells.
Json eventJson(const Event &event, Meters &meters) {
    Json json;
    json["event"] = eventName(event.id);
    json["id"] = event.id;
    if (const auto device = event.device()) {
        const Json decoded = deviceJson(*device, std::nullopt);
        json["node_id"] = decoded["node_id"];
        json["eui64"] = decoded["eui64"];
        json["manufacturer_code"] = decoded["manufacturer_code"];
        json["capabilities"] = decoded["capabilities"];
        json["endpoints"] = decoded["endpoints"].size();
        if (device->device_info.endpoint_count > 0) { // not while it has only joined
            json["device_name"] = deviceTypeOf(device->device_info);
        }
    } else if (const auto command = event.command()) {
        json.update(commandJson(*command, event.id == ORU_ZB_SVC_INCOMING_MSG ? &meters : nullptr));
    } else if (const auto interpan = event.interpan()) {
        json["sequence"] = interpan->sequence;
        json["status"] = interpan->status;
        json["status_name"] = statusName(static_cast<oru_status_t>(interpan->status));
    } else if (!event.payload.empty()) {
        json["payload"] = formatHex(event.payload); // not a record of the size that the event should carry
    }
    return json;
}

std::string eventText(const Event &event, const Json &decoded) {
    const auto text = [&](const char *key) { return decoded[key].get<std::string>(); };
    if (const auto device = event.device()) {
        const std::string endpoints = endpointSummary(*device);
        return fmt::format("{} {}{}{}", hexUpper(device->node_id), text("eui64"), endpoints.empty() ? "" : "  ",
                           endpoints);
    }
    if (const auto command = event.command()) {
        const bool incoming = event.id == ORU_ZB_SVC_INCOMING_MSG;
        const char *key = decoded.contains("zcl") ? "zcl" : "zdo";
        const std::string place =
            fmt::format("{}/{}", hexUpper(command->dest_node), incoming ? command->src_ep : command->dest_ep);
        const std::string failed =
            incoming || command->status == ORU_ZB_SUCCESS
                ? ""
                : fmt::format("  {} ({})", text("status_name"), static_cast<int>(command->status));
        return fmt::format("{}  {}  {}{}", padded(place, 9),
                           padded(clusterText(command->profile_id, command->cluster_id), 18),
                           decoded[key]["text"].get<std::string>(), paint(Colour::Red, failed));
    }
    if (event.interpan()) {
        return fmt::format("sequence {}  {} ({})", decoded["sequence"].get<int>(), text("status_name"),
                           decoded["status"].get<unsigned>());
    }
    return event.payload.empty() ? "" : "payload " + formatHex(event.payload);
}

// Addresses of the devices that the service knows, so that messages can be told by EUI-64 as well.
class AddressBook {
public:
    void learn(const oruZb_device_t &device) { eui64s_[device.node_id] = formatEui64(device.device_info.eui64); }
    void load(Session &session) {
        for (const auto &device : session.allDevices()) {
            learn(device);
        }
    }
    const std::string *find(uint16_t node_id) const {
        const auto found = eui64s_.find(node_id);
        return found != eui64s_.end() ? &found->second : nullptr;
    }

private:
    std::map<uint16_t, std::string> eui64s_;
};

class Monitor {
public:
    Monitor(Session &session, const MonitorOptions &options)
        : session_(session), count_(options.count.empty() ? 0 : parseNumber(options.count, "--count", 1, INT32_MAX)),
          meters_(session) {
        std::ranges::transform(options.events, std::inserter(wanted_, wanted_.end()), parseEvent);
        session.listen([this](const Event &event) {
            waiting_.push_back({{event.id, {event.payload.begin(), event.payload.end()}}, SystemClock::now()});
        });
    }

    void run(double seconds) {
        book_.load(session_);
        if (!session_.settings.json) {
            fmt::print(stderr, "watching {}; end with Ctrl-C\n", session_.socketPath());
        }
        const auto limit = seconds > 0 ? Milliseconds(static_cast<int64_t>(seconds * 1000)) : Milliseconds::max();
        const bool complete = session_.poll([this] { return showAll(); }, limit);
        if (!complete && count_ != 0) {
            throw Failure(Exit::TimedOut, fmt::format("{} of {} events came in time", shown_, count_));
        }
    }

private:
    struct TimedEvent {
        StoredEvent event;
        SystemClock::time_point time;
    };

    // True when as many as wanted have been shown. Outside the handler, which may not wait for the scale of a meter;
    // what comes meanwhile waits behind.
    bool showAll() {
        while (!waiting_.empty() && !isComplete()) {
            const TimedEvent next = std::move(waiting_.front());
            waiting_.pop_front();
            show(next.event.view(), next.time);
        }
        return isComplete();
    }

    bool isComplete() const { return count_ != 0 && shown_ >= count_; }

    void show(const Event &event, SystemClock::time_point time) {
        if (const auto device = event.device()) {
            book_.learn(*device);
            meters_.forget(device->node_id);
        }
        if (!wanted_.empty() && !wanted_.contains(event.id)) {
            return;
        }
        ++shown_;
        Json json = eventJson(event, meters_);
        const auto command = event.command();
        const std::string *eui64 = command ? book_.find(command->dest_node) : nullptr;
        if (eui64 != nullptr) {
            json["eui64"] = *eui64;
        }
        json["time"] = isoTime(time);
        session_.answer(json, fmt::format("{}  {}  {}", paint(Colour::Dim, timeOfDay(time, "%H:%M:%S")),
                                          paint(colourOf(event.id), padded(eventName(event.id), NAME_WIDTH)),
                                          eventText(event, json)));
    }

    Session &session_;
    const int64_t count_;
    int64_t shown_ = 0;
    std::set<uint16_t> wanted_;
    AddressBook book_;
    Meters meters_;
    std::deque<TimedEvent> waiting_;
};

struct WaitOptions {
    std::string event;
    std::string device;
    double seconds = 60;
};

// By node id or EUI-64. Messages carry node ids only, so the service is asked whose they are.
bool concernsDevice(Session &session, const Event &event, const DeviceRef &ref) {
    const auto device = event.device();
    const auto command = event.command();
    if (const auto *eui64 = std::get_if<Eui64>(&ref)) {
        if (device) {
            return std::ranges::equal(*eui64, device->device_info.eui64);
        }
        const auto known = session.client().deviceByEui64(*eui64);
        return command && known.ok() && known.value.node_id == command->dest_node;
    }
    const uint16_t node_id = std::get<uint16_t>(ref);
    return device ? device->node_id == node_id : command && command->dest_node == node_id;
}

void wait(Session &session, const WaitOptions &options) {
    const uint16_t wanted = parseEvent(options.event);
    std::optional<DeviceRef> ref;
    if (!options.device.empty()) {
        ref = parseDevice(options.device);
    }
    if (ref && std::holds_alternative<uint32_t>(*ref)) { // the list may have changed when the event comes
        const auto device = session.findDevice(*ref);
        Eui64 eui64;
        std::ranges::copy(device.device_info.eui64, eui64.begin());
        ref = eui64;
    }
    const auto concerns = [&](const Event &event) { return concernsDevice(session, event, *ref); };
    const auto event = session.waitEvent(
        [&](const Event &candidate) { return candidate.id == wanted && (!ref || concerns(candidate)); },
        Milliseconds(static_cast<int64_t>(options.seconds * 1000)));
    if (!event) {
        throw Failure(Exit::TimedOut, fmt::format("{} did not come within {} s", eventName(wanted), options.seconds));
    }
    Meters meters(session);
    Json json = eventJson(event->view(), meters);
    json["time"] = isoTime(SystemClock::now());
    session.answer(json, fmt::format("{}  {}", padded(eventName(wanted), NAME_WIDTH), eventText(event->view(), json)));
}

} // namespace

void addMonitorCommands(CLI::App &app, Session &session) {
    auto options = std::make_shared<MonitorOptions>();
    auto *monitor = app.add_subcommand("monitor", "Show every event as it happens");
    monitor->add_option("--count", options->count, "End after so many events")->type_name("N");
    monitor->add_option("--for", options->seconds, "End after this time")
        ->type_name("SECONDS")
        ->check(CLI::Range(0.0, 1e8));
    monitor->add_option("--event", options->events, "Only these events, for example DEVICE_JOINED")->type_name("NAME");
    monitor->callback([&session, options] {
        session.run = [&session, options] { Monitor(session, *options).run(options->seconds); };
    });

    auto wanted = std::make_shared<WaitOptions>();
    auto *wait_command = app.add_subcommand("wait", "Wait for one event");
    wait_command->add_option("EVENT", wanted->event, "Its name, for example DEVICE_DISCOVERED")
        ->required()
        ->type_name("");
    wait_command->add_option("--device", wanted->device, "Of this device")->type_name("DEVICE");
    wait_command->add_option("--for", wanted->seconds, "How long")
        ->type_name("SECONDS")
        ->capture_default_str()
        ->check(CLI::Range(0.0, 1e8));
    wait_command->callback([&session, wanted] { session.run = [&session, wanted] { wait(session, *wanted); }; });
}

} // namespace corvane::ctl
