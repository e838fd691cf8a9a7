// SPDX-License-Identifier: Apache-2.0
#include "mesh_device_support.h"

namespace corvane::mesh {
namespace {

const char *const kSwitch = R"(
[[device]]
name = "switch"
eui64 = "02:11:22:33:44:55:66:77"
role = "end_device"
manufacturer_code = 0xABCD
[[device.endpoint]]
id = 1
device_id = 0x0104
input_clusters = ["basic", "identify"]
output_clusters = ["on_off"]
[[device.endpoint]]
id = 9
profile_id = 0xC05E
device_version = 2
)";

struct ZdoCase {
    const char *what;
    uint16_t cluster_id;
    bool broadcast;
    const char *request;
    uint16_t response_id;
    const char *response; // empty: none
};

// Sequence 2a throughout; own node id 0x1234, low byte first; EUI-64s least significant byte first.
constexpr ZdoCase kZdoCases[] = {
    {"Active_EP_req", 0x0005, false, "2a 34 12", 0x8005, "2a 00 34 12 02 01 09"},
    {"Active_EP_req about another", 0x0005, false, "2a 35 12", 0x8005, "2a 80 35 12"},
    {"Active_EP_req with more than it needs", 0x0005, false, "2a 34 12 ff", 0x8005, "2a 00 34 12 02 01 09"},
    {"Simple_Desc_req", 0x0004, false, "2a 34 12 01", 0x8004,
     "2a 00 34 12 0e 01 04 01 04 01 01 02 00 00 03 00 01 06 00"},
    {"Simple_Desc_req of an endpoint without clusters", 0x0004, false, "2a 34 12 09", 0x8004,
     "2a 00 34 12 08 09 5e c0 00 00 02 00 00"},
    {"Simple_Desc_req, not active", 0x0004, false, "2a 34 12 02", 0x8004, "2a 83 34 12 00"},
    {"Simple_Desc_req, no such number", 0x0004, false, "2a 34 12 00", 0x8004, "2a 82 34 12 00"},
    {"Node_Desc_req", 0x0002, false, "2a 34 12", 0x8002, "2a 00 34 12 02 40 8c cd ab 52 52 00 00 2c 52 00 00"},
    {"NWK_addr_req", 0x0000, false, "2a 77 66 55 44 33 22 11 02 00 00", 0x8000, "2a 00 77 66 55 44 33 22 11 02 34 12"},
    {"NWK_addr_req, extended, broadcast", 0x0000, true, "2a 77 66 55 44 33 22 11 02 01 00", 0x8000,
     "2a 00 77 66 55 44 33 22 11 02 34 12 00"},
    {"NWK_addr_req of another, broadcast", 0x0000, true, "2a 78 66 55 44 33 22 11 02 00 00", 0, ""},
    {"IEEE_addr_req", 0x0001, false, "2a 34 12 00 00", 0x8001, "2a 00 77 66 55 44 33 22 11 02 34 12"},
    {"Match_Desc_req for on/off clients", 0x0006, true, "2a fd ff 04 01 00 01 06 00", 0x8006, "2a 00 34 12 01 01"},
    {"Match_Desc_req nobody matches", 0x0006, true, "2a fd ff 04 01 01 00 04 00", 0, ""},
    {"Match_Desc_req whose list is cut", 0x0006, false, "2a 34 12 04 01 02 06 00", 0, ""},
    {"Bind_req", 0x0021, false, "2a 77 66 55 44 33 22 11 02 01 06 00 03 01 00 00 fe ff c0 00 02 01", 0x8021, "2a 00"},
    {"Bind_req to a group", 0x0021, false, "2a 77 66 55 44 33 22 11 02 01 06 00 01 05 00", 0x8021, "2a 00"},
    {"Bind_req of an endpoint it has not", 0x0021, false, "2a 77 66 55 44 33 22 11 02 07 06 00 01 05 00", 0x8021,
     "2a 82"},
    {"Bind_req for another source", 0x0021, false, "2a 78 66 55 44 33 22 11 02 01 06 00 01 05 00", 0x8021, "2a 84"},
    {"Bind_req, target cut", 0x0021, false, "2a 77 66 55 44 33 22 11 02 01 06 00 03 01 00 00", 0, ""},
    {"Unbind_req without binding", 0x0022, false, "2a 77 66 55 44 33 22 11 02 01 06 00 01 05 00", 0x8022, "2a 88"},
    {"unknown request", 0x0031, false, "2a 00", 0x8031, "2a 84"},
    {"unknown request, broadcast", 0x0031, true, "2a 00", 0, ""},
    {"Device_annce of another", 0x0013, true, "2a 01 00 01 02 03 04 05 06 07 08 8e", 0, ""},
    {"a response", 0x8005, false, "2a 00 34 12 00", 0, ""},
    {"request cut", 0x0005, false, "2a 34", 0, ""},
    {"empty frame", 0x0005, false, "", 0, ""},
};

TEST(MeshDeviceZdo, AnswersLikeARealDevice) {
    for (const ZdoCase &test : kZdoCases) {
        Device device = deviceFrom(kSwitch);
        const auto actions = device.receive({0, test.cluster_id, 0, 0, bytes(test.request)}, test.broadcast);
        EXPECT_EQ(hex(actions.answers), test.response) << test.what;
        EXPECT_FALSE(actions.leave) << test.what;
        if (actions.answers.size() == 1) {
            EXPECT_EQ(actions.answers[0].cluster_id, test.response_id) << test.what;
            EXPECT_EQ(actions.answers[0].profile_id, 0) << test.what;
        }
    }
}

TEST(MeshDeviceZdo, BindingsAreKeptOnceUntilTheTableIsFull) {
    Device device = deviceFrom(kSwitch);
    const auto request = [&](uint16_t cluster_id, uint8_t group) {
        ApsMessage frame{0, cluster_id, 0, 0, bytes("01 77 66 55 44 33 22 11 02 01 06 00 01 00 00")};
        frame.payload[13] = group;
        return hex(device.receive(frame, false).answers);
    };
    for (uint8_t group = 1; group <= 16; group++) {
        EXPECT_EQ(request(0x0021, group), "01 00");
    }
    EXPECT_EQ(request(0x0021, 3), "01 00");
    EXPECT_EQ(request(0x0021, 17), "01 8c");
    EXPECT_EQ(request(0x0022, 3), "01 00");
    EXPECT_EQ(request(0x0022, 3), "01 88");
    EXPECT_EQ(request(0x0021, 17), "01 00");
}

TEST(MeshDeviceZdo, LeavesWhenToldTo) {
    struct {
        const char *request;
        bool broadcast;
        const char *response;
        bool leave, rejoin;
    } const cases[] = {
        {"01 77 66 55 44 33 22 11 02 00", false, "01 00", true, false},
        {"01 77 66 55 44 33 22 11 02 80", false, "01 00", true, true},
        {"01 00 00 00 00 00 00 00 00 00", true, "", true, false},
        {"01 01 00 00 00 00 00 00 00 00", false, "01 81", false, false},
        {"01 77 66 55 44 33 22 11 02", false, "", false, false},
    };
    for (const auto &test : cases) {
        for (const bool silent : {false, true}) { // a silent device obeys all the same
            Device device = deviceFrom(kSwitch);
            device.faults().silent = silent;
            const auto actions = device.receive({0, 0x0034, 0, 0, bytes(test.request)}, test.broadcast);
            EXPECT_EQ(hex(actions.answers), silent ? "" : test.response);
            EXPECT_EQ(actions.leave, test.leave) << test.request;
            EXPECT_EQ(actions.rejoin, test.rejoin) << test.request;
        }
    }
}

TEST(MeshDeviceZdo, AnnouncesWithItsOwnSequence) {
    Device device = deviceFrom(kSwitch);
    EXPECT_EQ(hex({device.announce()}), "00 34 12 77 66 55 44 33 22 11 02 8c");
    device.setNodeId(0xBEEF);
    const ApsMessage second = device.announce();
    EXPECT_EQ(hex({second}), "01 ef be 77 66 55 44 33 22 11 02 8c");
    EXPECT_EQ(second.cluster_id, 0x0013);
}

TEST(MeshDeviceZdo, FaultsSpoilResponses) {
    struct {
        Faults faults;
        const char *response;
    } cases[] = {
        {{.zdo_error_status = 0xB3}, "05 b3 34 12"},
        {{.zdo_length_delta = -1}, "05 00 34 12 02 01"},
        {{.zdo_length_delta = 2}, "05 00 34 12 02 01 09 00 00"},
        {{.zdo_length_delta = -100}, ""},
        {{.duplicate_answers = true}, "05 00 34 12 02 01 09 | 05 00 34 12 02 01 09"},
        {{.silent = true}, ""},
    };
    for (auto &test : cases) {
        Device device = deviceFrom(kSwitch);
        device.faults() = test.faults;
        EXPECT_EQ(hex(device.receive({0, 0x0005, 0, 0, bytes("05 34 12")}, false).answers), test.response);
    }
}

} // namespace
} // namespace corvane::mesh
