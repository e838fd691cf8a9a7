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
#include <concepts>
#include <cstdio>
#include <initializer_list>
#include <map>
#include <nlohmann/json.hpp>

namespace corvane::mesh {
namespace {

// A value of a request. The library's own tree takes memory when it is destroyed, which ends the process when there is
// none; this one does not.
struct Value {
    enum class Kind : uint8_t { other, boolean, integer, number, text, object };
    Kind kind = Kind::other;
    std::string key; // in the object that it is a member of
    int64_t integer = 0;
    double number = 0; // of an integer, too
    std::string text;
    std::vector<Value> members;
};

// Builds a request while the library parses it: an object, and the members of objects in it. What lies deeper or in
// lists is of no use and leaves a value of another kind.
class RequestBuilder {
public:
    explicit RequestBuilder(Value &root) : root_(root) {}

    bool null() { return put({}); }
    bool boolean(bool value) { return put({Value::Kind::boolean, {}, value ? 1 : 0, 0, {}, {}}); }
    bool number_integer(int64_t value) {
        return put({Value::Kind::integer, {}, value, static_cast<double>(value), {}, {}});
    }
    bool number_unsigned(uint64_t value) { // beyond 63 bits it is not an integer to anybody
        return value <= static_cast<uint64_t>(INT64_MAX) ? number_integer(static_cast<int64_t>(value))
                                                         : number_float(static_cast<double>(value), {});
    }
    bool number_float(double value, const std::string & /*digits*/) {
        return put({Value::Kind::number, {}, 0, value, {}, {}});
    }
    bool string(std::string &value) { return put({Value::Kind::text, {}, 0, 0, std::move(value), {}}); }
    bool binary(std::vector<uint8_t> & /*bytes*/) { return false; }
    bool key(std::string &name) {
        if (skipped_ == 0) {
            key_ = std::move(name);
        }
        return true;
    }
    bool start_object(size_t /*size*/) {
        const bool kept = skipped_ == 0 && depth_ < 2;
        put({kept ? Value::Kind::object : Value::Kind::other, {}, 0, 0, {}, {}});
        ++(kept ? depth_ : skipped_);
        return true;
    }
    bool end_object() {
        --(skipped_ == 0 ? depth_ : skipped_);
        return true;
    }
    bool start_array(size_t /*size*/) {
        put({});
        ++skipped_;
        return true;
    }
    bool end_array() {
        --skipped_;
        return true;
    }
    static bool parse_error(size_t /*at*/, const std::string & /*token*/, const std::exception & /*why*/) {
        return false;
    }

private:
    bool put(Value value) {
        if (skipped_ == 0 && depth_ == 0) {
            root_ = std::move(value);
        } else if (skipped_ == 0) {
            value.key = key_;
            (depth_ == 1 ? root_ : root_.members.back()).members.push_back(std::move(value));
        }
        return true;
    }

    Value &root_;
    std::string key_;
    int depth_ = 0;   // open objects that are kept
    int skipped_ = 0; // open objects and lists that are not
};

// Members of an answer by name, each with its value as JSON.
using Answer = std::map<std::string, std::string>;

std::string toJson(const std::string &text) {
    std::string out = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
        }
        if (static_cast<unsigned char>(c) < 0x20) {
            char escaped[8];
            (void)std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(c));
            out += escaped;
        } else {
            out += c;
        }
    }
    return out + '"';
}
std::string toJson(double value) {
    const std::string text = formatNumber(value);
    return text.find_first_not_of("-0123456789") == std::string::npos ? text + ".0" : text;
}
template <std::integral Integer>
std::string toJson(Integer value) {
    return std::to_string(value);
}
std::string toJson(bool value) {
    return value ? "true" : "false";
}
std::string toJson(const Answer &object) {
    std::string out;
    for (const auto &[key, value] : object) {
        out += (out.empty() ? "" : ",") + toJson(key) + ":" + value;
    }
    return "{" + out + "}";
}

// One object of a request. Remembers the first fault, like the reader of scenario tables.
class ObjectReader {
public:
    ObjectReader(const Value &object, std::string &fault) : object_(object), fault_(fault) {}

