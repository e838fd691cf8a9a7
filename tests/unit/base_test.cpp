// SPDX-License-Identifier: Apache-2.0
// Cursors, texts and owners that everything else relies on.
#include "base/bytes.h"
#include "base/descriptor.h"
#include "base/eui64.h"
#include "base/hex.h"
#include "base/printable.h"
#include "base/thread.h"
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>

namespace corvane::base {
namespace {

constexpr Eui64 ADDRESS{0x00, 0x12, 0x4B, 0, 1, 2, 3, 0xFF};

TEST(Bytes, WhatIsWrittenIsReadAndNothingBeyondTheEnd) {
    std::array<uint8_t, 27> room{};
    ByteWriter out{std::span(room).first(26)};
    out.u8(0x81), out.u16(0x8182), out.u24(0x818283), out.u32(0x81828384), out.u64(0x8182838485868788);
    out.eui64(ADDRESS);
    ASSERT_TRUE(out.ok());
    EXPECT_EQ(out.left(), 0U);
    EXPECT_EQ(room[1], 0x82); // least significant byte first
    out.u8(0xEE);
    EXPECT_TRUE(!out.ok() && out.size() == 26 && room[26] == 0);

    ByteReader in(out.written());
    EXPECT_EQ(in.u8(), 0x81U);
    EXPECT_EQ(in.u16(), 0x8182U);
    EXPECT_EQ(in.u24(), 0x818283U);
    EXPECT_EQ(in.u32(), 0x81828384U);
    EXPECT_EQ(in.u64(), 0x8182838485868788U);
    EXPECT_EQ(in.eui64(), ADDRESS);
    EXPECT_TRUE(in.ok() && in.atEnd());
    EXPECT_TRUE(in.bytes(0).empty() && in.ok());
    EXPECT_EQ(in.u8(), 0U);
    EXPECT_FALSE(in.ok());
}

TEST(Bytes, FailureLastsUntilItIsTakenBack) {
    const uint8_t bytes[] = {1, 2, 3};
    ByteReader in(bytes);
    EXPECT_EQ(in.u32(), 0U); // nothing of the three
    EXPECT_EQ(in.u8(), 0U);
    EXPECT_FALSE(in.ok());
    EXPECT_EQ(ByteReader(bytes).eui64(), Eui64{});

    std::array<uint8_t, 4> room{};
    ByteWriter out(room);
    out.u24(1);
    const std::size_t record = out.size();
    out.u16(2);
    out.u8(3); // would fit
    EXPECT_TRUE(!out.ok() && out.size() == 3);
    out.rewind(record);
    out.u8(4);
    out.patch(0, 9);
    EXPECT_TRUE(out.ok());
    EXPECT_EQ(room, (std::array<uint8_t, 4>{9, 0, 0, 4}));
}

TEST(Text, AddressesAndHexadecimalBothWays) {
    EXPECT_EQ(eui64Text(ADDRESS).view(), "00:12:4b:00:01:02:03:ff");
    EXPECT_STREQ(ouiText(ADDRESS).c_str(), "00124b");
    EXPECT_EQ(reversed(ADDRESS)[0], 0xFF);
    for (const char *text :
         {"00:12:4b:00:01:02:03:ff", "00-12-4B-00-01-02-03-FF", "00124b00010203ff", " 00 12  4b000102 03ff "}) {
        EXPECT_EQ(parseEui64(text), ADDRESS) << text;
    }
    for (const char *text :
         {"", "00:12:4b:00:01:02:03", "00:12:4b:00:01:02:03:ff:", ":00:12:4b:00:01:02:03:ff", "00::12:4b:00:01:02:03:f",
          "00:12:4b:00:01:02:03:fg", "00:12:4b:00:01:02:03:ff:00", "0 0"}) {
        EXPECT_FALSE(parseEui64(text)) << text;
    }
    EXPECT_EQ(parseColonEui64("00:12:4B:00:01:02:03:ff"), ADDRESS);
    EXPECT_FALSE(parseColonEui64("00-12-4b-00-01-02-03-ff") || parseColonEui64(" 00:12:4b:00:01:02:03ff"));
    EXPECT_TRUE(isAddress(ADDRESS));
    Eui64 none{};
    EXPECT_FALSE(isAddress(none));
    none.fill(0xFF);
    EXPECT_FALSE(isAddress(none));

    std::array<uint8_t, 2> room{};
    EXPECT_EQ(parseHex("", room), 0U);
    EXPECT_FALSE(parseHex("0a0b0c", room));
    EXPECT_EQ(parseHex("0a fF", room), 2U);
    EXPECT_EQ(printable("a\xC2\x9B\xC3\xA9\xFF\x1B["), "a??\xC3\xA9??[");
    char text[5];
    EXPECT_EQ(hexText(room, text), "0aff");
    EXPECT_EQ(hexText(room, std::span(text).first(3)), "0a"); // whole bytes only
}

TEST(Descriptor, IsClosedOnceByItsLastOwner) {
    const auto isOpen = [](int fd) { return ::fcntl(fd, F_GETFD) >= 0; };
    Descriptor first(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    const int fd = first.get();
    Descriptor second(std::move(first));
    EXPECT_TRUE(!first && second && isOpen(fd)); // NOLINT(bugprone-use-after-move)
    second = Descriptor(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    EXPECT_FALSE(isOpen(fd));
    const int other = second.release();
    EXPECT_TRUE(!second && isOpen(other));
    second.reset(other);
    second.reset(other); // its own
    EXPECT_TRUE(isOpen(other));
    second.reset();
    EXPECT_FALSE(isOpen(other));
}

TEST(Thread, StartsWithSignalsBlockedAndItsName) {
    std::thread thread;
    sigset_t mask{};
    char name[16] = {};
    ASSERT_TRUE(startThread(thread, "base_test_name", [&] {
        pthread_sigmask(SIG_SETMASK, nullptr, &mask);
        pthread_getname_np(pthread_self(), name, sizeof name);
    }));
    thread.join();
    EXPECT_STREQ(name, "base_test_name");
    EXPECT_TRUE(sigismember(&mask, SIGTERM) == 1 && sigismember(&mask, SIGINT) == 1);
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    EXPECT_EQ(sigismember(&mask, SIGTERM), 0); // as before
}

TEST(Thread, ReportsThatThereIsNone) {
    pthread_attr_t attributes;
    std::size_t former = 0;
    ASSERT_EQ(pthread_getattr_default_np(&attributes), 0);
    pthread_attr_getstacksize(&attributes, &former);
    pthread_attr_setstacksize(&attributes, std::size_t{1} << 46); // nobody has that
    pthread_setattr_default_np(&attributes);
    std::thread thread;
    EXPECT_FALSE(startThread(thread, "none", [] {}));
    const int reason = errno;
    pthread_attr_setstacksize(&attributes, former);
    pthread_setattr_default_np(&attributes);
    EXPECT_FALSE(thread.joinable());
    EXPECT_EQ(reason, EAGAIN);
}

} // namespace
} // namespace corvane::base
