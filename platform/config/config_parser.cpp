// SPDX-License-Identifier: Apache-2.0
//
// The configuration file: TOML, one row of `settings_table` per key. A row knows the form and range of its value and
// where the value goes; the parser only walks the file and matches rows. The file is taken as a whole: at the first
// key that is unknown or wrong, nothing of it is applied.
#include "config_internal.h"
#include "oru_config.h"
#include "oru_init.h"
#include "oru_toml.h"
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <optional>
#include <string_view>
#include <unistd.h>

namespace {

constexpr size_t max_file_bytes = 1024 * 1024;
constexpr size_t max_list_entries = 64;
constexpr int64_t max_u32 = std::numeric_limits<uint32_t>::max();
constexpr int64_t max_i64 = std::numeric_limits<int64_t>::max();
constexpr int64_t supported_version = 1;

struct parsed_t {
    oruConfig_t settings = oruConfig_defaults();
    oruThread_prio_config priorities = {};
    bool has_priorities = false;
};

// Order = numeric value of the enumeration.
constexpr std::array<std::string_view, 3> sink_names = {"stderr", "syslog", "file"};
constexpr std::array<std::string_view, 6> level_names = {"verbose", "debug", "info", "warn", "error", "fatal"};
static_assert(static_cast<size_t>(oruConfig_log_sink_t::LOG_FILE) + 1 == sink_names.size());
static_assert(static_cast<size_t>(ORU_LOG_FATAL) + 1 == level_names.size());

template <typename T>
std::optional<T> integerIn(const toml::node &node, int64_t min, int64_t max) {
    const auto *value = node.as_integer();
    if (value == nullptr || value->get() < min || value->get() > max) {
        return std::nullopt;
    }
    return static_cast<T>(value->get());
}

// Text without control characters: it ends up in paths, account names and log lines.
std::optional<std::string> plainText(const toml::node &node) {
    const auto *value = node.as_string();
    const auto is_control = [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; };
    if (value == nullptr || value->get().empty() || value->get().size() > 4095 ||
        std::any_of(value->get().begin(), value->get().end(), is_control)) {
        return std::nullopt;
    }
    return value->get();
}

template <auto Member, int64_t Min, int64_t Max>
bool applyInteger(parsed_t &parsed, const toml::node &node) {
    auto &target = parsed.settings.*Member;
    const auto value = integerIn<std::remove_reference_t<decltype(target)>>(node, Min, Max);
    target = value.value_or(target);
    return value.has_value();
}

template <auto Member>
bool applyText(parsed_t &parsed, const toml::node &node) {
    const auto value = plainText(node);
    (parsed.settings.*Member) = value.value_or("");
    return value.has_value();
}

template <auto Member, const auto &Names>
bool applyName(parsed_t &parsed, const toml::node &node) {
    auto &target = parsed.settings.*Member;
    const auto value = plainText(node);
    const auto found = std::find(Names.begin(), Names.end(), value.value_or(""));
    if (found == Names.end()) {
        return false;
    }
    target = static_cast<std::remove_reference_t<decltype(target)>>(found - Names.begin());
    return true;
}

// Accounts are written as names or as numbers; inside they are always text.
template <auto Member>
bool applyAccounts(parsed_t &parsed, const toml::node &node) {
    const auto *list = node.as_array();
    if (list == nullptr || list->size() > max_list_entries) {
        return false;
    }
    std::vector<std::string> accounts;
    for (const auto &entry : *list) {
        const auto number = integerIn<uint32_t>(entry, 0, max_u32 - 1);
        const auto name = number ? std::optional(std::to_string(*number)) : plainText(entry);
        if (!name) {
            return false;
        }
        accounts.push_back(*name);
    }
    (parsed.settings.*Member) = std::move(accounts);
    return true;
}

template <auto Member>
bool applyPriority(parsed_t &parsed, const toml::node &node) {
    const auto value = integerIn<uint32_t>(node, 0, max_u32);
    parsed.priorities.*Member = value.value_or(0);
    parsed.has_priorities = true;
    return value.has_value();
}

bool applyVersion(parsed_t & /*parsed*/, const toml::node &node) {
    return integerIn<int64_t>(node, supported_version, supported_version).has_value();
}

// Text, because TOML would read 0660 as an error and 660 as a decimal number.
bool applySocketMode(parsed_t &parsed, const toml::node &node) {
    const std::string digits = plainText(node).value_or("");
    const bool octal = digits.find_first_not_of("01234567") == std::string::npos;
    if (!octal || digits.size() < 3 || digits.size() > 4 || (digits.size() == 4 && digits[0] != '0')) {
        return false;
    }
    parsed.settings.socket_mode = static_cast<mode_t>(strtoul(digits.c_str(), nullptr, 8));
    return true;
}

bool applyEventMode(parsed_t &parsed, const toml::node &node) {
    const std::string mode = plainText(node).value_or("");
    parsed.settings.radio_event_descriptor = mode == "descriptor";
    return mode == "descriptor" || mode == "thread";
}

bool applySeed(parsed_t &parsed, const toml::node &node) {
    const auto seed = integerIn<uint64_t>(node, 0, max_i64);
    parsed.settings.radio_seed = seed.value_or(0);
    parsed.settings.radio_seed_set = seed.has_value();
    return seed.has_value();
}

template <auto Member>
bool applyFlag(parsed_t &parsed, const toml::node &node) {
    const auto *value = node.as_boolean();
    auto &target = parsed.settings.*Member;
    target = value != nullptr ? value->get() : target;
    return value != nullptr;
}

struct setting_t {
    std::string_view table; // empty: top level of the file
    std::string_view key;
    const char *allowed;
    bool (*apply)(parsed_t &parsed, const toml::node &node); // false: wrong type or out of range
};

constexpr const char *any_u32 = "an integer from 0 to 4294967295";
constexpr const char *any_path = "a non-empty text in quotation marks without control characters";
constexpr const char *any_accounts = "a list of at most 64 names or numbers, for example [\"alice\", 1000]";

constexpr std::array settings_table = {
    setting_t{"", "version", "1", applyVersion},
    setting_t{"thread_priority", "idle", any_u32, applyPriority<&oruThread_prio_config::idle>},
    setting_t{"thread_priority", "low", any_u32, applyPriority<&oruThread_prio_config::low>},
    setting_t{"thread_priority", "below_normal", any_u32, applyPriority<&oruThread_prio_config::below_normal>},
    setting_t{"thread_priority", "normal", any_u32, applyPriority<&oruThread_prio_config::normal>},
    setting_t{"thread_priority", "above_normal", any_u32, applyPriority<&oruThread_prio_config::above_normal>},
    setting_t{"thread_priority", "high", any_u32, applyPriority<&oruThread_prio_config::high>},
    setting_t{"thread_priority", "realtime", any_u32, applyPriority<&oruThread_prio_config::realtime>},
    setting_t{"log", "sink", R"("stderr", "syslog" or "file")", applyName<&oruConfig_t::log_sink, sink_names>},
    setting_t{"log", "level", R"("verbose", "debug", "info", "warn", "error" or "fatal")",
              applyName<&oruConfig_t::log_level, level_names>},
    setting_t{"log", "file", any_path, applyText<&oruConfig_t::log_file>},
    setting_t{"log", "max_size_kib", "an integer from 16 to 1048576",
              applyInteger<&oruConfig_t::log_max_size_kib, 16, 1048576>},
    setting_t{"log", "max_files", "an integer from 0 to 100", applyInteger<&oruConfig_t::log_max_files, 0, 100>},
    setting_t{"store", "directory", any_path, applyText<&oruConfig_t::state_directory>},
    setting_t{"ipc", "directory", any_path, applyText<&oruConfig_t::runtime_directory>},
    setting_t{"ipc", "socket_mode", R"(three octal digits as text, for example "0660")", applySocketMode},
    setting_t{"ipc", "users", any_accounts, applyAccounts<&oruConfig_t::ipc_users>},
    setting_t{"ipc", "groups", any_accounts, applyAccounts<&oruConfig_t::ipc_groups>},
    setting_t{"radio", "event_mode", R"("descriptor" or "thread")", applyEventMode},
    setting_t{"radio", "seed", "an integer from 0 to 9223372036854775807", applySeed},
    setting_t{"radio", "watchdog_seconds", "an integer from 0 to 86400",
              applyInteger<&oruConfig_t::watchdog_seconds, 0, 86400>},
    setting_t{"radio", "wait_for_adapter", "true or false", applyFlag<&oruConfig_t::radio_wait_for_adapter>},
    setting_t{"simulation", "control_socket", "true or false", applyFlag<&oruConfig_t::simulation_control>},
};

// What is wrong and where; line 0 stands for "no place in the file".
struct problem_t {
    toml::source_position place = {};
    std::string text;
};
using result_t = std::optional<problem_t>; // nothing: good

std::string quoted(std::string_view table, std::string_view key) {
    return table.empty() ? std::string(key) : std::string(table) + "." + std::string(key);
}

std::string allowedKeys(std::string_view table) {
    std::string names;
    for (const setting_t &setting : settings_table) {
        if (setting.table == table) {
            names += (names.empty() ? "" : ", ") + std::string(setting.key);
        }
    }
    return names;
}

std::string allowedTables() {
    std::string names;
    std::string_view previous;
    for (const setting_t &setting : settings_table) {
        if (setting.table != previous) {
            names += (names.empty() ? "[" : ", [") + std::string(setting.table) + "]";
            previous = setting.table;
        }
    }
    return names;
}

bool isTableName(std::string_view name) {
    return !name.empty() && std::any_of(settings_table.begin(), settings_table.end(),
                                        [name](const setting_t &setting) { return setting.table == name; });
}

result_t applyKey(parsed_t &parsed, std::string_view table, const toml::key &key, const toml::node &node) {
    const auto *setting = std::find_if(settings_table.begin(), settings_table.end(), [&](const setting_t &candidate) {
        return candidate.table == table && candidate.key == key.str();
    });
    if (setting == settings_table.end()) {
        std::string hint = table.empty() ? allowedKeys("") + " and the tables " + allowedTables() : allowedKeys(table);
        return problem_t{key.source().begin, "unknown name \"" + quoted(table, key.str()) + "\"; allowed: " + hint};
    }
    if (!setting->apply(parsed, node)) {
        return problem_t{node.source().begin,
                         quoted(table, key.str()) + " has a wrong value; allowed: " + setting->allowed};
    }
    return std::nullopt;
}

// toml++ keeps keys sorted by name; people expect the first mistake of the file.
void keepEarlier(result_t &first, result_t next) {
    const auto position = [](const result_t &result) { return std::pair(result->place.line, result->place.column); };
    if (next && (!first || position(next) < position(first))) {
        first = std::move(next);
    }
}

result_t applyTable(parsed_t &parsed, const toml::key &name, const toml::node &node) {
    const toml::table *table = node.as_table();
    if (table == nullptr) {
        return problem_t{name.source().begin, "\"" + std::string(name.str()) + "\" must be a table, written [" +
                                                  std::string(name.str()) + "]"};
    }
    result_t problem;
    for (const auto &[key, value] : *table) {
        keepEarlier(problem, applyKey(parsed, name.str(), key, value));
    }
    return problem;
}

result_t applyFile(parsed_t &parsed, const toml::table &file) {
    result_t problem;
    for (const auto &[key, value] : file) {
        keepEarlier(problem,
                    isTableName(key.str()) ? applyTable(parsed, key, value) : applyKey(parsed, "", key, value));
    }
    if (!problem && parsed.settings.log_sink == oruConfig_log_sink_t::LOG_FILE && parsed.settings.log_file.empty()) {
        const auto sink = file.at_path("log.sink").node()->source().begin;
        return problem_t{sink, R"(log.sink = "file" needs log.file, the path of the log file)"};
    }
    return problem;
}

result_t readToEnd(FILE *file, std::string &text) {
    std::array<char, 4096> block;
    while (text.size() <= max_file_bytes) {
        const size_t count = fread(block.data(), 1, block.size(), file);
        text.append(block.data(), count);
        if (count == block.size()) {
            continue;
        }
        if (ferror(file) != 0) {
            return problem_t{{}, std::string("cannot be read: ") + strerror(errno)};
        }
        return std::nullopt;
    }
    return problem_t{{}, "is larger than 1 MiB; this is not a configuration file"};
}

result_t parseText(const std::string &text, parsed_t &parsed) {
    const oruToml_screened_t screened = oruToml_screen(text);
    if (screened.reason != nullptr) {
        return problem_t{{screened.line, screened.column}, screened.reason};
    }
    const toml::parse_result result = toml::parse(std::string_view(screened.text));
    if (!result) {
        return problem_t{result.error().source().begin, std::string(result.error().description())};
    }
    return applyFile(parsed, result.table());
}

// The caller opened the file; the kernel still knows its name, unless it is a pipe or has been deleted.
std::string nameOf(FILE *file) {
    const std::string link = "/proc/self/fd/" + std::to_string(fileno(file));
    std::array<char, 4096> path;
    const ssize_t length = readlink(link.c_str(), path.data(), path.size());
    if (length <= 0 || path[0] != '/') {
        return "configuration file";
    }
    return {path.data(), static_cast<size_t>(length)};
}

std::string describe(const std::string &name, const problem_t &problem) {
    if (problem.place.line == 0) {
        return name + " " + problem.text;
    }
    return name + ":" + std::to_string(problem.place.line) + ":" + std::to_string(problem.place.column) + ": " +
           problem.text;
}

oru_status_t parseFile(FILE *file, oruUserConfig_config_t *config) {
    std::string text;
    parsed_t parsed;
    result_t problem = readToEnd(file, text);
    if (!problem) {
        problem = parseText(text, parsed);
    }
    if (problem) {
        oruConfig_reportError(describe(nameOf(file), *problem));
        return ORU_STATUS_BAD_PARAM;
    }
    if (parsed.has_priorities) {
        // The caller releases the table with free().
        auto *table = static_cast<oruThread_prio_config *>(malloc(sizeof(oruThread_prio_config)));
        if (table == nullptr) {
            return ORU_STATUS_OUT_OF_MEMORY;
        }
        *table = parsed.priorities;
        config->thread_prio = table;
    }
    config->version = supported_version;
    oruConfig_replace(parsed.settings);
    return ORU_STATUS_OK;
}

} // namespace

extern "C" oru_status_t oruUserConfig_parser(FILE *file, oruUserConfig_config_t *config) {
    if (file == nullptr || config == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    try {
        oruConfig_prepareStreams();
        return parseFile(file, config);
    } catch (const std::bad_alloc &) {
        oruConfig_reportError("configuration file: out of memory");
        return ORU_STATUS_OUT_OF_MEMORY;
    }
}
