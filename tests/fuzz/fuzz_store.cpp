// SPDX-License-Identifier: Apache-2.0
// The store's file: whatever it contains, the store comes up, and what is stored from then on stays.
#include "config_internal.h"
#include "fuzz_log.h"
#include "oru_kvs.h"
#include "oru_kvs_testing.h"
#include <array>
#include <cstring>
#include <fstream>

namespace {

std::vector<std::string> names;

const std::string &folder() {
    static const std::string path = [] {
        fuzz::logToFile();
        oruConfig_t config = oruConfig_defaults();
        config.state_directory = fuzz::folder() + "/state";
        config.runtime_directory = fuzz::folder();
        oruConfig_replace(config);
        oruKvsTesting_setPace(0, 0);
        return config.state_directory;
    }();
    return path;
}

void readAll() {
    std::vector<uint8_t> value(65536);
    names.clear();
    (void)oruKeyValueDsHal_listKeys("zigbee", [](const char *name) {
        names.emplace_back(name);
        return 0;
    });
    for (const std::string &name : names) {
        (void)oruKeyValueDsHal_get(("zigbee." + name).c_str(), value.data(), value.size());
    }
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    oruKvsTesting_closeStore();
    std::filesystem::remove_all(folder());
    std::filesystem::create_directory(folder());
    std::ofstream(folder() + "/corvane.db", std::ios::binary)
        .write(reinterpret_cast<const char *>(data), static_cast<std::streamsize>(size));
    readAll();
    const oru_status_t stored = oruKeyValueDsHal_set("zigbee.probe", "sound", 5);
    // Only a file of a newer release is left alone, and the store says so.
    fuzz::require(stored == ORU_STATUS_OK || stored == ORU_STATUS_NOT_SUPPORTED, "the store takes a value");
    if (stored != ORU_STATUS_OK) {
        return 0;
    }
    (void)oruKeyValueDsHal_remove("zigbee.02:00:00:ff:fe:00:01:01");
    oruKvsTesting_closeStore();
    std::array<char, 8> back{};
    fuzz::require(oruKeyValueDsHal_get("zigbee.probe", back.data(), back.size()) == 5 &&
                      memcmp(back.data(), "sound", 5) == 0,
                  "it is there after a restart");
    readAll();
    return 0;
}
