// SPDX-License-Identifier: Apache-2.0
//
// Country code to region, the adapter's region, and the retry cycle of the start-up step.
#include "zb_region_info.h"
#include "zb_gate.h"
#include <array>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <type_traits>

static constexpr uint32_t RETRY_WAIT_MS = 60000;
static constexpr uint32_t FALLBACK_WAIT_MS = 480000;
static constexpr int32_t MAX_ATTEMPTS = 9;

static oru_status_t worldWideCountryCode(char *code, size_t size) {
    static_cast<void>(snprintf(code, size, "WW"));
    return ORU_STATUS_OK;
}

oruTimer_t qel_ready_timer;
std::atomic<oruZbHal_region_t> region_code{ORU_ZB_HAL_REGION_WORLD_WIDE};
std::atomic<int32_t> attempts{0};
std::atomic<bool> test_without_qel{false};
std::atomic<oruZb_countryCodeProvider_t> country_code_provider{worldWideCountryCode};

// Makes "store region_code, apply it to the adapter" one step, so that the two agree whichever thread comes last.
// Outermost service lock after that of a client call.
static std::mutex region_mutex;
static_assert(std::is_trivially_destructible_v<std::mutex>, "threads may still use it while the process exits");

static constexpr uint16_t ccValue(uint8_t first, uint8_t second) {
    return static_cast<uint16_t>(first * 256 + second);
}

struct countryRegion {
    uint16_t cc_value;
    oruZbHal_region_t region;
};
static constexpr std::array<countryRegion, 13> COUNTRIES = {{
    {ccValue('U', 'S'), ORU_ZB_HAL_REGION_UNITED_STATES},
    {ccValue('D', 'E'), ORU_ZB_HAL_REGION_EUROPE},
    {ccValue('E', 'S'), ORU_ZB_HAL_REGION_EUROPE},
    {ccValue('F', 'R'), ORU_ZB_HAL_REGION_EUROPE},
    {ccValue('G', 'B'), ORU_ZB_HAL_REGION_EUROPE},
    {ccValue('I', 'T'), ORU_ZB_HAL_REGION_EUROPE},
    {ccValue('J', 'P'), ORU_ZB_HAL_REGION_JAPAN},
    {ccValue('I', 'N'), ORU_ZB_HAL_REGION_INDIA},
    {ccValue('C', 'A'), ORU_ZB_HAL_REGION_CANADA},
    {ccValue('A', 'U'), ORU_ZB_HAL_REGION_AUSTRALIA},
    {ccValue('N', 'Z'), ORU_ZB_HAL_REGION_AUSTRALIA},
    {ccValue('B', 'R'), ORU_ZB_HAL_REGION_BRAZIL},
    {ccValue('M', 'X'), ORU_ZB_HAL_REGION_MEXICO},
}};

static oruZbHal_region_t regionOf(uint16_t cc_value) {
    for (const countryRegion &country : COUNTRIES) {
        if (country.cc_value == cc_value) {
            return country.region;
        }
    }
    return ORU_ZB_HAL_REGION_WORLD_WIDE;
}

oruZbHal_region_t oruZb_countryCodeToRegionCode(const uint8_t *country_code) {
    if (country_code == nullptr || strnlen(reinterpret_cast<const char *>(country_code), 3) != 2) {
        return ORU_ZB_HAL_REGION_MAX;
    }
    const uint16_t cc_value = ccValue(country_code[0], country_code[1]);
    const oruZbHal_region_t region = regionOf(cc_value);
    ZB_LOG_INFO("%s: %s(): cc_value: 0x%x, %d", ZB_REGION, __func__, cc_value, region);
    return region;
}

oruZbHal_region_t oruZb_getRegionCode() {
    return region_code;
}

const char *oruZb_getRegion(oruZbHal_region_t region) {
    switch (region) {
    case ORU_ZB_HAL_REGION_UNITED_STATES:
        return "US";
    case ORU_ZB_HAL_REGION_EUROPE:
        return "EU";
    case ORU_ZB_HAL_REGION_JAPAN:
        return "JP";
    case ORU_ZB_HAL_REGION_INDIA:
        return "IN";
    case ORU_ZB_HAL_REGION_WORLD_WIDE:
        return "WW";
    case ORU_ZB_HAL_REGION_CANADA:
        return "CA";
    case ORU_ZB_HAL_REGION_AUSTRALIA:
        return "AU";
    case ORU_ZB_HAL_REGION_BRAZIL:
        return "BR";
    case ORU_ZB_HAL_REGION_MEXICO:
        return "MX";
    case ORU_ZB_HAL_REGION_UNIFIED:
    case ORU_ZB_HAL_REGION_MAX:
        break;
    }
    return "Undefined";
}

