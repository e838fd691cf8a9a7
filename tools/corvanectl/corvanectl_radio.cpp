// SPDX-License-Identifier: Apache-2.0
//
// The radio and the network as a whole: radio, leave, clear, reset, scan, counters, burst, throttle.
#include "corvanectl_session.h"
#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <fmt/format.h>
#include <initializer_list>
#include <memory>

namespace corvane::ctl {

namespace {

using Clock = std::chrono::steady_clock;

constexpr Milliseconds STATE_POLL{100}; // not every change of state has an event of its own
constexpr Milliseconds SETTLE_WITHOUT_NETWORK{2000};
constexpr uint8_t MAX_SCAN_DURATION = 14;

oruZb_adapterState_t currentState(Session &session) {
    return session.value(session.client().adapterState(), "state");
}

// Waits for one of the states; Failure when none comes in time.
oruZb_adapterState_t awaitState(Session &session, std::initializer_list<oruZb_adapterState_t> wanted) {
    const auto deadline = Clock::now() + session.timeout();
    auto state = currentState(session);
    while (std::ranges::find(wanted, state) == wanted.end()) {
        if (Clock::now() >= deadline) {
            throw Failure(Exit::TimedOut, fmt::format("accepted, but the adapter is still {} after {} s",
                                                      adapterStateName(state), session.settings.timeout_s));
        }
        session.poll([] { return false; }, STATE_POLL);
        state = currentState(session);
    }
    return state;
}

void answerState(Session &session, oruZb_adapterState_t state, std::string_view text) {
    session.answer({{"status", 0}, {"state", adapterStateName(state)}, {"value", static_cast<int>(state)}},
                   fmt::format("{}; the adapter is {}", text, paint(Colour::Bold, adapterStateName(state))));
}

// ---------------------------------------------------------------- radio

void radioOn(Session &session, bool wait) {
    session.complete("radio on", [](Client &client, const Completion &done) { return client.enableRadio(done); });
    const auto state = wait ? awaitState(session, {ORU_ZB_ADAPTER_ON, ORU_ZB_ADAPTER_SERVICE_READY,
                                                   ORU_ZB_ADAPTER_INTERPAN_IN_PROGRESS})
                            : currentState(session);
    answerState(session, state, "radio on");
}

void radioOff(Session &session, bool wait) {
    const auto before = currentState(session);
    // The service does not call back when the radio is off already or on its way.
    if (before != ORU_ZB_ADAPTER_OFF && before != ORU_ZB_ADAPTER_TURNING_OFF) {
        session.complete("radio off", [](Client &client, const Completion &done) { return client.disableRadio(done); });
    }
    answerState(session, wait ? awaitState(session, {ORU_ZB_ADAPTER_OFF}) : currentState(session), "radio off");
}

void addRadio(CLI::App &app, Session &session) {
    auto *radio = app.add_subcommand("radio", "Switch the radio, set its power and region");
    radio->require_subcommand(1);
    auto no_wait = std::make_shared<bool>(false);
    for (const bool on : {true, false}) {
        auto *command =
            radio->add_subcommand(on ? "on" : "off", on ? "Switch on" : "Switch off; the network stays known");
        command->add_flag("--no-wait", *no_wait, "Do not wait for the adapter");
        command->callback([&session, on, no_wait] {
            session.run = [&session, on, no_wait] { on ? radioOn(session, !*no_wait) : radioOff(session, !*no_wait); };
        });
    }
    auto power = std::make_shared<std::string>();
    auto *power_command = radio->add_subcommand("power", "Transmit power");
    power_command->add_option("DBM", *power, "Power in dBm; the region sets the limit")->required()->type_name("");
    power_command->callback([&session, power] {
        session.run = [&session, power] {
            const auto dbm = parseAs<int8_t>(*power, "the power");
            session.require(session.client().setRadioPower(dbm), fmt::format("transmit power {} dBm", dbm));
            session.answer({{"status", 0}, {"power_dbm", dbm}}, fmt::format("transmit power {} dBm", dbm));
        };
    });
    auto region = std::make_shared<std::string>();
    auto *region_command = radio->add_subcommand("region", "Regulatory region");
    region_command->add_option("CC", *region, "Country code such as DE; WW: world-wide")->required()->type_name("");
    region_command->callback([&session, region] {
        session.run = [&session, region] {
            session.require(session.client().setRegion(*region), fmt::format("region {}", *region));
            session.answer({{"status", 0}, {"region", *region}}, fmt::format("region {}", printable(*region)));
        };
    });
}

// ---------------------------------------------------------------- leave, clear, reset

void leave(Session &session, const std::string &text) {
    const auto device = session.findDevice(parseDevice(text));
    oruZb_nodeInfo_t node{};
    node.id = device.node_id;
    node.manufacturer_code = device.manufacturer_code;
    node.type = ORU_ZB_NODE_TYPE_UNDEFINED;
    node.device_info = device.device_info;
    session.complete("leave request",
                     [&](Client &client, const Completion &done) { return client.nodeLeave(node, done); });
    Eui64 eui64{};
    std::ranges::copy(device.device_info.eui64, eui64.begin());
    if (session.client().deviceByEui64(eui64).ok()) {
        throw Failure(Exit::Refused, fmt::format("{} was told to leave, but the service could not forget it: its log "
                                                 "says why; try again",
                                                 deviceTitle(device)));
    }
    session.answer({{"status", 0},
                    {"left", true},
                    {"node_id", hex16(device.node_id)},
                    {"eui64", formatEui64(device.device_info.eui64)}},
                   fmt::format("{} was told to leave and is forgotten", deviceTitle(device)));
}

bool isDown(Session &session) {
    const auto state = currentState(session);
    return state == ORU_ZB_ADAPTER_ON || state == ORU_ZB_ADAPTER_OFF;
}

// Clear and reset end in NETWORK_DOWN, in general also without a network before; then the event is not insisted on.
void awaitNetworkDown(Session &session, bool was_up) {
    const auto isEnd = [](const Event &event) { return event.id == ORU_ZB_SVC_NETWORK_DOWN; };
    const Milliseconds limit = was_up ? session.timeout() : std::min(session.timeout(), SETTLE_WITHOUT_NETWORK);
    if (!session.waitEvent(isEnd, limit) && was_up) {
        throw Failure(Exit::TimedOut, "accepted, but the network is still up; the service's log says why");
    }
    awaitState(session, {ORU_ZB_ADAPTER_ON, ORU_ZB_ADAPTER_OFF});
}

void clearOrReset(Session &session, bool reset, bool wait) {
    const bool was_up = !isDown(session);
    session.complete(reset ? "reset" : "clearing the network", [&](Client &client, const Completion &done) {
        return reset ? client.resetAdapter(done) : client.clearNetwork(done);
    });
    if (wait) {
        awaitNetworkDown(session, was_up);
    }
    answerState(session, currentState(session),
                reset  ? "adapter reset, all devices forgotten"
                : wait ? "network cleared, all devices forgotten"
                       : "clearing the network");
}

void addLeaveAndReset(CLI::App &app, Session &session) {
    auto device = std::make_shared<std::string>();
    auto *leave_command = app.add_subcommand("leave", "Make one device leave the network");
    leave_command->add_option("DEVICE", *device, "Which one")->required()->type_name("");
    leave_command->callback([&session, device] { session.run = [&session, device] { leave(session, *device); }; });

    auto no_wait = std::make_shared<bool>(false);
    for (const bool reset : {false, true}) {
        auto *command =
            app.add_subcommand(reset ? "reset" : "clear", reset ? "Reset the adapter to factory settings"
                                                                : "Make all devices and the coordinator leave");
        command->add_flag("--no-wait", *no_wait, "Do not wait until the network is down");
        command->callback([&session, reset, no_wait] {
            session.run = [&session, reset, no_wait] { clearOrReset(session, reset, !*no_wait); };
        });
    }
}

// ---------------------------------------------------------------- scan, counters

struct ScanOptions {
    bool active = false;
    std::string channels = "all";
    std::string duration = "3";
};

void scan(Session &session, const ScanOptions &options) {
    oruZb_scan_t request{};
    request.type = options.active ? ORU_ZB_SCAN_TYPE_ACTIVE : ORU_ZB_SCAN_TYPE_ENERGY;
    request.channel_mask = parseChannelMask(options.channels);
    request.duration = static_cast<uint8_t>(parseNumber(options.duration, "--duration", 0, MAX_SCAN_DURATION));
    const char *kind = options.active ? "active" : "energy";
    session.complete("scan", [&](Client &client, const Completion &done) { return client.startScan(request, done); });
    session.answer({{"status", 0},
                    {"scan", kind},
                    {"channel_mask", fmt::format("0x{:08x}", request.channel_mask)},
                    {"results", "service log"}},
                   fmt::format("{} scan started; what it finds is written to the service's log", kind));
}

void counters(Session &session, bool clear) {
    const auto values = session.value(session.client().ptaCounters(clear), "counters");
    const std::pair<const char *, uint16_t> rows[] = {
        {"pta_lo_pri_req", values.pta_lo_pri_req},
        {"pta_hi_pri_req", values.pta_hi_pri_req},
        {"pta_lo_pri_denied", values.pta_lo_pri_denied},
        {"pta_hi_pri_denied", values.pta_hi_pri_denied},
        {"cca_retries", values.cca_retries},
        {"cca_failures", values.cca_failures},
        {"mac_tx_ucast_retry", values.mac_tx_ucast_retry},
        {"mac_tx_ucast_fail", values.mac_tx_ucast_fail},
        {"aps_tx_ucast_retry", values.aps_tx_ucast_retry},
        {"aps_tx_ucast_fail", values.aps_tx_ucast_fail},
        {"pta_denied_rate", values.pta_denied_rate},
    };
    static constexpr const char *MEANINGS[std::size(rows)] = {
        "radio arbitration: requests of low priority",
        "radio arbitration: requests of high priority",
        "of low priority, denied",
        "of high priority, denied",
        "channel found busy, tried again",
        "channel busy until giving up: interference",
        "frames repeated to the next hop",
        "frames that the next hop never acknowledged",
        "frames repeated end to end",
        "frames that the device never acknowledged",
        "percent of the requests denied",
    };
    Table table({"COUNTER", "VALUE", "MEANING"});
    Json values_json;
    for (std::size_t i = 0; i < std::size(rows); ++i) {
        values_json[rows[i].first] = rows[i].second;
        table.add({rows[i].first, std::to_string(rows[i].second), MEANINGS[i]});
    }
    session.answer({{"counters", values_json}, {"cleared", clear}},
                   table.text() + (clear ? "all set to zero now\n" : ""));
}

void addScanAndCounters(CLI::App &app, Session &session) {
    auto *scan_command = app.add_subcommand("scan", "Start a scan; the results go to the service's log");
    scan_command->require_subcommand(1);
    for (const bool active : {false, true}) {
        auto options = std::make_shared<ScanOptions>();
        options->active = active;
        auto *command = scan_command->add_subcommand(active ? "active" : "energy",
                                                     active ? "Which networks are near?" : "How loud is each channel?");
        command->add_option("--channels", options->channels, "\"11-14\", \"15,20\", \"all\" or a mask 0x...")
            ->type_name("A-B")
            ->capture_default_str();
        command->add_option("--duration", options->duration, "Exponent, 0 to 14: (2^N + 1) x 15.36 ms per channel")
            ->type_name("N")
            ->capture_default_str();
        command->callback([&session, options] { session.run = [&session, options] { scan(session, *options); }; });
    }
    auto clear = std::make_shared<bool>(false);
    auto *counters_command = app.add_subcommand("counters", "Counters of the radio");
    counters_command->add_flag("--clear", *clear, "Set them to zero");
    counters_command->callback([&session, clear] { session.run = [&session, clear] { counters(session, *clear); }; });
}

// ---------------------------------------------------------------- burst, throttle

void addThrottle(CLI::App &app, Session &session) {
    auto burst = std::make_shared<std::string>();
    auto *burst_command = app.add_subcommand("burst", "How many commands may be under way at a time");
    burst_command->add_option("N", *burst, "From 1; the radio must not be on without a network")
        ->required()
        ->type_name("");
    burst_command->callback([&session, burst] {
        session.run = [&session, burst] {
            const auto commands = parseAs<uint32_t>(*burst, "the burst size");
            session.require(session.client().setBurstSize(commands), "burst size");
            session.answer({{"status", 0}, {"burst", commands}}, fmt::format("{} commands may be under way", commands));
        };
    });
    auto timeout = std::make_shared<std::string>();
    auto *throttle_command = app.add_subcommand("throttle", "How long a command waits for its place in the burst");
    throttle_command->add_option("MS", *timeout, "Milliseconds")->required()->type_name("");
    throttle_command->callback([&session, timeout] {
        session.run = [&session, timeout] {
            const auto wait_ms = parseAs<uint32_t>(*timeout, "the time");
            session.require(session.client().setThrottleTimeout(Milliseconds(wait_ms)), "throttle time");
            session.answer({{"status", 0}, {"throttle_ms", wait_ms}},
                           fmt::format("commands wait up to {} ms", wait_ms));
        };
    });
}

} // namespace

void addRadioCommands(CLI::App &app, Session &session) {
    addRadio(app, session);
    addLeaveAndReset(app, session);
    addScanAndCounters(app, session);
    addThrottle(app, session);
}

} // namespace corvane::ctl
