// SPDX-License-Identifier: Apache-2.0
#include "corvanectl_send.h"
#include "corvanectl_meters.h"
#include "corvanectl_names.h"
#include "corvanectl_zcl.h"
#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <fmt/format.h>
#include <memory>
#include <random>

namespace corvane::ctl {

namespace {

constexpr uint8_t LEVEL_MAXIMUM = 254;
constexpr uint8_t COMMAND_OFF = 0x00;
constexpr uint8_t COMMAND_ON = 0x01;
constexpr uint8_t COMMAND_TOGGLE = 0x02;
constexpr uint8_t COMMAND_MOVE_TO_LEVEL_WITH_ON_OFF = 0x04;
constexpr uint8_t ALL_ENDPOINTS = 0xFF;
constexpr uint16_t FIRST_BROADCAST = 0xFFF8; // up to 0xFFFF, but for NO_ADDRESS
constexpr uint16_t ZDO_RESPONSE = 0x8000;

std::string sendingTo(const oruZb_clusterCmd_t &command) {
    return fmt::format("sending to {}", hexUpper(command.dest_node));
}

[[noreturn]] void failConfirmation(const Session &session, const Exchange &exchange, const std::string &node) {
    Failure failure(Exit::TimedOut, fmt::format("the radio did not confirm the command to {} within {} s", node,
                                                session.settings.timeout_s));
    failure.details = {{"sent", true}};
    if (exchange.answered()) {
        const char *const event = eventName(exchange.confirmation);
        failure = Failure(Exit::Refused,
                          fmt::format("{}: the command did not reach {}: {} ({}); \"corvanectl explain {}\" tells more",
                                      event, node, statusName(exchange.status), exchange.status, exchange.status),
                          exchange.status, statusName(exchange.status));
        failure.details = {{"sent", true}, {"confirmation", event}};
    }
    throw failure;
}

[[noreturn]] void failAnswer(const Session &session, const Exchange &exchange, const std::string &node) {
    Failure failure(Exit::TimedOut, fmt::format("{} took the command but did not answer within {} s", node,
                                                session.settings.timeout_s));
    failure.details = {{"sent", true}, {"confirmation", eventName(exchange.confirmation)}};
    throw failure;
}

double inMilliseconds(std::chrono::microseconds time) {
    return std::chrono::duration<double, std::milli>(time).count();
}

} // namespace

uint8_t nextSequence() {
    static uint8_t sequence = static_cast<uint8_t>(std::random_device{}());
    return sequence++;
}

Bytes frameOf(const oruZb_clusterCmd_t &command) {
    return Bytes(command.payload).first(std::min<std::size_t>(command.payload_len, ORU_ZB_MAX_PAYLOAD));
}

oruZb_clusterCmd_t makeCommand(uint16_t node_id, uint8_t endpoint, uint16_t cluster, Bytes frame) {
    oruZb_clusterCmd_t command{};
    command.dest_node = node_id;
    command.cluster_id = cluster;
    command.profile_id = PROFILE_HOME_AUTOMATION;
    command.dest_ep = endpoint;
    command.src_ep = 1;
    command.payload_len = static_cast<uint16_t>(std::min<std::size_t>(frame.size(), ORU_ZB_MAX_PAYLOAD));
    std::ranges::copy(frame.first(command.payload_len), command.payload);
    command.aps_options = ORU_ZB_HAL_APS_OPTION_RETRY | ORU_ZB_HAL_APS_OPTION_ENABLE_ROUTE_DISCOVERY;
    return command;
}

void submit(Session &session, const oruZb_clusterCmd_t &command, bool async) {
    requireAddress(command.dest_node);
    const std::string what = sendingTo(command);
    if (async) {
        session.complete(
            what, [&](Client &client, const Completion &done) { return client.sendCommandAsync(command, done); });
    } else {
        session.require(session.client().sendCommand(command), what);
    }
}

Exchange deliver(Session &session, const SentCommand &sent, bool async) {
    requireAddress(sent.command.dest_node);
    const std::string what = sendingTo(sent.command);
    const Exchange exchange = session.exchange(what, sent.command, {sent.expects_answer, async, session.timeout()});
    const std::string node = hexUpper(sent.command.dest_node);
    switch (exchange.step) {
    case Exchange::Step::hand_over:
        session.fail(exchange, what);
    case Exchange::Step::confirmation:
        failConfirmation(session, exchange, node);
    case Exchange::Step::answer:
        failAnswer(session, exchange, node);
    case Exchange::Step::done:
        break;
    }
    return exchange;
}

namespace {

// ---------------------------------------------------------------- send

struct SendOptions {
    std::string target;
    bool no_wait = false;
    bool async = false;
    std::string level;
    std::string cluster, attribute, profile, source_endpoint, hex;
};

struct Target {
    uint16_t node_id = 0;
    uint8_t endpoint = 0;
    bool answers = true; // false: nobody there does
};

bool hasEndpoint(const oruZb_device_t &device, uint8_t wanted) {
    const auto endpoints = endpointsOf(device.device_info);
    const bool all_known = !endpoints.empty() && endpoints.size() < ORU_ZB_HAL_MAX_ENDPOINTS; // no more are remembered
    return !all_known || wanted == ALL_ENDPOINTS ||
           std::ranges::find(endpoints, wanted, &oruZb_endpointInfo_t::endpoint) != endpoints.end();
}

// The endpoint as given, else the first of the device that serves the cluster. Devices that the service does not know
// can be reached by node id.
Target findTarget(Session &session, const std::string &text, uint16_t profile, uint16_t cluster) {
    const DeviceEndpoint wanted = parseDeviceEndpoint(text);
    const uint8_t fallback = profile == PROFILE_ZDO ? 0 : 1;
    const auto *node_id = std::get_if<uint16_t>(&wanted.device);
    if (node_id != nullptr) {
        requireAddress(*node_id);
        const bool broadcast = *node_id >= FIRST_BROADCAST;
        if (broadcast || !session.client().deviceByNodeId(*node_id).ok()) {
            return {*node_id, wanted.endpoint.value_or(fallback), !broadcast};
        }
    }
    const auto device = session.findDevice(wanted.device);
    if (wanted.endpoint || profile == PROFILE_ZDO) {
        const uint8_t endpoint = wanted.endpoint.value_or(fallback);
        return {device.node_id, endpoint, profile == PROFILE_ZDO || hasEndpoint(device, endpoint)};
    }
    for (const auto &endpoint : endpointsOf(device.device_info)) {
        for (const auto &entry : clustersOf(endpoint)) {
            if (entry.server != 0 && entry.cluster_id == cluster) {
                return {device.node_id, endpoint.endpoint};
            }
        }
    }
    throw Failure(Exit::Refused,
                  fmt::format("no endpoint of {} has the cluster {}; name one to try it all the same: {}/1",
                              deviceTitle(device), clusterText(profile, cluster), text));
}

void report(Session &session, const SentCommand &sent, const Exchange &exchange) {
    Json json{{"sent", true}, {"confirmation", eventName(exchange.confirmation)}};
    json["node_id"] = hex16(sent.command.dest_node);
    json["endpoint"] = sent.command.dest_ep;
    const double confirmed_ms = inMilliseconds(exchange.confirmed_after);
    json["confirmed_ms"] = static_cast<int>(confirmed_ms);
    const bool broadcast = sent.command.dest_node >= FIRST_BROADCAST;
    std::string text =
        fmt::format("{} in {:.0f} ms", paint(Colour::Green, broadcast ? "broadcast" : "delivered"), confirmed_ms);
    if (exchange.answer) {
        const double answered_ms = inMilliseconds(exchange.answered_after);
        const oruZb_clusterCmd_t &message = *exchange.answer;
        Meters meters(session);
        const Json answer =
            decodeFrame(message.profile_id, message.cluster_id, frameOf(message), &meters.scalesFor(message));
        json["answer"] = answer;
        json["answered_ms"] = static_cast<int>(answered_ms);
        const auto words = answer.at("text").get<std::string>();
        text += fmt::format(", answer in {:.0f} ms: {}", answered_ms, words);
        if (const auto status = failureStatus(answer)) {
            Failure failure(Exit::Refused, fmt::format("{} refused: {}", hexUpper(sent.command.dest_node), words),
                            *status, std::string(zigbee::statusName(*status)));
            failure.details = json;
            throw failure;
        }
    }
    session.answer(json, text);
}

void send(Session &session, const SendOptions &options, const SentCommand &sent) {
    if (!options.no_wait) {
        return report(session, sent, deliver(session, sent, options.async));
    }
    submit(session, sent.command, options.async);
    session.answer({{"sent", true}}, "handed to the radio");
}

// A command to an endpoint that is not there would be confirmed all the same, by the device's network layer.
void sendZcl(Session &session, const SendOptions &options, const Target &target, uint16_t cluster, Bytes frame) {
    if (!target.answers && target.node_id < FIRST_BROADCAST) {
        throw Failure(Exit::Refused, fmt::format("{} has no endpoint {}; \"corvanectl devices {}\" shows those it has, "
                                                 "\"send raw\" sends there all the same",
                                                 hexUpper(target.node_id), target.endpoint, hexUpper(target.node_id)));
    }
    send(session, options, {makeCommand(target.node_id, target.endpoint, cluster, frame), target.answers});
}

void sendClusterCommand(Session &session, const SendOptions &options, uint16_t cluster, uint8_t command,
                        Bytes payload) {
    const Target target = findTarget(session, options.target, PROFILE_HOME_AUTOMATION, cluster);
    const auto frame = encodeClusterCommand(nextSequence(), command, payload);
    sendZcl(session, options, target, cluster, frame);
}

void sendLevel(Session &session, const SendOptions &options) {
    const auto level = static_cast<uint8_t>(parseNumber(options.level, "the level", 0, LEVEL_MAXIMUM));
    const uint8_t payload[] = {level, 0, 0}; // transition time 0
    sendClusterCommand(session, options, CLUSTER_LEVEL, COMMAND_MOVE_TO_LEVEL_WITH_ON_OFF, payload);
}

void sendReadAttribute(Session &session, const SendOptions &options) {
    const uint16_t cluster = parseCluster(options.cluster);
    const uint16_t attribute = parseAttribute(cluster, options.attribute);
    const auto frame = encodeReadAttributes(nextSequence(), {&attribute, 1});
    const Target target = findTarget(session, options.target, PROFILE_HOME_AUTOMATION, cluster);
    sendZcl(session, options, target, cluster, frame);
}

// Node_Desc_req, Simple_Desc_req and Active_EP_req: the service keeps the answers for its own discovery.
bool isKeptByDiscovery(uint16_t cluster) {
    return cluster == 0x0002 || cluster == 0x0004 || cluster == 0x0005;
}

// Whether the device has to answer, and the answer comes here, as far as the frame tells.
bool rawExpectsAnswer(uint16_t profile, uint16_t cluster, Bytes frame) {
    if (profile == PROFILE_ZDO) {
        return !frame.empty() && (cluster & ZDO_RESPONSE) == 0 && zigbee::zdoCommandName(cluster).ends_with("_req") &&
               !isKeptByDiscovery(cluster);
    }
    const auto header = parseZclHeader(frame);
    return header && (!header->disable_default_response ||
                      (!header->cluster_specific && header->command == zigbee::COMMAND_READ_ATTRIBUTES));
}

void sendRaw(Session &session, const SendOptions &options) {
    const uint16_t profile = options.profile.empty()
                                 ? PROFILE_HOME_AUTOMATION
                                 : static_cast<uint16_t>(parseNumber(options.profile, "the profile", 0, 0xFFFF));
    const uint16_t cluster = profile == PROFILE_ZDO
                                 ? static_cast<uint16_t>(parseNumber(options.cluster, "the cluster", 0, 0xFFFF))
                                 : parseCluster(options.cluster);
    const auto frame = parseHex(options.hex, "the frame", ORU_ZB_MAX_PAYLOAD);
    const Target target = findTarget(session, options.target, profile, cluster);
    SentCommand sent{makeCommand(target.node_id, target.endpoint, cluster, frame),
                     target.answers && rawExpectsAnswer(profile, cluster, frame)};
    sent.command.profile_id = profile;
    sent.command.src_ep = profile == PROFILE_ZDO ? 0 : 1;
    if (!options.source_endpoint.empty()) {
        sent.command.src_ep = static_cast<uint8_t>(parseNumber(options.source_endpoint, "--src-endpoint", 0, 255));
    }
    send(session, options, sent);
}

void addSend(CLI::App &app, Session &session) {
    auto options = std::make_shared<SendOptions>();
    auto *command = app.add_subcommand("send", "Send a command to a device");
    command->require_subcommand(1);
    command->add_option("DEVICE", options->target, "Device, with /ENDPOINT where it matters")
        ->required()
        ->type_name("");
    command->add_flag("--no-wait", options->no_wait, "Do not wait for confirmation and answer");
    command->add_flag("--async", options->async, "Use the asynchronous call");

    const auto simple = [&](const char *name, const char *text, uint8_t id) {
        command->add_subcommand(name, text)->callback([&session, options, id] {
            session.run = [&session, options, id] { sendClusterCommand(session, *options, CLUSTER_ON_OFF, id, {}); };
        });
    };
    simple("on", "Switch on", COMMAND_ON);
    simple("off", "Switch off", COMMAND_OFF);
    simple("toggle", "Switch over", COMMAND_TOGGLE);

    auto *level = command->add_subcommand("level", "Move to a level, switching on or off with it");
    level->add_option("N", options->level, "0 to 254")->required()->type_name("");
    level->callback([&session, options] { session.run = [&session, options] { sendLevel(session, *options); }; });

    auto *read = command->add_subcommand("read-attribute", "Read an attribute");
    read->add_option("CLUSTER", options->cluster, "Number or name, for example temperature")->required()->type_name("");
    read->add_option("ATTRIBUTE", options->attribute, "Number or name, for example measured_value")
        ->required()
        ->type_name("");
    read->callback(
        [&session, options] { session.run = [&session, options] { sendReadAttribute(session, *options); }; });

    auto *raw = command->add_subcommand("raw", "Send any frame");
    raw->add_option("--cluster", options->cluster, "Number or name")->required()->type_name("C");
    raw->add_option("--profile", options->profile, "Number (default 0x0104, home automation; 0 is ZDO)")
        ->type_name("P");
    raw->add_option("--src-endpoint", options->source_endpoint, "Own endpoint (default 1)")->type_name("E");
    raw->add_option("HEX", options->hex, "The whole frame, with header and sequence number")->required()->type_name("");
    raw->callback([&session, options] { session.run = [&session, options] { sendRaw(session, *options); }; });
}

// ---------------------------------------------------------------- inter-PAN

struct InterpanOptions {
    std::string channels, pan, to, cluster, profile, sequence, hex;
    bool no_wait = false;
};

oruZb_interpan_t interpanMessage(const InterpanOptions &options) {
    oruZb_interpan_t message{};
    message.sequence = options.sequence.empty()
                           ? nextSequence()
                           : static_cast<uint8_t>(parseNumber(options.sequence, "--sequence", 0, 255));
    message.channel_mask = parseChannelMask(options.channels);
    const auto frame = parseHex(options.hex, "the frame", ORU_ZB_MAX_PAYLOAD);
    std::ranges::copy(frame, message.zcl_buf);
    message.zcl_buf_len = static_cast<uint16_t>(frame.size());
    message.header.pan_id = static_cast<uint16_t>(parseNumber(options.pan, "--pan", 0, 0xFFFF));
    message.header.profile_id = static_cast<uint16_t>(parseNumber(options.profile, "--profile", 0, 0xFFFF));
    message.header.cluster_id = parseCluster(options.cluster);
    if (const auto eui64 = tryEui64(options.to)) {
        std::ranges::copy(*eui64, message.header.long_address);
        message.header.short_address = 0xFFFE; // none: the long address counts
    } else {
        message.header.short_address = static_cast<uint16_t>(parseNumber(options.to, "--to", 0, 0xFFFF));
    }
    return message;
}

void interpan(Session &session, const InterpanOptions &options) {
    const oruZb_interpan_t message = interpanMessage(options);
    session.complete("inter-PAN send",
                     [&](Client &client, const Completion &done) { return client.sendInterpan(message, done); });
    Json json{{"status", 0}, {"sequence", message.sequence}};
    if (options.no_wait) {
        return session.answer(json, fmt::format("handed to the radio, sequence {}", message.sequence));
    }
    const auto event = session.waitEvent(
        [&](const Event &candidate) {
            const auto completion = candidate.interpan();
            return candidate.id == ORU_ZB_SVC_INTERPAN_COMPLETE && completion &&
                   completion->sequence == message.sequence;
        },
        session.timeout());
    if (!event) {
        throw Failure(Exit::TimedOut,
                      "the inter-PAN exchange did not end in time; after 30 s the service resets the radio");
    }
    const auto status = static_cast<int>(event->view().interpan()->status);
    if (status != 0) {
        Failure failure(Exit::Refused,
                        fmt::format("the inter-PAN frame did not go out: {} ({})", statusName(status), status), status,
                        statusName(status));
        failure.details = {{"sequence", message.sequence}};
        throw failure;
    }
    json["completed"] = true;
    session.answer(json, fmt::format("inter-PAN frame {} went out", message.sequence));
}

void addInterpan(CLI::App &app, Session &session) {
    auto options = std::make_shared<InterpanOptions>();
    auto *command = app.add_subcommand("interpan", "Send a frame to a device of another PAN");
    command->add_option("--channels", options->channels, "\"11,15-17\", \"all\" or a mask 0x...")
        ->required()
        ->type_name("LIST");
    command->add_option("--pan", options->pan, "PAN id of the receiver, 0xffff: all")->required()->type_name("P");
    command->add_option("--to", options->to, "Node id (0xffff: all) or EUI-64")->required()->type_name("ADDR");
    command->add_option("--cluster", options->cluster, "Number or name")->required()->type_name("C");
    command->add_option("--profile", options->profile, "Number")->required()->type_name("P");
    command->add_option("--sequence", options->sequence, "Number that the completion carries")->type_name("N");
    command->add_flag("--no-wait", options->no_wait, "Do not wait for INTERPAN_COMPLETE");
    command->add_option("HEX", options->hex, "The ZCL frame")->required()->type_name("");
    command->callback([&session, options] { session.run = [&session, options] { interpan(session, *options); }; });
}

} // namespace

void addSendCommands(CLI::App &app, Session &session) {
    addSend(app, session);
    addInterpan(app, session);
}

} // namespace corvane::ctl
