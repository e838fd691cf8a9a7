// SPDX-License-Identifier: Apache-2.0
//
// The air: ZDO and application frames of any form and origin, joins, confirmations and stack reports in any order, with
// time going by and clients calling. Afterwards everything is back at rest.
#include "../service/service_fixture.h"
#include "fuzz_input.h"

namespace hal = testplat::hal;

namespace {

constexpr int MAX_STEPS = 150;

class Air : public ServiceTest {
public:
    void TestBody() override {}
    void play(fuzz::Input &input) {
        SetUp();
        throttle_sem_timeout_ms = 0; // real time
        fuzz::require(boot(), "the service starts");
        hal::stackStatus(ORU_ZB_HAL_STACK_ENABLED_NETWORK_UP);
        pump();
        for (int n = 0; n < MAX_STEPS && !input.empty(); ++n) {
            step(input);
            fuzz::require(oruZb_msgCount(oruZb_msgListHead) <= 100, "the queue is bounded by its pool");
        }
        pump();
        hal::confirmAll(input.u8());
        pump();
        expectAtRest();
        fuzz::require(oruMp_testBlocksOut(mp_zb_txnl_handle) == 0, "no transaction is left open");
        checkList();
        TearDown();
    }

private:
    static FakeDevice someone(fuzz::Input &input) {
        const uint8_t n = input.u8();
        FakeDevice device{{0x02, 0, 0, 0, 0, 0, 0, static_cast<uint8_t>(n % 8)}, static_cast<uint16_t>(0x1000 + n % 8)};
        if (n >= 0xE0) { // a stranger, or an address that means something else
            const Bytes eui64 = input.take(8);
            std::copy(eui64.begin(), eui64.end(), device.eui64.begin());
            device.node_id = input.u16();
        }
        return device;
    }
    static void frame(fuzz::Input &input, uint16_t profile, uint16_t cluster) {
        const FakeDevice from = someone(input);
        const uint8_t source_endpoint = input.u8(), destination_endpoint = input.u8();
        (void)hal::incoming(from.node_id, profile, cluster, input.sized8(), source_endpoint, destination_endpoint);
    }
    static uint16_t zdoCluster(fuzz::Input &input) {
        static constexpr uint16_t known[] = {ZDO_DEVICE_ANNCE,    ZDO_ACTIVE_EP_RSP,  ZDO_SIMPLE_DESC_RSP,
                                             ZDO_NODE_DESC_RSP,   ZDO_MGMT_LEAVE_RSP, ZDO_NODE_DESC_REQ,
                                             ZDO_SIMPLE_DESC_REQ, ZDO_ACTIVE_EP_REQ};
        const uint8_t n = input.u8();
        return n < 0xF0 ? known[n % std::size(known)] : input.u16();
    }
    void step(fuzz::Input &input) {
        switch (input.u8() % 14) {
        case 0:
        case 1:
        case 2:
            frame(input, ZDO_PROFILE_ID, zdoCluster(input));
            break;
        case 3:
            frame(input, 0x0104, input.u16());
            break;
        case 4: {
            const uint16_t profile = input.u16();
            frame(input, profile, input.u16());
            break;
        }
        case 5:
            someone(input).update(static_cast<int8_t>(input.u8() % 6));
            break;
        case 6:
            hal::stackStatus(static_cast<int8_t>(input.u8()));
            break;
        case 7:
            if (!hal::sent().empty()) {
                const size_t index = input.u8() % hal::sent().size();
                if (!hal::sent()[index].confirmed) {
                    hal::confirm(index, input.u8());
                }
            }
            break;
        case 8:
            advance(input.u8() * 500U);
            break;
        case 9: {
            const uint16_t function = static_cast<uint16_t>(ORU_ZB_SVC_ASYNCFUNC_START + input.u8() % 16);
            (void)callAsync(function, input.sized8());
            break;
        }
        case 10: {
            oruZb_clusterCmd_t cmd{};
            cmd.dest_node = someone(input).node_id;
            cmd.payload_len = input.u8();
            (void)callAsync(ORU_ZB_SVC_SEND_CLUSTER_CMD_ASYNC, bytesOf(cmd));
            break;
        }
        case 11:
        case 12: {
            const FakeDevice device = someone(input); // as it should be, up to some stage of its interrogation
            device.join();
            device.announce();
            pump();
            interview(device, 2, input.u8() % 5);
            break;
        }
        default:
            pump();
        }
    }
    static void checkList() {
        uint32_t count = 0;
        for (const auto *item = device_list_head.slh_first; item != nullptr; item = item->entries.sle_next) {
            ++count;
        }
        fuzz::require(count == oruZb_databaseGetDeviceCount(), "the count is the list's");
        for (const auto &[key, value] : testplat::kvs::content()) {
            fuzz::require(value.size() == sizeof(oruZb_device_t), "stored records are whole");
        }
    }
};

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const bool strict = (::testing::FLAGS_gtest_break_on_failure = true);
    fuzz::require(strict, "expectations end the process");
    fuzz::Input input(data, size);
    Air().play(input);
    return 0;
}
