// SPDX-License-Identifier: Apache-2.0
//
// The log goes to a file in a temporary folder of the process: lines are formatted as ever, and the console stays free.
#pragma once
#include "fuzz_input.h"
#include "oru_log_setup.h"
#include <filesystem>

namespace fuzz {

// Made at the first call, gone when the process ends properly.
inline const std::string &folder() {
    static const std::string *const path = [] {
        const char *memory = std::filesystem::exists("/dev/shm") ? "/dev/shm" : "/tmp";
        static std::string name = std::string(memory) + "/corvane-fuzz-XXXXXX";
        require(mkdtemp(name.data()) != nullptr, "a folder");
        (void)atexit([] { std::filesystem::remove_all(name); });
        return &name;
    }();
    return *path;
}

inline void logToFile() {
    static const oru_status_t status =
        oruLog_configure({oruLog_config_t::sink_t::file, ORU_LOG_INFO, folder() + "/log", 1 << 20, 1});
    require(status == ORU_STATUS_OK, "the log is set up");
}

} // namespace fuzz