    void allow(std::initializer_list<std::string_view> keys) {
        for (const Value &member : object_.members) {
            if (std::ranges::find(keys, member.key) == keys.end()) {
                fail("unknown key \"" + printable(member.key) + "\"; known: " + joined(keys));
            }
        }
    }
    const Value *find(const std::string &key) { // the last one of that name
        const auto found = std::find_if(object_.members.rbegin(), object_.members.rend(),
                                        [&](const Value &member) { return member.key == key; });
        return found == object_.members.rend() ? nullptr : &*found;
    }
    const Value *require(const std::string &key) {
        const Value *const found = find(key);
        if (found == nullptr) {
            fail("\"" + key + "\" is missing");
        }
        return found;
    }
    void operator()(const std::string &key, bool &value) {
        const Value *const found = find(key);
        if (found != nullptr && found->kind != Value::Kind::boolean) {
            fail("\"" + key + "\" must be true or false");
        } else if (found != nullptr) {
            value = found->integer != 0;
        }
    }
    void operator()(const std::string &key, double &value, double minimum, double maximum) {
        const Value *const found = find(key);
        if (found == nullptr) {
            return;
        }
        const double read =
            found->kind == Value::Kind::integer || found->kind == Value::Kind::number ? found->number : NAN;
        if (!(read >= minimum && read <= maximum)) {
            return fail("\"" + key + "\" must be a number from " + formatNumber(minimum) + " to " +
                        formatNumber(maximum));
        }
        value = read;
    }
    template <class Integer>
    void operator()(const std::string &key, Integer &value, int64_t minimum, int64_t maximum) {
        const Value *const found = find(key);
        if (found == nullptr) {
            return;
        }
        if (found->kind != Value::Kind::integer || found->integer < minimum || found->integer > maximum) {
            return fail("\"" + key + "\" must be an integer from " + std::to_string(minimum) + " to " +
                        std::to_string(maximum));
        }
        value = static_cast<Integer>(found->integer);
    }
    void text(const std::string &key, std::string &value) {
        const Value *const found = require(key);
        if (found != nullptr && (found->kind != Value::Kind::text || found->text.empty())) {
            fail("\"" + key + "\" must be a text that is not empty");
        } else if (found != nullptr) {
            value = found->text;
        }
    }
    void fail(const std::string &what) {
        if (fault_.empty()) {
            fault_ = what;
        }
    }
    bool ok() const { return fault_.empty(); }

private:
    const Value &object_;
    std::string &fault_;
};

// A command fills the answer or leaves a fault, which becomes the answer's error.
using Command = void (*)(ObjectReader &in, SimTarget &target, Answer &answer, std::string &fault);

struct KeyWriter { // visitor: settings into an answer
    Answer &object;
    template <class Value, class... Range>
    void operator()(const char *key, Value &value, Range...) {
        object[key] = toJson(value);
    }
};

void listDevices(ObjectReader &in, SimTarget &target, Answer &answer, std::string &) {
    in.allow({"command"});
    if (!in.ok()) {
        return;
    }
    std::string rows;
    for (const SimDevice &device : target.list()) {
        rows += (rows.empty() ? "" : ",") + toJson(Answer{{"name", toJson(device.name)},
                                                          {"eui64", toJson(formatEui64(device.eui64))},
                                                          {"role", toJson(std::string(roleName(device.role)))},
                                                          {"in_network", toJson(device.in_network)},
                                                          {"node_id", toJson(device.node_id)},
                                                          {"parent", toJson(device.parent)},
                                                          {"link_quality", toJson(device.link_quality)},
                                                          {"state", toJson(device.state)}});
    }
    answer["devices"] = "[" + rows + "]";
}

template <std::string (SimTarget::*Operation)(const std::string &)>
void onDevice(ObjectReader &in, SimTarget &target, Answer &, std::string &fault) {
    std::string device;
    in.allow({"command", "device"});
    in.text("device", device);
    if (in.ok()) {
        fault = (target.*Operation)(device);
    }
}

template <std::string (SimTarget::*Operation)()>
void onAdapter(ObjectReader &in, SimTarget &target, Answer &, std::string &fault) {
    in.allow({"command"});
    if (in.ok()) {
        fault = (target.*Operation)();
    }
}