// region_mutex is held.
static oru_status_t applyRegion() {
    static constexpr char operation[] = "oruZb_handleRegion";
    const oruZbHal_region_t region = region_code;
    const oru_status_t status = oruZbHal_setRegion(region);
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: %s(): set region %d failed, status: %d", ZB_REGION, operation, region, status);
        return status;
    }
    ZB_LOG_INFO("%s: %s: set region %d succeeded", ZB_REGION, operation, region);
    oruZbHal_networkParameters_t params{};
    if (oruZbHal_getNetworkInfo(&params) == ORU_STATUS_OK) {
        ZB_LOG_INFO("%s: zb_region set to %d with zb_tx_power: %d", ZB_METRICS, region, params.radio_tx_power);
    }
    return status;
}

oru_status_t oruZb_handleRegion() {
    const std::lock_guard lock(region_mutex);
    return applyRegion();
}

oru_status_t oruZb_setRegionCode(const char *country_code) {
    ZB_LOG_INFO("%s: %s(): Country code = %s", ZB_REGION, __func__, country_code != nullptr ? country_code : "(null)");
    const oruZbHal_region_t region = oruZb_countryCodeToRegionCode(reinterpret_cast<const uint8_t *>(country_code));
    if (region == ORU_ZB_HAL_REGION_MAX) {
        ZB_LOG_ERROR("%s: %s(): returned region is unsupported. Keep region unchanged:%d", ZB_REGION, __func__,
                     region_code.load());
        return ORU_STATUS_GENERAL_ERROR;
    }
    const std::lock_guard lock(region_mutex);
    const oruZbHal_region_t old_region = region_code;
    if (region != old_region) {
        ZB_LOG_INFO("%s: %s(): region changed from old: %d to new: %d", ZB_REGION, __func__, old_region, region);
        region_code = region;
    }
    const oru_status_t status = applyRegion();
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: %s: set region %d failed, status:%d", ZB_REGION, __func__, region, status);
    }
    return status;
}

void oruZb_testWithoutQEL(bool test_flag) {
    test_without_qel = test_flag;
}

oru_status_t oruZb_queryQelRegionCode() {
    char code[8]{};
    const oru_status_t status = country_code_provider.load()(code, sizeof(code));
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: %s(): Failed to get country code from KVS, error code= %d\n", ZB_REGION, __func__, status);
        return ORU_STATUS_GENERAL_ERROR;
    }
    return oruZb_setRegionCode(code);
}

// False: a client has set the region meanwhile, and it stays.
static bool fallBackToWorldWide() {
    static constexpr char operation[] = "oruZb_handleQelAccess";
    const std::lock_guard lock(region_mutex);
    if (test_without_qel) {
        return false;
    }
    ZB_LOG_ERROR("%s: %s(): unable to read country code from KVS, set region_code to World Wide Safe.%d!", ZB_REGION,
                 operation, ORU_ZB_HAL_REGION_WORLD_WIDE);
    region_code = ORU_ZB_HAL_REGION_WORLD_WIDE;
    const oru_status_t status = applyRegion();
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: %s: set region %d failed, status:%d", ZB_REGION, operation, ORU_ZB_HAL_REGION_WORLD_WIDE,
                     status);
    }
    return true;
}

oru_status_t oruZb_handleQelAccess() {
    ZB_LOG_INFO("%s: %s", ZB_REGION, __func__);
    oru_status_t status = oruZb_queryQelRegionCode();
    if (status == ORU_STATUS_OK || test_without_qel) {
        ZB_LOG_INFO("%s: %s(): Region and Tx power settings done", ZB_REGION, __func__);
        return status;
    }
    const int32_t failures = ++attempts;
    ZB_LOG_ERROR("%s: %s(): Failed %d times to get/set country code!", ZB_REGION, __func__, failures);
    if (failures <= MAX_ATTEMPTS) {
        status = oruTime_timerStart(&qel_ready_timer, RETRY_WAIT_MS);
        if (status != ORU_STATUS_OK) {
            ZB_LOG_ERROR("%s: Error: %s: QEL Ready timer starts failed.", ZB_REGION, __func__);
        }
        return status;
    }
    attempts = 0;
    if (!fallBackToWorldWide()) {
        return status;
    }
    status = oruTime_timerStart(&qel_ready_timer, FALLBACK_WAIT_MS);
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: Error: %s: QEL Ready timer starts long wait failed.", ZB_REGION, __func__);
    } else {
        ZB_LOG_INFO("%s: %s(): restarted long qel_ready_timer to set region code !", ZB_REGION, __func__);
    }
    return status;
}

void oruZb_timerCheckQelCallback(void *) {
    const oruZb_gatePass pass(oruZb_gatePass::For::callback);
    if (pass) {
        oruZb_handleQelAccess();
    }
}
