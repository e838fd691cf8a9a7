// SPDX-License-Identifier: Apache-2.0
//
// The service itself and joining: ping, state, form, permit, install-codes, explain, version.
#include "corvanectl_session.h"
#include "zigbee/zcl_table.h"
#include <CLI/CLI.hpp>
#include <algorithm>
#include <fmt/format.h>
#include <iostream>
#include <memory>

namespace corvane::ctl {

namespace {

// ---------------------------------------------------------------- ping, state

struct PingOptions {
    bool server = false;
    bool async = false;
};

void ping(Session &session, const PingOptions &options) {
    std::string answer;
    if (options.async) {
        session.complete("asynchronous ping", [&](Client &client, const Completion &done) {
            return client.asyncPing([&answer, done](const Result<std::string> &result) {
                answer = result.value;
                done(result);
            });
        });
    } else {
        answer = options.server ? session.value(session.client().serverPing(), "ping through the main loop")
                                : session.value(session.client().ping(), "ping");
    }
    answer = printable(answer);
    if (answer == "serror") {
        throw Failure(Exit::Refused, "the service answered \"serror\": it runs, but the adapter does not answer; "
                                     "\"corvanectl state\" shows the adapter's state");
    }
    session.answer({{"answer", answer}}, answer);
}

// Null from a daemon that is too old to tell.
Json storeJson(const StoreState &store) {
    return {{"condition", storeConditionName(store.condition)},
            {"value", static_cast<int>(store.condition)},
            {"condition_ms", store.since.count()},
            {"waiting", store.waiting},
            {"files_set_aside", store.files_set_aside},
            {"records_set_aside", store.records_set_aside},
            {"reason", printable(store.reason)}};
}

std::string storeText(const StoreState &store) {
    std::string text = storeConditionMeaning(store.condition);
    if (!store.reason.empty()) {
        text += "\n       " + printable(store.reason);
    }
    if (store.waiting > 0) {
        text += fmt::format("\n       changes that wait in memory: {}", store.waiting);
    }
    if (store.files_set_aside + store.records_set_aside > 0) {
        text += fmt::format("\n       damaged and set aside since the daemon started: files {}, records {}",
                            store.files_set_aside, store.records_set_aside);
    }
    return text;
}

std::optional<StoreState> storeState(Session &session) {
    const auto info = session.client().platformInfo();
    if (info.transport == Transport::Invalid && info.status == ORU_STATUS_NOT_SUPPORTED) {
        return std::nullopt;
    }
    return session.value(info, "state of the store").store;
}

void state(Session &session) {
    const auto state = session.value(session.client().adapterState(), "state");
    const char *meaning = state == ORU_ZB_ADAPTER_SERVICE_READY ? "the radio is on and a network is up"
                          : state == ORU_ZB_ADAPTER_ON  ? "the radio is on, there is no network: corvanectl form"
                          : state == ORU_ZB_ADAPTER_OFF ? "the radio is off: corvanectl radio on"
                          : state == ORU_ZB_ADAPTER_INTERPAN_IN_PROGRESS ? "an inter-PAN exchange is running"
                                                                         : "on the way";
    const auto store = storeState(session);
    session.answer({{"state", adapterStateName(state)},
                    {"value", static_cast<int>(state)},
                    {"store", store ? storeJson(*store) : Json(nullptr)}},
                   fmt::format("{} ({}): {}\nstore: {}", paint(Colour::Bold, adapterStateName(state)),
                               static_cast<int>(state), meaning,
                               store ? storeText(*store) : "this daemon is too old to tell"));
}

void addPingAndState(CLI::App &app, Session &session) {
    auto options = std::make_shared<PingOptions>();
    auto *ping_command = app.add_subcommand("ping", "Is the service there?");
    auto *server = ping_command->add_flag("--server", options->server, "Through its main loop and the adapter");
    ping_command->add_flag("--async", options->async, "As an asynchronous call")->excludes(server);
    ping_command->callback([&session, options] { session.run = [&session, options] { ping(session, *options); }; });

    app.add_subcommand("state", "State of the radio adapter and of the store")->callback([&session] {
        session.run = [&session] { state(session); };
    });
}

// ---------------------------------------------------------------- form

struct FormOptions {
    std::string channel, in_use, avoid_primary, avoid_secondary, manual;
    bool no_wait = false;
};

constexpr uint8_t PRIMARY_CHANNELS[] = {25, 20, 15, 11}; // preferred first

// The channel that the service is to aim for: as asked, else the best primary channel that is not to be avoided.
uint8_t finalChannel(const FormOptions &options, const oruZb_coexParams_t &coex) {
    if (!options.channel.empty()) {
        return parseChannel(options.channel);
    }
    const auto *found = std::ranges::find_if(
        PRIMARY_CHANNELS, [&](uint8_t channel) { return channel < coex.primary_start || channel > coex.primary_end; });
    if (found == std::end(PRIMARY_CHANNELS)) {
        throw UsageError("--avoid-primary leaves no channel to use: 11, 15, 20 and 25 are the ones to choose from");
    }
    return *found;
}

std::optional<oruZb_coexParams_t> coexistence(const FormOptions &options) {
    if (options.channel.empty() && options.in_use.empty() && options.avoid_primary.empty() &&
        options.avoid_secondary.empty()) {
        return std::nullopt;
    }
    oruZb_coexParams_t coex{};
    if (!options.in_use.empty()) {
        coex.radio802154_inuse = parseChannel(options.in_use);
    }
    if (!options.avoid_primary.empty()) {
        const ChannelRange range = parseChannelRange(options.avoid_primary);
        coex.primary_start = range.first;
        coex.primary_end = range.last;
    }
    if (!options.avoid_secondary.empty()) {
        const ChannelRange range = parseChannelRange(options.avoid_secondary);
        coex.secondary_start = range.first;
        coex.secondary_end = range.last;
    }
    coex.furthest_zb_chnl = coex.radio802154_inuse != 0 ? coex.radio802154_inuse : finalChannel(options, coex);
    return coex;
}

void form(Session &session, const FormOptions &options) {
    const auto coex = coexistence(options);
    const uint8_t manual = options.manual.empty() ? uint8_t{0} : parseChannel(options.manual);
    session.client();
    session.awaitSettledAdapter(); // it refuses to form a network before
    session.complete("forming a network", [&](Client &client, const Completion &done) {
        return manual != 0 ? client.formNetworkManual(manual, done) : client.formNetworkAuto(coex, done);
    });
    Json json{{"status", 0}};
    if (options.no_wait) {
        json["formed"] = false;
        return session.answer(json, "the adapter has begun to form a network");
    }
    if (!session.waitEvent([](const Event &event) { return event.id == ORU_ZB_SVC_NETWORK_FORMED; },
                           session.timeout())) {
        throw Failure(Exit::TimedOut, "the adapter took the request, but no network came up in time; the service's log "
                                      "says why");
    }
    const auto info = session.value(session.client().networkInfo(), "network information");
    json["formed"] = true;
    json["channel"] = info.channel;
    json["pan_id"] = hex16(info.panid);
    session.answer(json, fmt::format("{} on channel {}, PAN id {}", paint(Colour::Green, "network formed"),
                                     info.channel, hexUpper(info.panid)));
}

void addForm(CLI::App &app, Session &session) {
    auto options = std::make_shared<FormOptions>();
    auto *command = app.add_subcommand("form", "Form a Zigbee 3.0 network, on the best channel or on a given one");
    auto *manual =
        command->add_option("--manual", options->manual, "Exactly this channel, 11 to 26")->type_name("CHANNEL");
    const auto hint = [&](const char *name, std::string &value, const char *text, const char *type) {
        command->add_option(name, value, text)->type_name(type)->excludes(manual);
    };
    hint("--channel", options->channel, "Channel to prefer, the furthest from other radios", "CHANNEL");
    hint("--in-use", options->in_use, "Channel that another IEEE 802.15.4 radio here uses: share it", "CHANNEL");
    hint("--avoid-primary", options->avoid_primary, "Primary channels to leave out, for example 11-15", "A-B");
    hint("--avoid-secondary", options->avoid_secondary, "Secondary channels to leave out", "A-B");
    command->add_flag("--no-wait", options->no_wait, "Do not wait until the network is up");
    command->callback([&session, options] { session.run = [&session, options] { form(session, *options); }; });
}

// ---------------------------------------------------------------- joining

constexpr int MAX_INSTALL_CODE_WORDS = 10000;

void permit(Session &session, bool open) {
    session.require(session.client().permitJoin(open), open ? "opening the network" : "closing the network");
    session.answer({{"status", 0}, {"permit_join", open ? "open" : "closed"}},
                   open ? "joining is open for every device" : "joining is closed");
}

// The words of standard input, for codes that other users are not to see in the list of processes.
std::vector<std::string> wordsOfInput() {
    std::vector<std::string> words;
    for (std::string word; std::ssize(words) <= MAX_INSTALL_CODE_WORDS && std::cin >> word;) {
        words.push_back(word);
    }
    if (words.empty() || std::ssize(words) > MAX_INSTALL_CODE_WORDS) {
        throw UsageError(fmt::format("standard input holds no install codes, or more than {}: one EUI64 CODE per line",
                                     MAX_INSTALL_CODE_WORDS / 2));
    }
    return words;
}

void addInstallCodes(Session &session, const std::vector<std::string> &arguments) {
    const bool from_input = arguments.size() == 1 && arguments[0] == "-";
    const auto words = from_input ? wordsOfInput() : arguments;
    if (words.size() % 2 != 0) {
        throw UsageError("install codes come in pairs: EUI64 CODE [EUI64 CODE ...]");
    }
    std::vector<oruZb_ztsDeviceInfo_t> devices;
    Json rows = Json::array();
    for (std::size_t i = 0; i < words.size(); i += 2) {
        oruZb_ztsDeviceInfo_t &device = devices.emplace_back();
        const Eui64 eui64 = parseEui64(words[i]);
        const auto code = parseInstallCode(words[i + 1]);
        std::ranges::copy(eui64, device.mac_address);
        std::ranges::copy(code, device.install_code);
        rows.push_back({{"eui64", formatEui64(eui64.data())}, {"crc", formatHex(Bytes(code).last(2))}});
    }
    session.require(session.client().ztsAdd(devices), "adding install codes");
    session.answer({{"status", 0}, {"added", rows}},
                   fmt::format("{} install code{} added; \"corvanectl install-codes enable\" opens the network for {}",
                               devices.size(), devices.size() == 1 ? "" : "s", devices.size() == 1 ? "it" : "them"));
}

void enableInstallCodes(Session &session, bool enable) {
    if (enable) { // open for everybody is a switch of its own, which would stay as it is
        session.require(session.client().permitJoin(false), "closing the network for other devices");
    }
    session.complete("install codes", [enable](Client &client, const Completion &done) {
        return enable ? client.ztsEnable(done) : client.ztsDisable(done);
    });
    Json json{{"status", 0}, {"install_codes", enable ? "enabled" : "disabled"}};
    if (enable) {
        json["permit_join"] = "closed";
    }
    session.answer(json, enable ? "joining is open for devices with a known install code, and closed for all others"
                                : "joining is closed for devices with an install code");
}

void addJoining(CLI::App &app, Session &session) {
    auto *permit_command = app.add_subcommand("permit", "Open or close the network for new devices");
    permit_command->require_subcommand(1);
    permit_command->add_subcommand("open", "Every device may join")->callback([&session] {
        session.run = [&session] { permit(session, true); };
    });
    permit_command->add_subcommand("close", "Nobody may join")->callback([&session] {
        session.run = [&session] { permit(session, false); };
    });

    auto *codes = app.add_subcommand("install-codes", "Devices that may join with their install code");
    codes->require_subcommand(1);
    auto words = std::make_shared<std::vector<std::string>>();
    auto *add = codes->add_subcommand("add", "Add devices: 36 hexadecimal digits with CRC, or 32 without");
    add->add_option("PAIRS", *words, "EUI64 CODE [EUI64 CODE ...], or \"-\": read them from standard input")
        ->required()
        ->type_name("")
        ->expected(1, MAX_INSTALL_CODE_WORDS);
    add->callback([&session, words] { session.run = [&session, words] { addInstallCodes(session, *words); }; });
    codes->add_subcommand("clear", "Forget all of them")->callback([&session] {
        session.run = [&session] {
            session.require(session.client().ztsClear(), "clearing the install codes");
            session.answer({{"status", 0}, {"cleared", true}}, "all install codes are forgotten");
        };
    });
    for (const bool enable : {true, false}) {
        codes->add_subcommand(enable ? "enable" : "disable", enable ? "Only these devices may join" : "Nobody may join")
            ->callback(
                [&session, enable] { session.run = [&session, enable] { enableInstallCodes(session, enable); }; });
    }
}

// ---------------------------------------------------------------- explain, version

struct Hint {
    int status;
    const char *text;
};

// What people do about the outcomes of sends that they meet most.
constexpr Hint HINTS[] = {
    {ORU_ZB_APS_NO_ACK, "The frame was sent, but the device did not confirm it end to end. Is it powered, in range, "
                        "awake? A sleepy device answers only when it polls its parent: try again."},
    {ORU_ZB_APS_SECURITY_FAIL, "The device uses another key. Let it leave and join again."},
    {ORU_ZB_APS_TABLE_FULL, "The radio cannot take more frames now. Send more slowly, or lower the burst size."},
    {ORU_ZB_APS_ASDU_TOO_LONG, "The frame is too long for one transmission. Make it shorter."},
    {ORU_ZB_NWK_UNKNOWN_DEVICE,
     "The network layer does not know this node id. List the devices: it may have a new one."},
    {ORU_ZB_NWK_ROUTE_DISCOVERY_FAILED,
     "No way to the device was found. Is it, and are the routers on the way, powered?"},
    {ORU_ZB_NWK_ROUTE_ERROR, "The way to the device is broken. A router has probably gone; a new route is looked for: "
                             "try again."},
    {ORU_ZB_MAC_CHANNEL_ACCESSS_FAILURE, "The channel was busy each time the radio listened before sending. Look for "
                                         "interference (\"corvanectl counters\", \"corvanectl scan energy\"); another "
                                         "channel may help."},
    {ORU_ZB_MAC_NO_ACK, "The next hop did not acknowledge the frame. The device is off, out of range or has moved."},
    {ORU_ZB_MAC_TRANSACTION_EXPIRED,
     "The sleepy device did not fetch the frame in time. Wake it (press its button) and "
     "try again."},
    {ORU_ZB_MAC_TRANSACTION_OVERFLOW, "The parent keeps too many frames for sleepy devices. Try again later."},
};

std::string meaningOf(int status) {
    const auto *hint = std::ranges::find(HINTS, status, &Hint::status);
    return hint != std::end(HINTS) ? hint->text : statusMeaning(status);
}

constexpr int LAST_COMMAND_STATUS = 253;

std::vector<int> knownStatuses() {
    const auto service = allStatuses();
    std::vector<int> known(service.begin(), service.end());
    for (int status = 1; status <= LAST_COMMAND_STATUS; ++status) {
        if (std::string_view(statusName(status)) != "unknown") {
            known.push_back(status);
        }
    }
    return known;
}

Json statusJson(int status) {
    return {{"status", status}, {"status_name", statusName(status)}, {"meaning", meaningOf(status)}};
}

void explainAll(Session &session) {
    Table table({"STATUS", "NAME", "MEANING"});
    Json rows = Json::array();
    for (const int status : knownStatuses()) {
        rows.push_back(statusJson(status));
        table.add({std::to_string(status), statusName(status), meaningOf(status)});
    }
    session.answer({{"statuses", rows}}, table.text());
}

void explain(Session &session, const std::string &text) {
    if (text.empty()) {
        return explainAll(session);
    }
    const auto known = knownStatuses();
    const auto number = tryNumber(text);
    const auto found = std::ranges::find_if(known, [&](int status) {
        const std::string name = statusName(status);
        return number ? status == *number
                      : zigbee::isSameName(name, text) || zigbee::isSameName("ORU_STATUS_" + name, text) ||
                            zigbee::isSameName("ORU_ZB_" + name, text);
    });
    if (found == known.end()) {
        throw UsageError(
            fmt::format("\"{}\" is no status that the service uses; \"corvanectl explain\" lists all", text));
    }
    session.answer(statusJson(*found),
                   fmt::format("{} ({}): {}", paint(Colour::Bold, statusName(*found)), *found, meaningOf(*found)));
}

void addExplainAndVersion(CLI::App &app, Session &session) {
    auto status = std::make_shared<std::string>();
    auto *command = app.add_subcommand("explain", "What a status means and what to do");
    command->add_option("STATUS", *status, "Number or name; none: list all")->type_name("");
    command->callback([&session, status] { session.run = [&session, status] { explain(session, *status); }; });

    app.add_subcommand("version", "Version of this tool")->callback([&session] {
        session.run = [&session] { session.answer({{"version", CORVANE_VERSION}}, "corvanectl " CORVANE_VERSION); };
    });
}

} // namespace

void addServiceCommands(CLI::App &app, Session &session) {
    addPingAndState(app, session);
    addForm(app, session);
    addJoining(app, session);
    addExplainAndVersion(app, session);
}

} // namespace corvane::ctl
