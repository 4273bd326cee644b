#include <gtest/gtest.h>

#include <string>

#include "TeskClient/WireFormat.h"
#include "tests/support/ScriptedPeer.h"

namespace {

using sr_test::Hex;
using wire::MatchPrefix;
using wire::PrefixMatch;

const std::string kCommand = "RecvIPC";
const std::string kCustom = "CustIPC";

TEST(WireFormatTest, SizesAreThoseOfTheWire) {
    EXPECT_EQ(32, wire::kRequestPayload);
    EXPECT_EQ(32, wire::kReplyPayload);
    EXPECT_EQ(12, wire::kNotifyPayload);
    EXPECT_EQ(32, wire::kListHeader);
    EXPECT_EQ(64, wire::kShortRecord);
    EXPECT_EQ(128, wire::kLongRecord);
}

TEST(WireFormatTest, WholeCommandPrefixMatches) {
    EXPECT_EQ(PrefixMatch::Command, MatchPrefix("RecvIPC", 7, kCommand, kCustom));
}

TEST(WireFormatTest, WholeCustomPrefixMatches) {
    EXPECT_EQ(PrefixMatch::Custom, MatchPrefix("CustIPC", 7, kCommand, kCustom));
}

TEST(WireFormatTest, CommandPrefixWinsOverAnEqualCustomPrefix) {
    EXPECT_EQ(PrefixMatch::Command, MatchPrefix("RecvIPC", 7, kCommand, kCommand));
}

TEST(WireFormatTest, AnyShorterArrivalIsIncomplete) {
    for (int got = 0; got < 7; ++got) {
        std::string bytes = kCommand;
        bytes.replace(static_cast<size_t>(got), std::string::npos, 7 - static_cast<size_t>(got),
                      '\0');
        EXPECT_EQ(PrefixMatch::Incomplete, MatchPrefix(bytes, got, kCommand, kCustom)) << got;
    }
}

// What lies behind the bytes that came may be left over from an earlier look.
TEST(WireFormatTest, StaleBytesBehindAShortArrivalDoNotCount) {
    EXPECT_EQ(PrefixMatch::Incomplete, MatchPrefix("RecvIPC", 6, kCommand, kCustom));
    EXPECT_EQ(PrefixMatch::Incomplete, MatchPrefix("xecvIPC", 1, kCommand, kCustom));
}

TEST(WireFormatTest, AnySingleWrongByteIsGarbage) {
    for (size_t i = 0; i < kCommand.size(); ++i) {
        std::string bytes = kCommand;
        bytes[i] = static_cast<char>(bytes[i] ^ 0x20);
        EXPECT_EQ(PrefixMatch::Garbage, MatchPrefix(bytes, 7, kCommand, kCustom)) << i;
    }
}

TEST(WireFormatTest, PrefixBehindAStrayByteIsGarbageYet) {
    EXPECT_EQ(PrefixMatch::Garbage, MatchPrefix("xRecvIP", 7, kCommand, kCustom));
}

TEST(WireFormatTest, CustomPrefixOfAnotherLengthNeverMatches) {
    EXPECT_EQ(PrefixMatch::Garbage, MatchPrefix("CustIPC", 7, kCommand, "CustIP"));
    EXPECT_EQ(PrefixMatch::Garbage, MatchPrefix("CustIPC", 7, kCommand, ""));
}

TEST(WireFormatTest, ZeroBytesInAPrefixCount) {
    const std::string command = Hex("52 00 49 00");
    EXPECT_EQ(PrefixMatch::Command, MatchPrefix(Hex("52 00 49 00"), 4, command, ""));
    EXPECT_EQ(PrefixMatch::Garbage, MatchPrefix(Hex("52 00 49 01"), 4, command, ""));
    EXPECT_EQ(PrefixMatch::Garbage, MatchPrefix(Hex("52 00 50 00"), 4, command, ""));
}

TEST(WireFormatTest, IntegersAreBigEndian) {
    const std::string bytes = Hex("12 34 56 78");
    EXPECT_EQ(0x12u, wire::GetByte(bytes.data()));
    EXPECT_EQ(0x1234u, wire::GetU16(bytes.data()));
    EXPECT_EQ(0x12345678u, wire::GetU32(bytes.data()));
    EXPECT_EQ(0x12345678, wire::GetI32(bytes.data()));
}

TEST(WireFormatTest, HighBytesAreNotSignExtended) {
    const std::string bytes = Hex("ff fe fd fc");
    EXPECT_EQ(0xffu, wire::GetByte(bytes.data()));
    EXPECT_EQ(0xfffeu, wire::GetU16(bytes.data()));
    EXPECT_EQ(0xfffefdfcu, wire::GetU32(bytes.data()));
    EXPECT_EQ(0x00ff0080u, wire::GetU32(Hex("00 ff 00 80").data()));
}

TEST(WireFormatTest, SignedIntegersReachBothEnds) {
    EXPECT_EQ(-1, wire::GetI32(Hex("ff ff ff ff").data()));
    EXPECT_EQ(INT32_MIN, wire::GetI32(Hex("80 00 00 00").data()));
    EXPECT_EQ(INT32_MAX, wire::GetI32(Hex("7f ff ff ff").data()));
    EXPECT_EQ(-2, wire::GetI32(Hex("ff ff ff fe").data()));
}

TEST(WireFormatTest, IntegersMayStandAtOddOffsets) {
    const std::string bytes = Hex("00 01 02 03 04 05 06 07");
    EXPECT_EQ(0x0102u, wire::GetU16(bytes.data() + 1));
    EXPECT_EQ(0x01020304u, wire::GetU32(bytes.data() + 1));
    EXPECT_EQ(0x02030405u, wire::GetU32(bytes.data() + 2));
    EXPECT_EQ(0x03040506, wire::GetI32(bytes.data() + 3));
}

struct Written {
    int32_t value;
    const char* hex;
};

TEST(WireFormatTest, PutWritesFourBytesAndNoMore) {
    const Written cases[] = {{0, "00 00 00 00"},          {1, "00 00 00 01"},
                             {0x12345678, "12 34 56 78"}, {-1, "ff ff ff ff"},
                             {-2, "ff ff ff fe"},         {INT32_MIN, "80 00 00 00"},
                             {INT32_MAX, "7f ff ff ff"}};
    for (const Written& written : cases) {
        std::string bytes = Hex("aa bb cc dd ee 99");
        wire::PutI32(&bytes[1], written.value);
        EXPECT_EQ(Hex("aa") + Hex(written.hex) + Hex("99"), bytes) << written.value;
    }
}

}  // namespace
