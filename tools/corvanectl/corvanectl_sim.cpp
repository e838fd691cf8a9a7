// SPDX-License-Identifier: Apache-2.0
//
// The virtual mesh of a running service: one line of JSON to its control socket, one line back.
#include "base/descriptor.h"
#include "corvanectl_session.h"
#include <CLI/CLI.hpp>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fmt/format.h>
#include <memory>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace corvane::ctl {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t MAX_ANSWER = 4U << 20;

void connectTo(int fd, const std::string &path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        throw UsageError(fmt::format("the path {} is too long for a socket", path));
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    if (::connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0) {
        return;
    }
    if (errno == EACCES || errno == EPERM) {
        throw Failure(Exit::NoService,
                      fmt::format("this user may not use {}: only the service's own user and root may", path));
    }
    throw Failure(Exit::NoService,
                  fmt::format("no virtual mesh at {} ({}): is corvane running with -p virtual:SCENARIO?", path,
                              std::strerror(errno)));
}

void awaitReady(int fd, short events, Clock::time_point deadline) {
    const auto left = std::chrono::duration_cast<Milliseconds>(deadline - Clock::now()).count();
    pollfd ready{fd, events, 0};
    if (left <= 0 || ::poll(&ready, 1, static_cast<int>(std::min<int64_t>(left + 1, INT32_MAX))) == 0) {
        throw Failure(Exit::TimedOut, "the virtual mesh did not answer in time");
    }
}

std::string exchange(int fd, std::string_view request, Clock::time_point deadline) {
    while (!request.empty()) {
        const ssize_t sent = ::send(fd, request.data(), request.size(), MSG_NOSIGNAL);
        if (sent > 0) {
            request.remove_prefix(static_cast<std::size_t>(sent));
        } else if (errno == EAGAIN) {
            awaitReady(fd, POLLOUT, deadline);
        } else if (errno != EINTR) {
            throw Failure(Exit::ConnectionLost, "the virtual mesh ended the connection");
        }
    }
    std::string answer;
    while (answer.find('\n') == std::string::npos) {
        char block[4096];
        const ssize_t count = ::recv(fd, block, sizeof block, 0);
        if (count > 0 && answer.size() < MAX_ANSWER) {
            answer.append(block, static_cast<std::size_t>(count));
        } else if (count < 0 && errno == EAGAIN) {
            awaitReady(fd, POLLIN, deadline);
        } else if (count >= 0 || errno != EINTR) {
            throw Failure(Exit::ConnectionLost, "the virtual mesh ended the connection without an answer");
        }
    }
    return answer.substr(0, answer.find('\n'));
}

Json ask(const Session &session, const Json &request) {
    const base::Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    connectTo(socket.get(), session.simSocketPath());
    const auto deadline = Clock::now() + session.timeout();
    Json answer = Json::parse(exchange(socket.get(), jsonLine(request) + "\n", deadline), nullptr, false);
    if (!answer.is_object() || !answer.contains("ok") || !answer["ok"].is_boolean()) {
        throw Failure(Exit::Refused, "the virtual mesh answered something that is not understood; are its version and "
                                     "that of corvanectl the same?");
    }
    if (!answer["ok"].get<bool>()) {
        const bool told = answer.contains("error") && answer["error"].is_string();
        throw Failure(Exit::Refused, told ? printable(answer["error"].get<std::string>()) : "the virtual mesh refused");
    }
    return answer;
}

// true, false, a number, or a text.
Json settingValue(const std::string &text) {
    if (const auto number = tryNumber(text)) {
        return *number;
    }
    const Json value = Json::parse(text, nullptr, false);
    return value.is_boolean() || value.is_number() ? value : Json(text);
}

Json settings(const std::vector<std::string> &words) {
    Json object = Json::object();
    for (const std::string &word : words) {
        const auto equals = word.find('=');
        if (equals == std::string::npos || equals == 0) {
            throw UsageError(fmt::format("\"{}\" is not KEY=VALUE", word));
        }
        object[word.substr(0, equals)] = settingValue(word.substr(equals + 1));
    }
    return object;
}

// ---------------------------------------------------------------- answers in words

std::string cellOf(const Json &row, const char *key) {
    if (!row.is_object() || !row.contains(key)) {
        return "-";
    }
    const Json &value = row[key];
    return value.is_string() ? printable(value.get<std::string>()) : jsonLine(value);
}

std::string deviceTable(const Json &answer) {
    Table table({"NAME", "NODE", "EUI-64", "ROLE", "PARENT", "LQI", "STATE"});
    for (const Json &row : answer.value("devices", Json::array())) {
        const bool inside = cellOf(row, "in_network") == "true";
        const auto node_id = tryNumber(cellOf(row, "node_id"));
        table.add({cellOf(row, "name"), inside && node_id ? hexUpper(static_cast<unsigned>(*node_id)) : "-",
                   cellOf(row, "eui64"), cellOf(row, "role"), inside ? cellOf(row, "parent") : "-",
                   inside ? cellOf(row, "link_quality") : "-",
                   inside ? cellOf(row, "state") : paint(Colour::Dim, "not in the network; " + cellOf(row, "state"))});
    }
    return table.text();
}

std::string settingTable(const Json &object) {
    Table table({"SETTING", "VALUE"});
    for (const auto &[key, value] : object.items()) {
        table.add({printable(key), printable(jsonLine(value))});
    }
    return table.text();
}

void perform(const Session &session, const Json &request) {
    const Json answer = ask(session, request);
    std::string text = "done";
    if (answer.contains("devices")) {
        text = deviceTable(answer);
    }
    for (const char *settings : {"faults", "air", "wire"}) {
        if (answer.contains(settings)) {
            text = settingTable(answer[settings]);
        }
    }
    session.answer(answer, text);
}

