// SPDX-License-Identifier: Apache-2.0
#include "corvanectl_parse.h"
#include <gtest/gtest.h>

namespace corvane::ctl {
namespace {

TEST(CtlParse, Numbers) {
    EXPECT_EQ(tryNumber("12"), 12);
    EXPECT_EQ(tryNumber("0x1A"), 0x1A);
    EXPECT_EQ(tryNumber(protectNegativeNumber("-15")), -15);
    EXPECT_EQ(protectNegativeNumber("-x"), "-x");
    EXPECT_EQ(protectNegativeNumber("--5"), "--5");
    for (const char *nonsense : {"", "-", "--1", "0x", "0x-1", "1a", " 1", "1 ", "99999999999999999999", "+1", "1.5"}) {
        EXPECT_EQ(tryNumber(nonsense), std::nullopt) << nonsense;
    }
    EXPECT_EQ(parseAs<int8_t>("-128", "power"), -128);
    EXPECT_THROW(parseAs<int8_t>("128", "power"), UsageError);
}

TEST(CtlParse, Devices) {
    EXPECT_EQ(std::get<uint16_t>(parseDevice("0x1A2b")), 0x1A2B);
    EXPECT_EQ(std::get<uint16_t>(parseDevice("6699")), 6699);
    EXPECT_EQ(std::get<uint32_t>(parseDevice("#3")), 3U);
    const Eui64 eui64{0x00, 0x12, 0x4B, 0, 1, 2, 3, 0xFF};
    for (const char *text : {"00:12:4b:00:01:02:03:ff", "00-12-4B-00-01-02-03-FF", "00124b00010203ff"}) {
        EXPECT_EQ(std::get<Eui64>(parseDevice(text)), eui64) << text;
    }
    for (const char *nonsense : {"", "#", "#-1", "#x", "0x10000", "-1", "lamp", "00:12:4b:00:01:02:03",
                                 "00:12:4b:00:01:02:03:ff:", "00::12:4b:00:01:02:03:f"}) {
        EXPECT_THROW(parseDevice(nonsense), UsageError) << nonsense;
    }
    const auto target = parseDeviceEndpoint("00:12:4b:00:01:02:03:ff/11");
    EXPECT_EQ(std::get<Eui64>(target.device), eui64);
    EXPECT_EQ(target.endpoint, 11);
    EXPECT_FALSE(parseDeviceEndpoint("#0").endpoint);
    EXPECT_THROW(parseDeviceEndpoint("#0/256"), UsageError);
    EXPECT_THROW(parseDeviceEndpoint("#0/"), UsageError);
}

TEST(CtlParse, InstallCodes) {
    // The check value of CRC-16/X-25.
    const std::string check = "123456789";
    EXPECT_EQ(crc16X25({reinterpret_cast<const uint8_t *>(check.data()), check.size()}), 0x906E);
    // The example of the Zigbee base device behaviour: 83FED3407A939723A5C639B26916D505, CRC 0xB5C3.
    const auto computed = parseInstallCode("83FE D340 7A93 9723 A5C6 39B2 6916 D505");
    EXPECT_EQ(computed[16], 0xC3);
    EXPECT_EQ(computed[17], 0xB5);
    EXPECT_EQ(parseInstallCode("83fed3407a939723a5c639b26916d505c3b5"), computed);
    EXPECT_THROW(parseInstallCode("83fed3407a939723a5c639b26916d505b5c3"), UsageError); // CRC the wrong way round
    EXPECT_THROW(parseInstallCode("83fed3407a939723a5c639b26916d505c3"), UsageError);
    EXPECT_THROW(parseInstallCode("x3fed3407a939723a5c639b26916d505"), UsageError);
    EXPECT_THROW(parseInstallCode(""), UsageError);
}

TEST(CtlParse, Channels) {
    EXPECT_EQ(parseChannelMask("all"), 0x07FFF800U);
    EXPECT_EQ(parseChannelMask("11"), 1U << 11);
    EXPECT_EQ(parseChannelMask("11-13,26"), 1U << 11 | 1U << 12 | 1U << 13 | 1U << 26);
    EXPECT_EQ(parseChannelMask("0x00008000"), 1U << 15);
    for (const char *nonsense :
         {"", "10", "27", "11-", "-12", "14-11", "11,", "11,,12", "0x0", "0x400", "0x08000000"}) {
        EXPECT_THROW(parseChannelMask(nonsense), UsageError) << nonsense;
    }
    EXPECT_EQ(parseChannelRange("11-15").last, 15);
}

TEST(CtlParse, HexFrames) {
    EXPECT_EQ(parseHex("01 00:2a", "frame", 3), (std::vector<uint8_t>{1, 0, 0x2A}));
    EXPECT_TRUE(parseHex("", "frame", 3).empty());
    EXPECT_THROW(parseHex("01002a0b", "frame", 3), UsageError);
    EXPECT_THROW(parseHex("010", "frame", 3), UsageError);
    EXPECT_THROW(parseHex("zz", "frame", 3), UsageError);
}

} // namespace
} // namespace corvane::ctl
