// SPDX-License-Identifier: Apache-2.0
//
// Scenario files: TOML to records, one reader function per table, then the checks that need several devices (names,
// addresses, parents).
#include "scenario.h"
#include "clusters.h"
#include "scenario_fields.h"
#include "scenario_reader.h"
#include "text_formats.h"
#include "zigbee/mac_capabilities.h"
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <sys/stat.h>
#include <unistd.h>

namespace corvane::mesh {
namespace {

constexpr size_t kMaxFileSize = 1024 * 1024;
constexpr size_t kMaxDevices = 500;
constexpr size_t kMaxForeignNetworks = 32;
constexpr size_t kMaxEndpoints = 32;
constexpr size_t kMaxReports = 32;
constexpr size_t kMaxName = 32; // also Basic cluster texts
constexpr size_t kMaxVersionParts = 32;

struct DeviceOrigin { // where a device came from, for faults found after reading
    toml::source_position name, eui64, parent;
};

void readFirmwareVersion(TableReader &in, std::vector<uint8_t> &version) {
    const toml::node *const node = in.node("firmware_version");
    if (node == nullptr || in.fault().any()) {
        return;
    }
    const toml::array *const parts = node->as_array();
    std::vector<uint8_t> read;
    if (parts != nullptr) {
        for (const toml::node &part : *parts) {
            const auto *const value = part.as_integer();
            if (value == nullptr || value->get() < 0 || value->get() > 255) {
                return in.fault().set(part, "a part of firmware_version must be an integer from 0 to 255");
            }
            read.push_back(static_cast<uint8_t>(value->get()));
        }
    }
    if (read.empty() || read.size() > kMaxVersionParts) {
        return in.fault().set(*node, "firmware_version must be a list of 1 to 32 integers, like [7, 4, 1, 0]");
    }
    version = std::move(read);
}

void readCoordinator(const toml::table &table, ScenarioFault &fault, CoordinatorSpec &coordinator) {
    TableReader in(table, "coordinator", fault,
                   {"eui64", "firmware_version", "child_capacity", "key_table_capacity", "startup_ms", "form_ms",
                    "remembers_network"});
    in.eui64("eui64", coordinator.eui64);
    readFirmwareVersion(in, coordinator.firmware_version);
    in("child_capacity", coordinator.child_capacity, 0, 255);
    in("key_table_capacity", coordinator.key_table_capacity, 0, 255);
    in("startup_ms", coordinator.startup_ms, 0, 60000);
    in("form_ms", coordinator.form_ms, 0, 60000);
    in("remembers_network", coordinator.remembers_network);
}

void readAir(const toml::table &table, ScenarioFault &fault, AirSpec &air) {
    TableReader in(table, "air", fault,
                   {"delay_ms", "jitter_ms", "loss", "interference", "pta_denial", "max_in_flight", "shared_medium",
                    "aps_ack_wait_ms", "route_discovery_ms", "indirect_queue_ms"});
    visitAir(air, in);
}

void readEnergy(const toml::table &table, ScenarioFault &fault, std::array<int8_t, 16> &energy_dbm) {
    TableReader in(table, "energy_dbm", fault,
                   {"11", "12", "13", "14", "15", "16", "17", "18", "19", "20", "21", "22", "23", "24", "25", "26"});
    for (size_t i = 0; i < energy_dbm.size(); i++) {
        in(std::to_string(11 + i), energy_dbm[i], -110, -1);
    }
}

void readForeignNetwork(const toml::table &table, ScenarioFault &fault, ForeignNetwork &network) {
    TableReader in(table, "foreign_network", fault,
                   {"pan_id", "channel", "permit_joining", "extended_pan_id", "link_quality"});
    (void)(in.required("pan_id") && in.required("channel"));
    in("pan_id", network.pan_id, 0, 0xFFFE);
    in("channel", network.channel, 11, 26);
    in("permit_joining", network.permit_joining);
    in.eui64("extended_pan_id", network.extended_pan_id);
    in("link_quality", network.link_quality, 1, 255);
}

void readEndpoint(const toml::table &table, ScenarioFault &fault, DeviceSpec &device) {
    TableReader in(table, "endpoint", fault,
                   {"id", "profile_id", "device_id", "device_version", "input_clusters", "output_clusters"});
    EndpointSpec endpoint;
    (void)in.required("id");
    in("id", endpoint.id, 1, 240);
    in("profile_id", endpoint.profile_id, 1, 0xFFFE);
    in("device_id", endpoint.device_id, 0, 0xFFFF);
    in("device_version", endpoint.device_version, 0, 15);
    in.clusters("input_clusters", endpoint.input_clusters);
    in.clusters("output_clusters", endpoint.output_clusters);
    if (std::ranges::find(device.endpoints, endpoint.id, &EndpointSpec::id) != device.endpoints.end()) {
        fault.set(in.where("id"), "endpoint " + std::to_string(endpoint.id) + " is there twice");
    }
    device.endpoints.push_back(std::move(endpoint));
}

void readAttribute(TableReader &in, ReportSpec &report) {
    const toml::node *const node = in.node("attribute");
    const auto *const name = node == nullptr ? nullptr : node->as_string();
    if (name == nullptr) {
        in("attribute", report.attribute_id, 0, 0xFFFF);
    } else if (const auto id = attributeByName(report.cluster_id, name->get())) {
        report.attribute_id = *id;
    } else {
        in.fault().set(*node, "the cluster has no attribute named \"" + printable(name->get()) + "\"");
    }
}

// Devices can report only what they have; found here and not when the mesh runs.
void checkReport(TableReader &in, const DeviceSpec &device, const ReportSpec &report) {
    ScenarioFault &fault = in.fault();
    const auto endpoint = std::ranges::find(device.endpoints, report.endpoint, &EndpointSpec::id);
    if (endpoint == device.endpoints.end()) {
        return fault.set(in.where("endpoint"), "the device has no endpoint " + std::to_string(report.endpoint));
    }
    const auto &clusters = endpoint->input_clusters;
    if (std::ranges::find(clusters, report.cluster_id) == clusters.end()) {
        return fault.set(in.where("cluster"), "endpoint " + std::to_string(report.endpoint) +
                                                  " does not have this cluster in input_clusters");
    }
    const AttributeInfo *const info = findAttribute(report.cluster_id, report.attribute_id);
    if (info == nullptr || !info->can(REPORT)) {
        return fault.set(in.where("attribute"), "the cluster has no such attribute that can be reported");
    }
    for (const ReportSpec &other : device.reports) {
        if (other.endpoint == report.endpoint && other.cluster_id == report.cluster_id &&
            other.attribute_id == report.attribute_id) {
            return fault.set(in.where("attribute"), "this attribute has a report already");
        }
    }
}

void readReport(const toml::table &table, ScenarioFault &fault, DeviceSpec &device) {
    TableReader in(table, "report", fault, {"endpoint", "cluster", "attribute", "interval_ms"});
    ReportSpec report;
    (void)(in.required("cluster") && in.required("attribute"));
    in("endpoint", report.endpoint, 1, 240);
    in.cluster("cluster", report.cluster_id);
    readAttribute(in, report);
    in("interval_ms", report.interval_ms, 100, 86'400'000);
    checkReport(in, device, report);
    device.reports.push_back(report);
}

void readInstallCode(TableReader &in, DeviceSpec &device) {
    std::string code;
    std::string crc = "given";
    in.text("install_code", code, 64);
    in.text("install_code_crc", crc, 16);
    in("install_code_only", device.install_code_only);
    if (in.fault().any()) {
        return;
    }
    if (crc != "given" && crc != "compute") {
        return in.fault().set(in.where("install_code_crc"), "install_code_crc must be \"given\" or \"compute\"");
    }
    if (in.node("install_code") == nullptr) {
        if (device.install_code_only) {
            in.fault().set(in.where("install_code_only"), "install_code_only needs an install_code");
        }
        return;
    }
    const bool compute = crc == "compute";
    InstallCode value{};
    const auto bytes = parseHex(code, compute ? value.size() - 2 : value.size());
    if (!bytes) {
        return in.fault().set(in.where("install_code"),
                              compute ? "install_code must be 32 hexadecimal digits (its CRC is computed)"
                                      : "install_code must be 36 hexadecimal digits: 16 bytes and their CRC, low "
                                        "byte first; or 32 digits with install_code_crc = \"compute\"");
    }
    std::ranges::copy(*bytes, value.begin());
    if (compute) {
        zigbee::setInstallCodeCrc(value);
    } else if (!zigbee::isInstallCodeValid(value)) {
        return in.fault().set(in.where("install_code"), "the CRC in the last two bytes of install_code is wrong");
    }
    device.install_code = value;
}

void readRole(TableReader &in, DeviceSpec &device) {
    std::string role = roleName(device.role);
    in.text("role", role, kMaxName);
    if (const auto found = roleByName(role)) {
        device.role = *found;
    } else {
        in.fault().set(in.where("role"), "role must be \"router\", \"end_device\" or \"sleepy_end_device\"");
    }
    switch (device.role) {
    case Role::router:
        device.mac_capabilities = zigbee::MAC_ROUTER;
        break;
    case Role::end_device:
        device.mac_capabilities = zigbee::MAC_END_DEVICE;
        break;
    case Role::sleepy_end_device:
        device.mac_capabilities = zigbee::MAC_SLEEPY_END_DEVICE;
        break;
    }
    in("mac_capabilities", device.mac_capabilities, 0, 255);
}

void readName(TableReader &in, std::string &name) {
    const auto plain = [](unsigned char c) {
        return (c >= '0' && c <= '9') || ((c | 0x20) >= 'a' && (c | 0x20) <= 'z') || c == '-' || c == '_' || c == '.';
    };
    in.text("name", name, kMaxName);
    if (name.empty() || !std::ranges::all_of(name, plain)) {
        in.fault().set(in.where("name"), "name must be 1 to 32 of the characters a-z, A-Z, 0-9, '-', '_' and '.'");
    }
}

void readDevice(const toml::table &table, ScenarioFault &fault, DeviceSpec &device) {
    TableReader in(table, "device", fault,
                   {"name", "eui64", "role", "parent", "link_quality", "manufacturer_code", "manufacturer_name",
                    "model", "mac_capabilities", "stack_revision", "poll_interval_ms", "install_code",
                    "install_code_crc", "install_code_only", "join_at_ms", "endpoint", "report", "faults"});
    (void)(in.required("name") && in.required("eui64"));
    readName(in, device.name);
    in.eui64("eui64", device.eui64);
    readRole(in, device);
    in.text("parent", device.parent, kMaxName);
    in("link_quality", device.link_quality, 1, 255);
    in("manufacturer_code", device.manufacturer_code, 0, 0xFFFF);
    in.text("manufacturer_name", device.manufacturer_name, kMaxName);
    in.text("model", device.model, kMaxName);
    in("stack_revision", device.stack_revision, 0, 127);
    in("poll_interval_ms", device.poll_interval_ms, 100, 3'600'000);
    readInstallCode(in, device);
    if (int64_t join_at_ms = 0; in.integer("join_at_ms", join_at_ms, 0, 3'600'000)) {
        device.join_at_ms = static_cast<uint32_t>(join_at_ms);
    }
    for (const toml::table *const endpoint : in.tables("endpoint", kMaxEndpoints)) {
        readEndpoint(*endpoint, fault, device);
    }
    for (const toml::table *const report : in.tables("report", kMaxReports)) {
        readReport(*report, fault, device);
    }
    if (const toml::table *const faults = in.table("faults")) {
        TableReader fault_keys(*faults, "faults", fault,
                               {"silent", "deaf", "answer_delay_ms", "zdo_error_status", "zdo_length_delta",
                                "duplicate_answers", "send_status", "hold_confirmations"});
        visitFaults(device.faults, fault_keys);
    }
}

void checkUnique(const Scenario &scenario, const std::vector<DeviceOrigin> &origins, ScenarioFault &fault) {
    std::map<std::string, size_t> names;
    std::map<Eui64, size_t> addresses;
    for (size_t i = 0; i < scenario.devices.size(); i++) {
        const DeviceSpec &device = scenario.devices[i];
        if (const auto [first, is_new] = names.emplace(device.name, i); !is_new) {
            fault.set(origins[i].name, "name \"" + device.name + "\" is taken by the device in line " +
                                           std::to_string(origins[first->second].name.line));
        }
        if (const auto [first, is_new] = addresses.emplace(device.eui64, i); !is_new) {
            fault.set(origins[i].eui64, "eui64 " + formatEui64(device.eui64) + " is taken by device \"" +
                                            scenario.devices[first->second].name + "\"");
        }
        if (device.eui64 == scenario.coordinator.eui64) {
            fault.set(origins[i].eui64, "eui64 " + formatEui64(device.eui64) + " is that of the coordinator");
        }
    }
}

void checkParents(const Scenario &scenario, const std::vector<DeviceOrigin> &origins, ScenarioFault &fault) {
    const auto &devices = scenario.devices;
    const auto parentOf = [&](const DeviceSpec &device) {
        return std::ranges::find(devices, device.parent, &DeviceSpec::name);
    };
    for (size_t i = 0; i < devices.size() && !fault.any(); i++) {
        const DeviceSpec &device = devices[i];
        if (device.parent.empty()) {
            continue;
        }
        auto ancestor = parentOf(device);
        if (ancestor == devices.end()) {
            fault.set(origins[i].parent, "parent \"" + device.parent + "\" is not the name of a device; leave it out " +
                                             "for the coordinator");
        } else if (ancestor->role != Role::router) {
            fault.set(origins[i].parent, "parent \"" + device.parent + "\" is not a router");
        }
        for (size_t hops = 0; ancestor != devices.end() && !ancestor->parent.empty(); hops++) {
            if (hops == devices.size() || ancestor->name == device.name) {
                fault.set(origins[i].parent, "the parents of \"" + device.name + "\" form a cycle");
                break;
            }
            ancestor = parentOf(*ancestor);
        }
    }
}

void readScenario(const toml::table &root, ScenarioFault &fault, Scenario &scenario) {
    TableReader in(root, "the scenario", fault,
                   {"name", "seed", "speed", "coordinator", "air", "energy_dbm", "foreign_network", "device"});
    in.text("name", scenario.name, kMaxName);
    in("seed", scenario.seed, 0, INT64_MAX);
    in("speed", scenario.speed, 0.1, 100.0);
    if (const toml::table *const table = in.table("coordinator")) {
        readCoordinator(*table, fault, scenario.coordinator);
    }
    if (const toml::table *const table = in.table("air")) {
        readAir(*table, fault, scenario.air);
    }
    if (const toml::table *const table = in.table("energy_dbm")) {
        readEnergy(*table, fault, scenario.energy_dbm);
    }
    for (const toml::table *const table : in.tables("foreign_network", kMaxForeignNetworks)) {
        readForeignNetwork(*table, fault, scenario.foreign_networks.emplace_back());
    }
    std::vector<DeviceOrigin> origins;
    for (const toml::table *const table : in.tables("device", kMaxDevices)) {
        readDevice(*table, fault, scenario.devices.emplace_back());
        const auto where = [table](std::string_view key) {
            const toml::node *const node = table->get(key);
            return (node == nullptr ? *table : *node).source().begin;
        };
        origins.push_back({where("name"), where("eui64"), where("parent")});
    }
    if (!fault.any()) {
        checkUnique(scenario, origins, fault);
        checkParents(scenario, origins, fault);
    }
}

// Empty on success, else why the file can't be read.
std::string readFile(const std::string &path, std::string &text) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK); // a FIFO must not stop the daemon
    if (fd < 0) {
        return std::string("cannot be opened: ") + std::strerror(errno);
    }
    std::string why;
    struct stat info {};
    if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        why = S_ISDIR(info.st_mode) ? "is a directory, not a scenario file" : "is not a regular file";
    }
    char block[16384];
    while (why.empty()) {
        const ssize_t count = read(fd, block, sizeof block);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            why = count < 0 ? std::string("cannot be read: ") + std::strerror(errno) : "";
            break;
        }
        text.append(block, static_cast<size_t>(count));
        why = text.size() > kMaxFileSize ? "is larger than 1 MiB" : "";
    }
    close(fd);
    return why;
}

} // namespace

bool parseScenario(const std::string &text, const std::string &file, Scenario &scenario, ScenarioError &error) {
    ScenarioFault fault(file);
    Scenario read;
    if (text.size() > kMaxFileSize) {
        fault.set({1, 1}, "a scenario must not be larger than 1 MiB");
    } else if (const oruToml_screened_t screened = oruToml_screen(text); screened.reason != nullptr) {
        fault.set({screened.line, screened.column}, screened.reason);
    } else if (const toml::parse_result parsed = toml::parse(std::string_view(screened.text))) {
        readScenario(parsed.table(), fault, read);
    } else {
        fault.set(parsed.error().source().begin, std::string(parsed.error().description()));
    }
    if (fault.any()) {
        error.message = fault.message();
        return false;
    }
    scenario = std::move(read);
    return true;
}

bool loadScenario(const std::string &path, Scenario &scenario, ScenarioError &error) {
    std::string text;
    if (const std::string why = readFile(path, text); !why.empty()) {
        error.message = path + ": " + why;
        return false;
    }
    return parseScenario(text, path, scenario, error);
}

} // namespace corvane::mesh
