// SPDX-License-Identifier: Apache-2.0
// The configuration file. A refused one leaves the settings in force as they were.
#include "config_internal.h"
#include "fuzz_log.h"
#include "oru_init.h"

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::logToFile();
    FILE *file = tmpfile();
    fuzz::require(file != nullptr && fwrite(data, 1, size, file) == size, "a temporary file");
    rewind(file);
    oruConfig_t before = oruConfig_defaults();
    before.log_max_files = 17;
    before.runtime_directory = "/before";
    oruConfig_replace(before);
    oruUserConfig_config_t config{1, nullptr};
    const oru_status_t status = oruUserConfig_parser(file, &config);
    fclose(file);
    const oruConfig_t &now = oruConfig_get();
    if (status != ORU_STATUS_OK) {
        fuzz::require(now.log_max_files == 17 && now.runtime_directory == "/before", "settings survive a refusal");
        fuzz::require(config.thread_prio == nullptr, "no table after a refusal");
    } else {
        fuzz::require(!now.state_directory.empty() && !now.runtime_directory.empty(), "folders are named");
        fuzz::require(now.log_sink != oruConfig_log_sink_t::LOG_FILE || !now.log_file.empty(), "a log file is named");
        fuzz::require(now.log_level >= ORU_LOG_VERBOSE && now.log_level <= ORU_LOG_FATAL, "a known level");
    }
    free(config.thread_prio);
    return 0;
}
