// SPDX-License-Identifier: Apache-2.0
//
// Request and answer lines of the control socket. Keys are checked like those of a scenario file: an unknown one, a
// missing one or one of the wrong type or range gets an error that names it, and nothing is done.
#include "clusters.h"
#include "control.h"
#include "scenario_fields.h"
#include "text_formats.h"
#include <algorithm>
#include <cmath>
#include <initializer_list>
#include <nlohmann/json.hpp>

namespace corvane::mesh {
namespace {

using nlohmann::json;

// One object of a request. Remembers the first fault, like the reader of scenario tables.
class ObjectReader {
public:
    ObjectReader(const json &object, std::string &fault) : object_(object), fault_(fault) {}

    void allow(std::initializer_list<std::string_view> keys) {
        for (const auto &[key, value] : object_.items()) {
            if (std::ranges::find(keys, key) == keys.end()) {
                fail("unknown key \"" + printable(key) + "\"; known: " + joined(keys));
            }
        }
    }
    const json *find(const std::string &key) {
        const auto found = object_.find(key);
        return found == object_.end() ? nullptr : &*found;
    }
    const json *require(const std::string &key) {
        const json *const found = find(key);
        if (found == nullptr) {
            fail("\"" + key + "\" is missing");
        }
        return found;
    }
    void operator()(const std::string &key, bool &value) {
        const json *const found = find(key);
        if (found != nullptr && !found->is_boolean()) {
            fail("\"" + key + "\" must be true or false");
        } else if (found != nullptr) {
            value = found->get<bool>();
        }
    }
    void operator()(const std::string &key, double &value, double minimum, double maximum) {
        const json *const found = find(key);
        if (found == nullptr) {
            return;
        }
        const double read = found->is_number() ? found->get<double>() : NAN;
        if (!(read >= minimum && read <= maximum)) {
            return fail("\"" + key + "\" must be a number from " + formatNumber(minimum) + " to " +
                        formatNumber(maximum));
        }
        value = read;
    }
    template <class Integer>
    void operator()(const std::string &key, Integer &value, int64_t minimum, int64_t maximum) {
        const json *const found = find(key);
        if (found == nullptr) {
            return;
        }
        // A value beyond 63 bits is unsigned and would look negative.
        const bool small = found->is_number_integer() &&
                           !(found->is_number_unsigned() && found->get<uint64_t>() > static_cast<uint64_t>(INT64_MAX));
        if (!small || found->get<int64_t>() < minimum || found->get<int64_t>() > maximum) {
            return fail("\"" + key + "\" must be an integer from " + std::to_string(minimum) + " to " +
                        std::to_string(maximum));
        }
        value = static_cast<Integer>(found->get<int64_t>());
    }
    void text(const std::string &key, std::string &value) {
        const json *const found = require(key);
        if (found != nullptr && !(found->is_string() && !found->get_ref<const std::string &>().empty())) {
            fail("\"" + key + "\" must be a text that is not empty");
        } else if (found != nullptr) {
            value = found->get<std::string>();
        }
    }
    void fail(const std::string &what) {
        if (fault_.empty()) {
            fault_ = what;
        }
    }
    bool ok() const { return fault_.empty(); }

private:
    const json &object_;
    std::string &fault_;
};

// A command fills the answer or leaves a fault, which becomes the answer's error.
using Command = void (*)(ObjectReader &in, SimTarget &target, json &answer, std::string &fault);

struct KeyWriter { // visitor: settings into an answer
    json &object;
    template <class Value, class... Range>
    void operator()(const char *key, Value &value, Range...) {
        object[key] = value;
    }
};

void listDevices(ObjectReader &in, SimTarget &target, json &answer, std::string &) {
    in.allow({"command"});
    if (!in.ok()) {
        return;
    }
    json &devices = answer["devices"] = json::array();
    for (const SimDevice &device : target.list()) {
        devices.push_back({{"name", device.name},
                           {"eui64", formatEui64(device.eui64)},
                           {"role", roleName(device.role)},
                           {"in_network", device.in_network},
                           {"node_id", device.node_id},
                           {"parent", device.parent},
                           {"link_quality", device.link_quality},
                           {"state", device.state}});
    }
}

template <std::string (SimTarget::*Operation)(const std::string &)>
void onDevice(ObjectReader &in, SimTarget &target, json &, std::string &fault) {
    std::string device;
    in.allow({"command", "device"});
    in.text("device", device);
    if (in.ok()) {
        fault = (target.*Operation)(device);
    }
}

template <std::string (SimTarget::*Operation)()>
void onAdapter(ObjectReader &in, SimTarget &target, json &, std::string &fault) {
    in.allow({"command"});
    if (in.ok()) {
        fault = (target.*Operation)();
    }
}

void rejoin(ObjectReader &in, SimTarget &target, json &, std::string &fault) {
    std::string device;
    bool secured = true;
    in.allow({"command", "device", "secured"});
    in.text("device", device);
    in("secured", secured);
    if (in.ok()) {
        fault = target.rejoin(device, secured);
    }
}

void power(ObjectReader &in, SimTarget &target, json &, std::string &fault) {
    std::string device;
    bool on = true;
    in.allow({"command", "device", "on"});
    in.text("device", device);
    in.require("on");
    in("on", on);
    if (in.ok()) {
        fault = target.setPower(device, on);
    }
}

// A cluster or attribute by number or by name.
template <class ByName>
uint16_t numberOrName(ObjectReader &in, const std::string &key, ByName byName) {
    const json *const found = in.require(key);
    uint16_t number = 0;
    if (found == nullptr || !found->is_string()) {
        in(key, number, 0, 0xFFFF);
        return number;
    }
    const auto known = byName(found->get_ref<const std::string &>());
    if (!known) {
        in.fail("\"" + key + "\": there is none named \"" + printable(found->get_ref<const std::string &>()) + "\"");
    }
    return known.value_or(0);
}

void setAttribute(ObjectReader &in, SimTarget &target, json &, std::string &fault) {
    std::string device;
    uint8_t endpoint = 1;
    int64_t value = 0;
    in.allow({"command", "device", "endpoint", "cluster", "attribute", "value"});
    in.text("device", device);
    in("endpoint", endpoint, 1, 240);
    const uint16_t cluster_id = numberOrName(in, "cluster", clusterByName);
    const uint16_t attribute_id =
        numberOrName(in, "attribute", [=](std::string_view name) { return attributeByName(cluster_id, name); });
    if (const json *const found = in.require("value"); found != nullptr && found->is_boolean()) {
        value = found->get<bool>() ? 1 : 0;
    } else {
        in("value", value, INT64_MIN, INT64_MAX);
    }
    if (in.ok()) {
        fault = target.setAttribute(device, endpoint, cluster_id, attribute_id, value);
    }
}

// The object of settings to change; null when the request only asks.
const json *settings(ObjectReader &in, const char *key) {
    const json *const found = in.find(key);
    if (found != nullptr && !found->is_object()) {
        in.fail(std::string("\"") + key + "\" must be an object");
        return nullptr;
    }
    return found;
}

void faults(ObjectReader &in, SimTarget &target, json &answer, std::string &fault) {
    std::string device;
    Faults current;
    in.allow({"command", "device", "faults"});
    in.text("device", device);
    const json *const wanted = settings(in, "faults");
    if (!in.ok() || !(fault = target.getFaults(device, current)).empty()) {
        return;
    }
    if (wanted != nullptr) {
        ObjectReader keys(*wanted, fault);
        keys.allow({"silent", "deaf", "answer_delay_ms", "zdo_error_status", "zdo_length_delta", "duplicate_answers",
                    "send_status", "hold_confirmations"});
        visitFaults(current, keys);
        if (!keys.ok() || !(fault = target.setFaults(device, current)).empty()) {
            return;
        }
    }
    visitFaults(current, KeyWriter{answer["faults"]});
}

void air(ObjectReader &in, SimTarget &target, json &answer, std::string &fault) {
    in.allow({"command", "air"});
    const json *const wanted = settings(in, "air");
    if (!in.ok()) {
        return;
    }
    AirSpec current = target.getAir();
    if (wanted != nullptr) {
        ObjectReader keys(*wanted, fault);
        keys.allow({"delay_ms", "jitter_ms", "loss", "interference", "pta_denial", "max_in_flight"});
        visitAir(current, keys);
        if (!keys.ok() || !(fault = target.setAir(current)).empty()) {
            return;
        }
    }
    visitAir(current, KeyWriter{answer["air"]});
}

void refuse(ObjectReader &in, SimTarget &target, json &, std::string &fault) {
    std::string operation;
    uint32_t count = 1;
    int32_t status = -1;
    in.allow({"command", "operation", "count", "status"});
    in.text("operation", operation);
    in("count", count, 0, 1'000'000);
    in("status", status, INT32_MIN, INT32_MAX);
    if (status == 0) {
        in.fail("\"status\" must not be 0, which means success");
    }
    if (in.ok()) {
        fault = target.refuseNext(operation, count, status);
    }
}

void hang(ObjectReader &in, SimTarget &target, json &, std::string &fault) {
    uint32_t milliseconds = 0;
    in.allow({"command", "milliseconds"});
    in.require("milliseconds");
    in("milliseconds", milliseconds, 0, 600'000);
    if (in.ok()) {
        fault = target.adapterHang(milliseconds);
    }
}

constexpr struct {
    const char *name;
    Command run;
} kCommands[] = {
    {"list", listDevices},
    {"join", onDevice<&SimTarget::join>},
    {"rejoin", rejoin},
    {"leave", onDevice<&SimTarget::leave>},
    {"announce", onDevice<&SimTarget::announce>},
    {"address", onDevice<&SimTarget::changeAddress>},
    {"report", onDevice<&SimTarget::report>},
    {"power", power},
    {"set", setAttribute},
    {"faults", faults},
    {"air", air},
    {"refuse", refuse},
    {"reset", onAdapter<&SimTarget::adapterReset>},
    {"fatal", onAdapter<&SimTarget::adapterFatalError>},
    {"hang", hang},
};

void runCommand(const json &request, SimTarget &target, json &answer, std::string &fault) {
    ObjectReader in(request, fault);
    std::string name;
    in.text("command", name);
    if (!in.ok()) {
        return;
    }
    std::string known;
    for (const auto &command : kCommands) {
        if (name == command.name) {
            return command.run(in, target, answer, fault);
        }
        known += (known.empty() ? "" : ", ") + std::string(command.name);
    }
    fault = "unknown command \"" + printable(name) + "\"; known: " + known;
}

} // namespace

std::string handleControlLine(const std::string &line, SimTarget &target) {
    const json request = json::parse(line, nullptr, false);
    json answer = json::object();
    std::string fault;
    if (request.is_discarded()) {
        fault = "the request is not valid JSON";
    } else if (!request.is_object()) {
        fault = "the request must be a JSON object";
    } else {
        runCommand(request, target, answer, fault);
    }
    if (!fault.empty()) {
        answer = {{"error", fault}};
    }
    answer["ok"] = fault.empty();
    return answer.dump(-1, ' ', false, json::error_handler_t::replace);
}

} // namespace corvane::mesh
