// SPDX-License-Identifier: Apache-2.0
// Stored records as the service finds them at start-up: keys and values of any form.
#include "../service/service_fixture.h"
#include "fuzz_input.h"

namespace {

class Records : public ServiceTest {
public:
    void TestBody() override {}
    void play(fuzz::Input &input) {
        SetUp();
        for (int n = 0; n < 200 && !input.empty(); ++n) {
            const Bytes name = input.sized8();
            testplat::kvs::content()["zigbee." + std::string(name.begin(), name.end())] = input.sized16();
        }
        fuzz::require(boot(), "the service starts");
        testplat::hal::stackStatus(ORU_ZB_HAL_STACK_ENABLED_NETWORK_UP);
        pump();
        use();
        expectAtRest();
        TearDown();
    }

private:
    static void use() {
        oruZb_device_t device{};
        const uint32_t count = oruZb_databaseGetDeviceCount();
        for (uint32_t i = 0; i < count; ++i) {
            fuzz::require(oruZb_databaseGetDeviceByIndex(i, &device) == ORU_STATUS_OK, "each counted device is there");
            oruZb_device_t same{};
            fuzz::require(oruZb_databaseGetDeviceByEui64(device.device_info.eui64, &same) == ORU_STATUS_OK,
                          "by EUI-64");
            (void)oruZb_databaseUpdateItemLatency(device.node_id, i);
        }
        (void)oruZb_databasePrintDevices();
        (void)oruZb_databaseUploadMetrics();
        if (count > 0) { // the last one comes again, under another node id, and is interrogated
            Eui64Bytes eui64{};
            std::copy_n(device.device_info.eui64, eui64.size(), eui64.begin());
            const FakeDevice again{eui64, static_cast<uint16_t>(device.node_id ^ 0x0101)};
            again.update(ORU_ZB_HAL_STANDARD_SECURITY_SECURED_REJOIN);
            pump();
            again.join();
            again.announce();
            pump();
            again.activeEndpoints({1});
            pump();
        }
        while (oruZb_databaseGetDeviceCount() > 0) {
            fuzz::require(oruZb_databaseGetDeviceByIndex(0, &device) == ORU_STATUS_OK, "the newest device");
            fuzz::require(oruZb_databaseRemoveDevice(device.node_id) == ORU_STATUS_OK, "each device can be removed");
        }
        testplat::hal::confirmAll();
        pump();
    }
};

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const bool strict = (::testing::FLAGS_gtest_break_on_failure = true);
    fuzz::require(strict, "expectations end the process");
    fuzz::Input input(data, size);
    Records().play(input);
    return 0;
}
