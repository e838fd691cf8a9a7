// SPDX-License-Identifier: Apache-2.0
//
// The message path takes nothing from the heap: every allocation of the process is counted while messages of all kinds
// go through the service.
#include "../support/allocation_counter.h"
#include "service_fixture.h"

namespace {

class AllocationTest : public ServiceTest {};

TEST_F(AllocationTest, NothingPerMessage) {
    bootReady();
    oruZb_device_t device{};
    device.node_id = 0x1001;
    ASSERT_EQ(oruZb_databaseAddDevice(&device), ORU_STATUS_OK);
    oruZb_clusterCmd_t cmd{};
    cmd.dest_node = 0x1001;
    cmd.payload_len = 3;
    alignas(8) uint8_t buffer[4096] = {};
    uint8_t zdo[6] = {1, 0, 1, 0x10, 1, 1};
    const auto round = [&] {
        memcpy(buffer, &cmd, sizeof cmd);
        uint32_t length = sizeof cmd, status = 0;
        oruOipc_parameter_t task{
            1, ORU_OIPC_FUNCTION_ASYNC, ORU_ZB_SVC_SEND_CLUSTER_CMD_ASYNC, 0, &length, &status, buffer, 0x201};
        EXPECT_EQ(oruZb_oipcServiceHandler(&task), 0); // an asynchronous send and its confirmation
        pump();
        testplat::quietConfirm();
        oru_status_t result = 0;
        oruZb_msgData_t msg{};
        for (const oruZb_msgType_t type : {ORU_ZB_SVC_GETDEVICE_COUNT, ORU_ZB_SVC_GETNET_INFO, ORU_ZB_SVC_SPING}) {
            msg.msg_type = type;
            msg.msg_data_ptr = buffer;
            msg.msg_data_len = sizeof buffer;
            msg.return_status = &result;
            oruZb_processSyncCall(&msg);
        }
        oruZbHal_apsFrame_t aps{};
        aps.profile_id = 0x0104;
        oruZbHal_incomingMessage_t incoming{};
        incoming.aps_frame = &aps;
        incoming.message = zdo;
        incoming.msg_len = sizeof zdo;
        EXPECT_TRUE(oruZb_stackIncomingMsgCallback(&incoming)); // a report of a device
        aps.profile_id = 0;
        aps.cluster_id = ZDO_ACTIVE_EP_RSP;
        EXPECT_TRUE(oruZb_stackIncomingMsgCallback(&incoming)); // a ZDO frame through the queue
        pump();
    };
    testplat::quiet = true;
    round(); // whatever is made once
    const uint64_t before = allocations;
    testplat::quiet_events = 0;
    for (int i = 0; i < 1000; ++i) {
        round();
    }
    const uint64_t taken = allocations - before;
    testplat::quiet = false;
    EXPECT_EQ(testplat::quiet_events, 3000U); // callback, confirmation and report of each round
    EXPECT_EQ(taken, 0U);
    expectAtRest();
}

} // namespace
