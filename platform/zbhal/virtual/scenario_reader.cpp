// SPDX-License-Identifier: Apache-2.0
#include "scenario_reader.h"
#include "clusters.h"
#include "text_formats.h"
#include <algorithm>
#include <cmath>

namespace corvane::mesh {
namespace {

constexpr size_t kMaxClusters = 60; // per list, so that the length of a simple descriptor fits into its octet

std::string quoted(std::string_view text) {
    return "\"" + printable(text) + "\"";
}

} // namespace

void ScenarioFault::set(const toml::source_position &where, const std::string &what) {
    if (!any()) {
        message_ = file_ + ":" + std::to_string(where.line) + ":" + std::to_string(where.column) + ": " + what;
    }
}

TableReader::TableReader(const toml::table &table, std::string_view what, ScenarioFault &fault,
                         std::initializer_list<std::string_view> keys)
    : table_(table), what_(what), fault_(fault) {
    const toml::key *unknown = nullptr;
    for (const auto &[key, value] : table) { // sorted by name: look for the one that comes first in the file
        const bool known = std::ranges::find(keys, key.str()) != keys.end();
        const auto &position = key.source().begin;
        if (!known && (unknown == nullptr || position < unknown->source().begin)) {
            unknown = &key;
        }
    }
    if (unknown != nullptr) {
        fault.set(unknown->source().begin,
                  "unknown key " + quoted(unknown->str()) + " in " + what_ + "; known: " + joined(keys));
    }
}

toml::source_position TableReader::where(std::string_view key) const {
    const toml::node *const found = table_.get(key);
    return found == nullptr ? table_.source().begin : found->source().begin;
}

template <class Type>
const Type *TableReader::typed(std::string_view key, const char *expected) {
    const toml::node *const found = table_.get(key);
    if (found == nullptr || fault_.any()) {
        return nullptr;
    }
    const Type *const value = found->as<typename Type::value_type>();
    if (value == nullptr) {
        fault_.set(*found, std::string(key) + " must be " + expected);
    }
    return value;
}

bool TableReader::required(std::string_view key) {
    if (table_.get(key) != nullptr) {
        return true;
    }
    fault_.set(table_.source().begin, what_ + " needs the key " + quoted(key));
    return false;
}

void TableReader::operator()(std::string_view key, bool &value) {
    if (const auto *const found = typed<toml::value<bool>>(key, "true or false")) {
        value = found->get();
    }
}

void TableReader::operator()(std::string_view key, double &value, double minimum, double maximum) {
    const toml::node *const found = table_.get(key);
    if (found == nullptr || fault_.any()) {
        return;
    }
    const auto read = found->is_number() ? found->value<double>() : std::nullopt;
    if (!read || !std::isfinite(*read) || *read < minimum || *read > maximum) {
        fault_.set(*found, std::string(key) + " must be a number from " + formatNumber(minimum) + " to " +
                               formatNumber(maximum));
        return;
    }
    value = *read;
}

bool TableReader::integer(std::string_view key, int64_t &value, int64_t minimum, int64_t maximum) {
    const toml::node *const found = table_.get(key);
    if (found == nullptr || fault_.any()) {
        return false;
    }
    const auto *const read = found->as_integer();
    if (read == nullptr || read->get() < minimum || read->get() > maximum) {
        fault_.set(*found, std::string(key) + " must be an integer from " + std::to_string(minimum) + " to " +
                               std::to_string(maximum));
        return false;
    }
    value = read->get();
    return true;
}

void TableReader::text(std::string_view key, std::string &value, size_t maximum_length) {
    const auto *const found = typed<toml::value<std::string>>(key, "a text");
    if (found == nullptr) {
        return;
    }
    if (found->get().size() > maximum_length || printable(found->get()) != found->get()) {
        fault_.set(*found, std::string(key) + " must have at most " + std::to_string(maximum_length) +
                               " characters, all printable ASCII");
        return;
    }
    value = found->get();
}

void TableReader::eui64(std::string_view key, Eui64 &value) {
    const auto *const found = typed<toml::value<std::string>>(key, "a text like \"02:00:00:ff:fe:00:00:01\"");
    if (found == nullptr) {
        return;
    }
    const auto parsed = parseEui64(found->get());
    if (!parsed) {
        fault_.set(*found, std::string(key) + " must be eight hexadecimal bytes separated by colons, neither all 00 " +
                               "nor all ff, like \"02:00:00:ff:fe:00:00:01\"");
        return;
    }
    value = *parsed;
}

uint16_t TableReader::clusterId(const toml::node &node) {
    if (const auto *const id = node.as_integer(); id != nullptr && id->get() >= 0 && id->get() <= 0xFFFF) {
        return static_cast<uint16_t>(id->get());
    }
    if (const auto *const name = node.as_string()) {
        if (const auto id = clusterByName(name->get())) {
            return *id;
        }
        fault_.set(node, "unknown cluster " + quoted(name->get()) + "; known: " + clusterNames());
        return 0;
    }
    fault_.set(node, "a cluster must be a number from 0 to 0xFFFF or a name like \"on_off\"");
    return 0;
}

void TableReader::cluster(std::string_view key, uint16_t &value) {
    if (const toml::node *const found = table_.get(key); found != nullptr && !fault_.any()) {
        value = clusterId(*found);
    }
}

void TableReader::clusters(std::string_view key, std::vector<uint16_t> &value) {
    const toml::node *const found = table_.get(key);
    if (found == nullptr || fault_.any()) {
        return;
    }
    const toml::array *const list = found->as_array();
    if (list == nullptr || list->size() > kMaxClusters) {
        fault_.set(*found,
                   std::string(key) + " must be a list of at most " + std::to_string(kMaxClusters) + " clusters");
        return;
    }
    for (const toml::node &item : *list) {
        const uint16_t id = clusterId(item);
        if (std::ranges::find(value, id) != value.end()) {
            fault_.set(item, "cluster listed twice in " + std::string(key));
        }
        value.push_back(id);
    }
}

const toml::table *TableReader::table(std::string_view key) {
    const toml::node *const found = table_.get(key);
    if (found != nullptr && !found->is_table()) {
        fault_.set(*found, std::string(key) + " must be a table: [" + std::string(key) + "]");
    }
    return found == nullptr ? nullptr : found->as_table();
}

std::vector<const toml::table *> TableReader::tables(std::string_view key, size_t maximum) {
    std::vector<const toml::table *> found_tables;
    const toml::node *const found = table_.get(key);
    if (found == nullptr || fault_.any()) {
        return found_tables;
    }
    const toml::array *const list = found->as_array();
    if (list == nullptr || list->size() > maximum) {
        fault_.set(*found, std::string(key) + " must be at most " + std::to_string(maximum) + " tables: [[" +
                               std::string(key) + "]]");
        return found_tables;
    }
    for (const toml::node &item : *list) {
        if (!item.is_table()) {
            fault_.set(item, std::string(key) + " must hold tables only: [[" + std::string(key) + "]]");
            return {};
        }
        found_tables.push_back(item.as_table());
    }
    return found_tables;
}

} // namespace corvane::mesh
