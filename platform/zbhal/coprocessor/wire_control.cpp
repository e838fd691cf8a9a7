// SPDX-License-Identifier: Apache-2.0
#include "wire_control.h"
#include "base/printable.h"
#include <algorithm>
#include <concepts>
#include <nlohmann/json.hpp>

namespace corvane::coprocessor {

namespace {

using Json = nlohmann::json;

struct EventRow {
    const char *name;
    LineEvent event;
    uint32_t usual;
    uint32_t highest;
};
constexpr EventRow EVENTS[] = {
    {"reset", LineEvent::reset, 3, 0xFF},
    {"error", LineEvent::error, 6, 0xFF},
    {"silence", LineEvent::silence, 1000, 600'000},
    {"unplug", LineEvent::unplug, 0, 0},
    {"replug", LineEvent::replug, 0, 0},
};

// Visitor: one setting from JSON. used stays false when it has another name.
struct Setting {
    const std::string &name;
    const Json &value;
    bool used = false;
    std::string fault = {};

    template <class Number, class Limit>
    void operator()(const char *key, Number &target, Limit lowest, Limit highest) {
        if (name != key) {
            return;
        }
        used = true;
        const bool right_kind = std::floating_point<Number> ? value.is_number() : value.is_number_integer();
        const double wanted = right_kind ? value.get<double>() : 0;
        if (!right_kind || !(wanted >= static_cast<double>(lowest) && wanted <= static_cast<double>(highest))) {
            fault = "\"" + name + "\" must be " + (std::floating_point<Number> ? "a number" : "an integer") + " from " +
                    Json(lowest).dump() + " to " + Json(highest).dump();
            return;
        }
        target = value.get<Number>();
    }
};

struct Names { // visitor: what there is
    std::string text = {};
    template <class Number, class Limit>
    void operator()(const char *key, Number & /*value*/, Limit, Limit) {
        text += (text.empty() ? "" : ", ") + std::string(key);
    }
};

struct Values { // visitor: settings into an answer
    Json object = Json::object();
    template <class Number, class Limit>
    void operator()(const char *key, Number &value, Limit, Limit) {
        object[key] = value;
    }
};

std::string apply(WireFaults &faults, const std::string &name, const Json &value) {
    Setting setting{name, value};
    visitWire(faults, setting);
    if (!setting.used) {
        Names names;
        visitWire(faults, names);
        return "the line has no \"" + base::printable(name) + "\"; known: " + names.text;
    }
    return setting.fault;
}

// Further keys are faults, not to be passed over in silence.
std::string onlyKeys(const Json &request, std::initializer_list<std::string_view> keys) {
    for (const auto &[key, value] : request.items()) {
        if (std::ranges::find(keys, std::string_view(key)) == keys.end()) {
            return "unknown key \"" + base::printable(key) + "\"";
        }
    }
    return {};
}

std::string changeWire(const Json &request, WireTarget &target, Json &answer) {
    std::string fault = onlyKeys(request, {"command", "wire"});
    WireFaults faults = target.wireFaults();
    if (const auto wanted = request.find("wire"); fault.empty() && wanted != request.end()) {
        fault = wanted->is_object() ? "" : "\"wire\" must be an object";
        for (const auto &[name, value] : wanted->items()) {
            fault = fault.empty() ? apply(faults, name, value) : fault;
        }
        if (fault.empty()) {
            target.setWireFaults(faults);
        }
    }
    Values values;
    visitWire(faults, values);
    answer["wire"] = values.object;
    return fault;
}

std::string runEvent(const Json &request, WireTarget &target) {
    std::string fault = onlyKeys(request, {"command", "event", "value"});
    const auto event = request.find("event");
    if (!fault.empty()) {
        return fault;
    }
    const auto *const row = std::ranges::find_if(EVENTS, [&](const EventRow &candidate) {
        return event != request.end() && event->is_string() && *event == candidate.name;
    });
    if (row == std::end(EVENTS)) {
        return "\"event\" must be reset, error, silence, unplug or replug";
    }
    const Json value = request.value("value", Json(row->usual));
    if (!value.is_number_unsigned() || value.get<uint64_t>() > row->highest) {
        return "\"value\" of " + std::string(row->name) + " must be an integer from 0 to " +
               std::to_string(row->highest);
    }
    return target.lineEvent(row->event, value.get<uint32_t>());
}

} // namespace

std::optional<std::string> handleWireLine(const std::string &line, WireTarget &target) {
    const Json request = Json::parse(line, nullptr, false);
    const auto command = request.is_object() ? request.find("command") : request.end();
    if (!request.is_object() || command == request.end() || (*command != "wire" && *command != "line")) {
        return std::nullopt;
    }
    Json answer = Json::object();
    const std::string fault = *command == "wire" ? changeWire(request, target, answer) : runEvent(request, target);
    if (!fault.empty()) {
        answer = {{"error", fault}};
    }
    answer["ok"] = fault.empty();
    return answer.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string setWireFault(WireFaults &faults, const std::string &setting) {
    const size_t equals = setting.find('=');
    if (equals == std::string::npos) {
        return "\"" + base::printable(setting) + "\" is not KEY=VALUE";
    }
    return apply(faults, setting.substr(0, equals), Json::parse(setting.substr(equals + 1), nullptr, false));
}

} // namespace corvane::coprocessor