// ---------------------------------------------------------------- requests

struct SimOptions {
    std::string name;
    std::vector<std::string> words;
    bool unsecured = false;
};

using Request = Json (*)(const SimOptions &options);

struct SimCommand {
    const char *name;
    const char *help;
    bool named; // takes the NAME of a device
    const char *words;
    int minimum; // of further words
    int maximum;
    Request request;
};

Json numberOrText(const std::string &text) {
    const auto number = tryNumber(text);
    return number ? Json(*number) : Json(text);
}

Json setRequest(const SimOptions &options) {
    // [ENDPOINT] CLUSTER ATTRIBUTE VALUE
    const std::size_t at = options.words.size() - 3;
    Json request{{"cluster", numberOrText(options.words[at])}, {"attribute", numberOrText(options.words[at + 1])}};
    request["value"] = settingValue(options.words[at + 2]);
    if (at == 1) {
        request["endpoint"] = parseNumber(options.words[0], "the endpoint", 1, 240);
    }
    return request;
}

Json powerRequest(const SimOptions &options) {
    if (options.words[0] != "on" && options.words[0] != "off") {
        throw UsageError(fmt::format("the power is on or off, not \"{}\"", options.words[0]));
    }
    return {{"on", options.words[0] == "on"}};
}

Json refuseRequest(const SimOptions &options) {
    Json request{{"operation", options.words[0]}};
    if (options.words.size() > 1) {
        request["count"] = parseNumber(options.words[1], "the count", 0, 1000000);
    }
    if (options.words.size() > 2) {
        request["status"] = parseNumber(options.words[2], "the status", INT32_MIN, INT32_MAX);
    }
    return request;
}

Json rejoinRequest(const SimOptions &options) {
    return {{"secured", !options.unsecured}};
}
Json faultsRequest(const SimOptions &options) {
    return options.words.empty() ? Json::object() : Json{{"faults", settings(options.words)}};
}
Json airRequest(const SimOptions &options) {
    return options.words.empty() ? Json::object() : Json{{"air", settings(options.words)}};
}
Json wireRequest(const SimOptions &options) {
    return options.words.empty() ? Json::object() : Json{{"wire", settings(options.words)}};
}
Json lineRequest(const SimOptions &options) {
    Json request{{"event", options.words[0]}};
    if (options.words.size() > 1) {
        request["value"] = parseNumber(options.words[1], "the value", 0, 600000);
    }
    return request;
}
Json hangRequest(const SimOptions &options) {
    return {{"milliseconds", parseNumber(options.words[0], "the time", 0, 600000)}};
}

constexpr SimCommand COMMANDS[] = {
    {"list", "What there is, in or out of the network", false, "", 0, 0, nullptr},
    {"join", "Let a device join afresh (joining must be open)", true, "", 0, 0, nullptr},
    {"rejoin", "Let a device come back", true, "", 0, 0, rejoinRequest},
    {"leave", "Let a device leave by itself", true, "", 0, 0, nullptr},
    {"announce", "Let a device announce itself", true, "", 0, 0, nullptr},
    {"address", "Give a device a new node id", true, "", 0, 0, nullptr},
    {"report", "Let a device send its reports now", true, "", 0, 0, nullptr},
    {"power", "Cut a device's power, or restore it", true, "on|off", 1, 1, powerRequest},
    {"set", "Change an attribute of a device", true, "[ENDPOINT] CLUSTER ATTRIBUTE VALUE", 3, 4, setRequest},
    {"faults", "Show or change the faults of a device", true, "[KEY=VALUE ...]", 0, 100, faultsRequest},
    {"air", "Show or change the air", false, "[KEY=VALUE ...]", 0, 100, airRequest},
    {"refuse", "Let the adapter refuse its next calls", false, "OPERATION [COUNT [STATUS]]", 1, 3, refuseRequest},
    {"reset", "Let the adapter reset", false, "", 0, 0, nullptr},
    {"fatal", "Let the adapter fail for good", false, "", 0, 0, nullptr},
    {"hang", "Let the adapter block", false, "MILLISECONDS", 1, 1, hangRequest},
    {"wire", "Show or change the faults of corvane-radio's line", false, "[KEY=VALUE ...]", 0, 100, wireRequest},
    {"line", "Let corvane-radio reset, fail, fall silent, or be unplugged", false,
     "reset|error|silence|unplug|replug [VALUE]", 1, 2, lineRequest},
};

void addCommand(CLI::App &sim, Session &session, const SimCommand &description) {
    auto options = std::make_shared<SimOptions>();
    auto *command = sim.add_subcommand(description.name, description.help);
    if (description.named) {
        command->add_option("NAME", options->name, "Name of the device in the scenario")->required()->type_name("");
    }
    if (description.maximum > 0) {
        auto *words = command->add_option("WORDS", options->words, description.words)->type_name("");
        words->expected(description.minimum, description.maximum)->required(description.minimum > 0);
    }
    if (description.request == rejoinRequest) {
        command->add_flag("--unsecured", options->unsecured, "Without the network key");
    }
    command->callback([&session, options, &description] {
        session.run = [&session, options, &description] {
            Json request{{"command", description.name}};
            if (description.named) {
                request["device"] = options->name;
            }
            if (description.request != nullptr) {
                request.update(description.request(*options));
            }
            perform(session, request);
        };
    });
}

} // namespace

void addSimCommands(CLI::App &app, Session &session) {
    auto *sim = app.add_subcommand("sim", "Drive the virtual mesh of a service started with -p virtual:SCENARIO");
    sim->require_subcommand(1);
    for (const SimCommand &description : COMMANDS) {
        addCommand(*sim, session, description);
    }
}

} // namespace corvane::ctl
