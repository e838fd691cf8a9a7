// SPDX-License-Identifier: Apache-2.0
#include "zigbee/zcl_table.h"
#include <algorithm>
#include <iterator>
#include <tuple>

namespace corvane::zigbee {

namespace {

struct ValueName {
    uint16_t cluster;
    uint16_t attribute;
    uint16_t value;
    uint16_t name_at;
};

struct IdName {
    uint16_t id;
    uint16_t name_at;
};

#include "zcl_table.inc"

constexpr auto placeOf = [](const auto &row) { return std::tuple(row.cluster, row.attribute); };
constexpr auto placeOfValue = [](const auto &row) { return std::tuple(row.cluster, row.attribute, row.value); };
constexpr auto placeOfCommand = [](const auto &row) { return std::tuple(row.to_client, row.id); };
constexpr auto idOf = [](const auto &row) { return row.id; };

template <class Rows, class Key>
constexpr bool isSorted(const Rows &rows, Key key) {
    return std::ranges::adjacent_find(rows, std::ranges::greater_equal{}, key) == std::ranges::end(rows);
}

static_assert(isSorted(CLUSTERS, idOf) && isSorted(GLOBAL_ATTRIBUTES, idOf));
static_assert(isSorted(SCALES, placeOf) && isSorted(VALUES, placeOfValue));
static_assert(isSorted(PROFILES, idOf) && isSorted(DEVICE_TYPES, idOf) && isSorted(STATUSES, idOf) &&
              isSorted(GENERAL_COMMANDS, idOf) && isSorted(ZDO_COMMANDS, idOf));

constexpr std::span<const AttributeInfo> attributesOf(const ClusterInfo &cluster) {
    return std::span(ATTRIBUTES).subspan(cluster.first_attribute, cluster.attribute_count);
}
constexpr std::span<const CommandInfo> commandsOf(const ClusterInfo &cluster) {
    return std::span(COMMANDS).subspan(cluster.first_command, cluster.command_count);
}
static_assert(std::ranges::all_of(CLUSTERS, [](const ClusterInfo &cluster) {
    return isSorted(attributesOf(cluster), idOf) && isSorted(commandsOf(cluster), placeOfCommand);
}));

template <class Rows, class Key, class Value>
constexpr auto find(const Rows &rows, Key key, const Value &value) -> decltype(&*std::ranges::begin(rows)) {
    const auto found = std::ranges::lower_bound(rows, value, {}, key);
    return found != std::ranges::end(rows) && key(*found) == value ? &*found : nullptr;
}

template <class Rows>
std::string_view nameOf(const Rows &rows, uint16_t id) {
    const IdName *const found = find(rows, idOf, id);
    return found != nullptr ? tableText(found->name_at) : std::string_view();
}

template <class Row>
bool isCalled(const Row &row, std::string_view name) {
    if (isSameName(row.name(), name)) {
        return true;
    }
    for (std::string_view rest = tableText(row.aliases_at); !rest.empty();) {
        const auto end = std::min(rest.find('|'), rest.size());
        if (isSameName(rest.substr(0, end), name)) {
            return true;
        }
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    return false;
}

template <class Rows>
auto findByName(const Rows &rows, std::string_view name) -> decltype(&*std::ranges::begin(rows)) {
    const auto found = std::ranges::find_if(rows, [name](const auto &row) { return isCalled(row, name); });
    return found != std::ranges::end(rows) ? &*found : nullptr;
}

// The next letter or digit in lower case, 0 at the end.
char nextSignificant(std::string_view &text) {
    while (!text.empty()) {
        const char c = text.front();
        text.remove_prefix(1);
        if ((c >= '0' && c <= '9') || (c >= 'a' && c <= 'z')) {
            return c;
        }
        if (c >= 'A' && c <= 'Z') {
            return static_cast<char>(c | 0x20);
        }
    }
    return '\0';
}

} // namespace

std::string_view tableText(uint16_t offset) {
    return STRINGS + offset;
}

std::span<const ParameterInfo> CommandInfo::parameters() const {
    return std::span(PARAMETERS).subspan(first_parameter, parameter_count);
}

std::span<const AttributeInfo> ClusterInfo::attributes() const {
    return attributesOf(*this);
}

std::span<const CommandInfo> ClusterInfo::commands() const {
    return commandsOf(*this);
}

std::span<const ClusterInfo> clusters() {
    return CLUSTERS;
}

std::span<const ScaleInfo> scales() {
    return SCALES;
}

const ClusterInfo *findCluster(uint16_t id) {
    return find(CLUSTERS, idOf, id);
}

const AttributeInfo *findAttribute(uint16_t cluster, uint16_t id) {
    if (const AttributeInfo *const common = find(GLOBAL_ATTRIBUTES, idOf, id)) {
        return common;
    }
    const ClusterInfo *const info = findCluster(cluster);
    return info != nullptr ? find(attributesOf(*info), idOf, id) : nullptr;
}

const CommandInfo *findCommand(uint16_t cluster, bool to_client, uint8_t id) {
    const ClusterInfo *const info = findCluster(cluster);
    const std::tuple<uint8_t, uint8_t> place(to_client ? 1 : 0, id);
    return info != nullptr ? find(commandsOf(*info), placeOfCommand, place) : nullptr;
}

const ScaleInfo *findScale(uint16_t cluster, uint16_t attribute) {
    return find(SCALES, placeOf, std::tuple(cluster, attribute));
}

const ClusterInfo *clusterByName(std::string_view name) {
    return findByName(CLUSTERS, name);
}

const AttributeInfo *attributeByName(uint16_t cluster, std::string_view name) {
    const ClusterInfo *const info = findCluster(cluster);
    const AttributeInfo *const own = info != nullptr ? findByName(attributesOf(*info), name) : nullptr;
    return own != nullptr ? own : findByName(GLOBAL_ATTRIBUTES, name);
}

const CommandInfo *commandByName(uint16_t cluster, bool to_client, std::string_view name) {
    const ClusterInfo *const info = findCluster(cluster);
    if (info == nullptr) {
        return nullptr;
    }
    const auto commands = commandsOf(*info);
    const auto found = std::ranges::find_if(commands, [&](const CommandInfo &command) {
        return (command.to_client != 0) == to_client &&
               (isCalled(command, name) || isSameName(command.ownLabel(), name));
    });
    return found != commands.end() ? &*found : nullptr;
}

std::string_view valueName(uint16_t cluster, uint16_t attribute, int64_t value) {
    if (value < 0 || value > UINT16_MAX) {
        return {};
    }
    const ValueName *const found =
        find(VALUES, placeOfValue, std::tuple(cluster, attribute, static_cast<uint16_t>(value)));
    return found != nullptr ? tableText(found->name_at) : std::string_view();
}

std::string_view profileName(uint16_t profile) {
    return nameOf(PROFILES, profile);
}

std::string_view deviceTypeName(uint16_t profile, uint16_t device_id) {
    const bool known = profile == PROFILE_HOME_AUTOMATION || profile == PROFILE_LIGHT_LINK;
    return known ? nameOf(DEVICE_TYPES, device_id) : std::string_view();
}

std::string_view statusName(uint8_t status) {
    return nameOf(STATUSES, status);
}

std::string_view generalCommandName(uint8_t command) {
    return nameOf(GENERAL_COMMANDS, command);
}

std::string_view zdoCommandName(uint16_t cluster) {
    return nameOf(ZDO_COMMANDS, cluster);
}

bool isSameName(std::string_view a, std::string_view b) {
    bool any = false;
    for (;;) {
        const char next = nextSignificant(a);
        if (next != nextSignificant(b)) {
            return false;
        }
        if (next == '\0') {
            return any; // nothing is the name of nothing
        }
        any = true;
    }
}

} // namespace corvane::zigbee
