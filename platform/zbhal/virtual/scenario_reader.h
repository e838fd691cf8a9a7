// SPDX-License-Identifier: Apache-2.0
//
// Typed, range-checked access to TOML tables. The first fault is kept with its position; after it every further read
// leaves its target alone, so a parser reads straight on and asks once at the end.
#pragma once
#include "oru_toml.h"
#include "scenario.h"
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

namespace corvane::mesh {

class ScenarioFault {
public:
    explicit ScenarioFault(std::string file) : file_(std::move(file)) {}

    void set(const toml::source_position &where, const std::string &what);
    void set(const toml::node &node, const std::string &what) { set(node.source().begin, what); }
    bool any() const { return !message_.empty(); }
    const std::string &message() const { return message_; }

private:
    std::string file_;
    std::string message_;
};

class TableReader {
public:
    // Refuses keys that are not in the list. what names the table in messages ("device").
    TableReader(const toml::table &table, std::string_view what, ScenarioFault &fault,
                std::initializer_list<std::string_view> keys);

    // Each leaves its target as it is when the key is absent.
    void operator()(std::string_view key, bool &value);
    void operator()(std::string_view key, double &value, double minimum, double maximum);
    template <class Integer>
    void operator()(std::string_view key, Integer &value, int64_t minimum, int64_t maximum) {
        int64_t wide = 0;
        if (integer(key, wide, minimum, maximum)) {
            value = static_cast<Integer>(wide);
        }
    }
    void text(std::string_view key, std::string &value, size_t maximum_length);
    void eui64(std::string_view key, Eui64 &value);
    void clusters(std::string_view key, std::vector<uint16_t> &value);
    void cluster(std::string_view key, uint16_t &value);

    bool integer(std::string_view key, int64_t &value, int64_t minimum, int64_t maximum);
    // False, with a fault, when the key is absent.
    bool required(std::string_view key);
    const toml::table *table(std::string_view key);
    // The tables of an array of tables; empty when the key is absent.
    std::vector<const toml::table *> tables(std::string_view key, size_t maximum);
    const toml::node *node(std::string_view key) const { return table_.get(key); }
    // Of the value of the key, or of the table when it is absent.
    toml::source_position where(std::string_view key) const;
    ScenarioFault &fault() { return fault_; }

private:
    template <class Type>
    const Type *typed(std::string_view key, const char *expected);
    uint16_t clusterId(const toml::node &node);

    const toml::table &table_;
    std::string what_;
    ScenarioFault &fault_;
};

} // namespace corvane::mesh