void rejoin(ObjectReader &in, SimTarget &target, Answer &, std::string &fault) {
    std::string device;
    bool secured = true;
    in.allow({"command", "device", "secured"});
    in.text("device", device);
    in("secured", secured);
    if (in.ok()) {
        fault = target.rejoin(device, secured);
    }
}

void power(ObjectReader &in, SimTarget &target, Answer &, std::string &fault) {
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
    const Value *const found = in.require(key);
    uint16_t number = 0;
    if (found == nullptr || found->kind != Value::Kind::text) {
        in(key, number, 0, 0xFFFF);
        return number;
    }
    const auto known = byName(found->text);
    if (!known) {
        in.fail("\"" + key + "\": there is none named \"" + printable(found->text) + "\"");
    }
    return known.value_or(0);
}

void setAttribute(ObjectReader &in, SimTarget &target, Answer &, std::string &fault) {
    std::string device;
    uint8_t endpoint = 1;
    int64_t value = 0;
    in.allow({"command", "device", "endpoint", "cluster", "attribute", "value"});
    in.text("device", device);
    in("endpoint", endpoint, 1, 240);
    const uint16_t cluster_id = numberOrName(in, "cluster", clusterByName);
    const uint16_t attribute_id =
        numberOrName(in, "attribute", [=](std::string_view name) { return attributeByName(cluster_id, name); });
    if (const Value *const found = in.require("value"); found != nullptr && found->kind == Value::Kind::boolean) {
        value = found->integer;
    } else {
        in("value", value, INT64_MIN, INT64_MAX);
    }
    if (in.ok()) {
        fault = target.setAttribute(device, endpoint, cluster_id, attribute_id, value);
    }
}

// The object of settings to change; null when the request only asks.
const Value *settings(ObjectReader &in, const char *key) {
    const Value *const found = in.find(key);
    if (found != nullptr && found->kind != Value::Kind::object) {
        in.fail(std::string("\"") + key + "\" must be an object");
        return nullptr;
    }
    return found;
}

void faults(ObjectReader &in, SimTarget &target, Answer &answer, std::string &fault) {
    std::string device;
    Faults current;
    in.allow({"command", "device", "faults"});
    in.text("device", device);
    const Value *const wanted = settings(in, "faults");
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
    Answer values;
    visitFaults(current, KeyWriter{values});
    answer["faults"] = toJson(values);
}

void air(ObjectReader &in, SimTarget &target, Answer &answer, std::string &fault) {
    in.allow({"command", "air"});
    const Value *const wanted = settings(in, "air");
    if (!in.ok()) {
        return;
    }
    AirSpec current = target.getAir();
    if (wanted != nullptr) {
        ObjectReader keys(*wanted, fault);
        keys.allow({"delay_ms", "jitter_ms", "loss", "interference", "pta_denial", "max_in_flight", "shared_medium",
                    "aps_ack_wait_ms", "route_discovery_ms", "indirect_queue_ms"});
        visitAir(current, keys);
        if (!keys.ok() || !(fault = target.setAir(current)).empty()) {
            return;
        }
    }
    Answer values;
    visitAir(current, KeyWriter{values});
    answer["air"] = toJson(values);
}

void refuse(ObjectReader &in, SimTarget &target, Answer &, std::string &fault) {
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

void hang(ObjectReader &in, SimTarget &target, Answer &, std::string &fault) {
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

void runCommand(const Value &request, SimTarget &target, Answer &answer, std::string &fault) {
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
    Value request;
    RequestBuilder builder(request);
    Answer answer;
    std::string fault;
    if (!nlohmann::json::sax_parse(line, &builder)) {
        fault = "the request is not valid JSON";
    } else if (request.kind != Value::Kind::object) {
        fault = "the request must be a JSON object";
    } else {
        runCommand(request, target, answer, fault);
    }
    if (!fault.empty()) {
        answer = {{"error", toJson(fault)}};
    }
    answer["ok"] = toJson(fault.empty());
    return toJson(answer);
}

} // namespace corvane::mesh
