#include <sys/socket.h>

#include <random>

#include "tests/wire/ProtocolFixture.h"

namespace sr_test {
namespace {

using Events = std::vector<TestProtocol::Event>;
using Notes = std::vector<std::string>;

// "RecvIPC" and "CustIPC"
const char kPrefix[] = "52 65 63 76 49 50 43";
const char kCustom[] = "43 75 73 74 49 50 43";

std::string Frame(const std::string& commandAndPayload) {
    return Hex(kPrefix) + Hex(commandAndPayload);
}

std::string CustomFrame(const std::string& payload) {
    return Hex(kCustom) + Hex(payload);
}

// ---- Setting the prefixes ----

class PrefixTest : public ProtocolTest {};

TEST_F(PrefixTest, CommandPrefixOpensTheSendBufferAndLeavesRoomForTheCode) {
    EXPECT_EQ(Hex("52 65 63 76 49 50 43"), m_P.m_strCmdPrefix);
    ASSERT_EQ(8u, m_P.m_strSendBuf.size());
    EXPECT_EQ(Hex("52 65 63 76 49 50 43"), m_P.m_strSendBuf.substr(0, 7));
    EXPECT_EQ(1, CountLines(kLogDebug, "SetCmdPrefix 7"));
}

TEST_F(PrefixTest, OnlyTheGivenLengthOfTheTextBecomesThePrefix) {
    m_P.SetCmdPrefix("RecvIPC", 4);
    EXPECT_EQ("Recv", m_P.m_strCmdPrefix);
    EXPECT_EQ(5u, m_P.m_strSendBuf.size());
    EXPECT_EQ(1, CountLines(kLogDebug, "SetCmdPrefix 4"));
}

TEST_F(PrefixTest, ZeroBytesInThePrefixAreKept) {
    m_P.SetCmdPrefix("a\0b\0", 4);
    EXPECT_EQ(Hex("61 00 62 00"), m_P.m_strCmdPrefix);
    ASSERT_EQ(5u, m_P.m_strSendBuf.size());
    EXPECT_EQ(Hex("61 00 62 00"), m_P.m_strSendBuf.substr(0, 4));
}

TEST_F(PrefixTest, LengthZeroEmptiesThePrefix) {
    m_P.SetCmdPrefix("RecvIPC", 0);
    EXPECT_EQ("", m_P.m_strCmdPrefix);
    EXPECT_EQ(1u, m_P.m_strSendBuf.size());
    EXPECT_EQ(1, CountLines(kLogDebug, "SetCmdPrefix 0"));
}

TEST_F(PrefixTest, CustomPrefixIsCutToTheLengthOfTheCommandPrefix) {
    m_P.SetCustCmdPrefix("0123456789");
    EXPECT_EQ("0123456", m_P.m_strCustCmdPrefix);
    EXPECT_EQ(1, CountLines(kLogDebug, "SetCustCmdPrefix"));
}

TEST_F(PrefixTest, CustomPrefixSetBeforeTheCommandPrefixIsEmpty) {
    TestProtocol protocol;
    protocol.SetCustCmdPrefix("0123456789");
    EXPECT_EQ("", protocol.m_strCustCmdPrefix);
    protocol.SetCmdPrefix("RecvIPC", 7);
    EXPECT_EQ("", protocol.m_strCustCmdPrefix);
}

TEST_F(PrefixTest, CustomPrefixTakesZeroBytesAlong) {
    m_P.SetCustCmdPrefix("ab\0defghij");
    EXPECT_EQ(Hex("61 62 00 64 65 66 67"), m_P.m_strCustCmdPrefix);
}

TEST_F(PrefixTest, ReadingAFrameHoldsSetCmdPrefixBackButNotSetCustCmdPrefix) {
    Gate reading;
    Gate goOn;
    m_P.onRead = [&](std::string& payload) {
        reading.Open();
        goOn.Wait();
        return m_P.RecvUnknownData(payload);
    };
    Connect();
    std::atomic<bool> prefixSet{false};
    std::thread setter;
    {
        GateOpener opener(goOn);
        m_Peer.Send(Frame("30"));
        EXPECT_TRUE(reading.Wait());
        m_P.SetCustCmdPrefix("CustIPC");
        EXPECT_EQ("CustIPC", m_P.m_strCustCmdPrefix);
        setter = std::thread([&] {
            m_P.SetCmdPrefix("SendIPC", 7);
            prefixSet = true;
        });
        EXPECT_TRUE(HasLine(kLogDebug, "SetCmdPrefix 7", 2));
        EXPECT_EQ("", m_Peer.ReceiveAllWithin(milliseconds(50)));
        EXPECT_FALSE(prefixSet);
    }
    setter.join();
    EXPECT_TRUE(prefixSet);
    EXPECT_EQ("SendIPC", m_P.m_strCmdPrefix);
}

TEST_F(PrefixTest, NewPrefixOfTheSameLengthHoldsForTheNextFramesOfARunningConnection) {
    Connect();
    m_Peer.Send(Frame("26"));
    EXPECT_TRUE(WaitFor([&] { return m_P.QueuedEvents() == 1; }));
    m_P.SetCmdPrefix("SendIPC", 7);
    m_Peer.Send(Hex("53 65 6E 64 49 50 43 26"));
    EXPECT_TRUE(WaitFor([&] { return m_P.QueuedEvents() == 2; }));
    EXPECT_EQ(8, m_P.AckCommand(0x41, "Ack", ""));
    EXPECT_EQ(Hex("53 65 6E 64 49 50 43 41"), m_Peer.Receive(8));
}

TEST_F(PrefixTest, NewPrefixOfAnotherLengthDoesNotMatchBeforeTheNextConnection) {
    Connect();
    // The length counts that the network thread has found at its start.
    EXPECT_TRUE(WaitFor([&] { return m_P.peerAliveLooks > 0; }));
    m_P.SetCmdPrefix("HELLO", 5);
    m_Peer.Send(Hex("48 45 4C 4C 4F 26 48 45 4C 4C 4F 26"));
    EXPECT_TRUE(HasLine(kLogNotice, WithPlace("NetworkThread unknown prefix data 0x48")));
    EXPECT_EQ(0u, m_P.QueuedEvents());
    m_Peer.Close();
    EXPECT_TRUE(WaitFor([&] { return !m_P.IsConnected(); }));

    Connect();
    m_Peer.Send(Hex("48 45 4C 4C 4F 26"));
    EXPECT_TRUE(WaitFor([&] { return m_P.QueuedEvents() == 1; }));
}

// ---- Outgoing frames ----

class SendTest : public ProtocolTest {};

TEST_F(SendTest, RequestIsPrefixCodeAndPayload) {
    Connect();
    EXPECT_EQ(0, m_P.RequestCommand(0x1A, 0x1B, "Name", "ab", true, 0));
    EXPECT_EQ(Hex("52 65 63 76 49 50 43 1A 61 62"), m_Peer.Receive(10));
    EXPECT_EQ("", m_Peer.ReceiveAllWithin(milliseconds(50)));
}

TEST_F(SendTest, RequestCodeIsSentAsItsLowEightBits) {
    Connect();
    EXPECT_EQ(0, m_P.RequestCommand(0x31A, 0x1B, "Name", "", true, 0));
    EXPECT_EQ(0, m_P.RequestCommand(-1, 0x1B, "Name", "", true, 0));
    EXPECT_EQ(Hex("52 65 63 76 49 50 43 1A 52 65 63 76 49 50 43 FF"), m_Peer.Receive(16));
}

TEST_F(SendTest, RequestWithoutPayloadEndsWithItsCode) {
    Connect();
    EXPECT_EQ(0, m_P.RequestCommand(0x22, 0x23, "Name", "", true, 0));
    EXPECT_EQ(Hex("52 65 63 76 49 50 43 22"), m_Peer.Receive(8));
    EXPECT_EQ("", m_Peer.ReceiveAllWithin(milliseconds(50)));
}

TEST_F(SendTest, ShortFrameAfterALongOneHasNothingOfIt) {
    Connect();
    EXPECT_EQ(0, m_P.RequestCommand(0x01, 0x02, "Long", Hex("F0 F1 F2 F3 F4 F5"), true, 0));
    EXPECT_EQ(0, m_P.RequestCommand(0x03, 0x04, "Short", Hex("00 E0"), true, 0));
    EXPECT_EQ(Hex("52 65 63 76 49 50 43 01 F0 F1 F2 F3 F4 F5"
                  "52 65 63 76 49 50 43 03 00 E0"),
              m_Peer.Receive(24));
}

TEST_F(SendTest, LongPayloadArrivesWhole) {
    Connect();
    const std::string payload(300000, 'z');
    EXPECT_EQ(0, m_P.RequestCommand(0x01, 0x02, "Long", payload, true, 0));
    EXPECT_EQ(Hex("52 65 63 76 49 50 43 01") + payload, m_Peer.Receive(300008));
}

TEST_F(SendTest, WithoutPrefixTheFrameStartsWithItsCode) {
    m_P.SetCmdPrefix("", 0);
    Connect();
    EXPECT_EQ(0, m_P.RequestCommand(0x1A, 0x1B, "Name", "ab", true, 0));
    EXPECT_EQ(2, m_P.AckCommand(0x41, "Ack", "c"));
    EXPECT_EQ(2, m_P.SendCommandData("de", 2, 0, false));
    EXPECT_EQ(Hex("1A 61 62 41 63 64 65"), m_Peer.Receive(7));
}

TEST_F(SendTest, ZeroBytesInThePrefixReachTheWire) {
    m_P.SetCmdPrefix("a\0b\0", 4);
    Connect();
    EXPECT_EQ(0, m_P.RequestCommand(0x1A, 0x1B, "Name", "", true, 0));
    EXPECT_EQ(Hex("61 00 62 00 1A"), m_Peer.Receive(5));
}

TEST_F(SendTest, AcknowledgementIsPrefixCodeAndData) {
    Connect();
    EXPECT_EQ(11, m_P.AckCommand(0x41, "GotIt", Hex("00 01 FF")));
    EXPECT_EQ(Hex("52 65 63 76 49 50 43 41 00 01 FF"), m_Peer.Receive(11));
    EXPECT_EQ(8, m_P.AckCommand(0x141, "GotIt", ""));
    EXPECT_EQ(Hex("52 65 63 76 49 50 43 41"), m_Peer.Receive(8));
    EXPECT_EQ(1, CountLines(kLogInfo, WithPlace("==> AckCommand Ack:0x41 GotIt size:3")));
    EXPECT_EQ(1, CountLines(kLogInfo, WithPlace("==> AckCommand Ack:0x141 GotIt size:0")));
}

TEST_F(SendTest, AcknowledgementWaitsForNothingAndRecordsNothing) {
    Connect();
    m_P.SetErrorAt(-6528004, "", "", "Elsewhere.cpp", 77);
    EXPECT_EQ(8, m_P.AckCommand(0x41, "GotIt", ""));
    EXPECT_EQ(-6528004, m_P.GetErrorCode());
    EXPECT_EQ(77, m_P.ErrorLine());
    EXPECT_EQ(0, m_P.m_nAnsCode);
}

TEST_F(SendTest, BareFrameIsPrefixAndDataWithoutACode) {
    Connect();
    EXPECT_EQ(10, m_P.SendCommandData("\x02\x00\x61", 3, 0, true));
    EXPECT_EQ(Hex("52 65 63 76 49 50 43 02 00 61"), m_Peer.Receive(10));
    EXPECT_EQ(1, CountLines(kLogInfo, WithPlace("==> SendCommandData len:3")));
}

TEST_F(SendTest, BareFrameWithoutDataIsThePrefixAlone) {
    Connect();
    EXPECT_EQ(7, m_P.SendCommandData("", 0, 0, true));
    EXPECT_EQ(Hex("52 65 63 76 49 50 43"), m_Peer.Receive(7));
    EXPECT_EQ(1, CountLines(kLogInfo, WithPlace("==> SendCommandData len:0")));
}

TEST_F(SendTest, BareFrameIsNotLoggedUnlessAsked) {
    Connect();
    EXPECT_EQ(8, m_P.SendCommandData("x", 1, 0, false));
    EXPECT_EQ(0, m_Log.Count(kLogInfo, "==> SendCommandData"));
}

TEST_F(SendTest, FlagsOfABareFrameReachTheSocket) {
    Connect();
    EXPECT_EQ(9, m_P.SendCommandData("xy", 2, MSG_OOB, false));
    // Urgent data travels beside the stream, so its one byte is missing there.
    EXPECT_EQ(Hex("52 65 63 76 49 50 43 78"), m_Peer.Receive(8));
    char urgent = 0;
    EXPECT_TRUE(WaitFor([&] { return ::recv(m_Peer.Socket(), &urgent, 1, MSG_OOB) == 1; }));
    EXPECT_EQ('y', urgent);
}

TEST_F(SendTest, FramesOfManyThreadsNeverMix) {
    Connect();
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([this, i] {
            for (int n = 0; n < 50; ++n)
                m_P.AckCommand(i, "Ack", std::string(9, static_cast<char>('0' + i)));
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    for (int n = 0; n < 200 && !HasFailure(); ++n) {
        const std::string frame = m_Peer.Receive(17);
        ASSERT_EQ(17u, frame.size());
        EXPECT_EQ(Hex(kPrefix), frame.substr(0, 7));
        EXPECT_EQ(std::string(9, static_cast<char>('0' + frame[7])), frame.substr(8));
    }
}

// ---- Default readers and handlers ----

class DefaultsTest : public ProtocolTest {};

TEST_F(DefaultsTest, UnknownDataIsAnEmptyPayload) {
    std::string data = "left from the frame before";
    EXPECT_EQ(1, m_P.RecvUnknownData(data));
    EXPECT_EQ("", data);
}

TEST_F(DefaultsTest, UnknownCommandIsLoggedAndFails) {
    char data[] = "x";
    EXPECT_EQ(-1, m_P.OnUnknownCommand(data));
    EXPECT_EQ(1, CountLines(kLogDebug, WithPlace("OnUnknownCommand", -1)));
}

TEST_F(DefaultsTest, UnknownCommandAcceptsAnyPointer) {
    int number = 0;
    EXPECT_EQ(-1, m_P.OnUnknownCommand(&number));
    EXPECT_EQ(-1, m_P.OnUnknownCommand(static_cast<void*>(nullptr)));
    EXPECT_EQ(2, CountLines(kLogDebug, WithPlace("OnUnknownCommand", -1)));
}

// ---- Sorting incoming frames ----

class ClassificationTest : public ReceiveTest {
protected:
    /// The number of "unknown prefix data" lines.
    int GarbageLines() const {
        return m_Log.Count(kLogNotice, "NetworkThread unknown prefix data");
    }
    std::string GarbageLine(int byte) const {
        return WithPlace(
            Text("NetworkThread unknown prefix data 0x%02X", static_cast<unsigned>(byte)));
    }
};
SR_INSTANTIATE_RECEIVE_TEST(ClassificationTest);

TEST_P(ClassificationTest, EventOfFixedSizeIsQueuedWithItsPayload) {
    Connect();
    DeliverEvents(Frame("24 00 01 02 03 04 05 06 07 08 09 0A FF"),
                  {{0x24, Hex("00 01 02 03 04 05 06 07 08 09 0A FF")}});
    EXPECT_EQ(m_nRounds,
              CountLines(kLogInfo, WithPlace("<== NetworkThread got event 0x24, len=12")));
    EXPECT_EQ(0, GarbageLines());
}

TEST_P(ClassificationTest, EventOfCountedSizeEndsWhereItsCountSays) {
    Connect();
    DeliverEvents(Frame("25 03 61 62 63") + Frame("25 00") + Frame("26"),
                  {{0x25, Hex("03 61 62 63")}, {0x25, Hex("00")}, {0x26, ""}});
    EXPECT_EQ(0, GarbageLines());
}

TEST_P(ClassificationTest, EventWithTheDefaultReaderHasAnEmptyPayload) {
    Connect();
    // The buffer is used again for every frame; nothing of the frame before may be left in it.
    DeliverEvents(Frame("25 02 61 62") + Frame("26"), {{0x25, Hex("02 61 62")}, {0x26, ""}});
    EXPECT_EQ(m_nRounds,
              CountLines(kLogInfo, WithPlace("<== NetworkThread got event 0x26, len=0")));
}

TEST_P(ClassificationTest, PrefixInsideAPayloadIsPayload) {
    Connect();
    DeliverEvents(Frame("24 52 65 63 76 49 50 43 26 52 65 63 76") + Frame("26"),
                  {{0x24, Hex("52 65 63 76 49 50 43 26 52 65 63 76")}, {0x26, ""}});
}

TEST_P(ClassificationTest, StrayBytesAreLoggedOneByOneAndTheFrameBehindThemIsRead) {
    Connect();
    DeliverEvents(Hex("78 79") + Frame("26"), {{0x26, ""}});
    EXPECT_EQ(m_nRounds, CountLines(kLogNotice, GarbageLine(0x78)));
    EXPECT_EQ(m_nRounds, CountLines(kLogNotice, GarbageLine(0x79)));
    EXPECT_EQ(2 * m_nRounds, GarbageLines());
}

TEST_P(ClassificationTest, StrayBytesBeyondAsciiAreLoggedWithTwoDigits) {
    Connect();
    DeliverEvents(Hex("FF 80 00") + Frame("26"), {{0x26, ""}});
    EXPECT_EQ(m_nRounds, CountLines(kLogNotice, GarbageLine(0xFF)));
    EXPECT_EQ(m_nRounds, CountLines(kLogNotice, GarbageLine(0x80)));
    EXPECT_EQ(m_nRounds, CountLines(kLogNotice, GarbageLine(0x00)));
}

TEST_P(ClassificationTest, BeginningsOfAPrefixInFrontOfAPrefixAreDropped) {
    Connect();
    DeliverEvents(Hex("52 65 63 76 49 50") + Frame("26") + Hex("52") + Frame("25 01 41"),
                  {{0x26, ""}, {0x25, Hex("01 41")}});
    EXPECT_EQ(7 * m_nRounds, GarbageLines());
}

TEST_P(ClassificationTest, PrefixThatOverlapsItselfIsFoundAtTheNextByte) {
    m_P.SetCmdPrefix("aab", 3);
    Connect();
    DeliverEvents(Hex("61 61 61 61 62 26"), {{0x26, ""}});
    EXPECT_EQ(2 * m_nRounds, CountLines(kLogNotice, GarbageLine(0x61)));
}

TEST_P(ClassificationTest, PrefixOfOneByteWorks) {
    m_P.SetCmdPrefix("#", 1);
    Connect();
    DeliverEvents(Hex("40 23 26 23 25 01 23 23 26"),
                  {{0x26, ""}, {0x25, Hex("01 23")}, {0x26, ""}});
    EXPECT_EQ(m_nRounds, GarbageLines());
}

TEST_P(ClassificationTest, ZeroBytesInThePrefixAreCompared) {
    m_P.SetCmdPrefix("a\0b\0", 4);
    Connect();
    DeliverEvents(Hex("61 00 62 01 61 00 62 00 26"), {{0x26, ""}});
    EXPECT_EQ(4 * m_nRounds, GarbageLines());
}

TEST_P(ClassificationTest, PayloadOfAnExceptionalEventIsDroppedAsGarbage) {
    Connect();
    DeliverEvents(Frame("77 01 02 03") + Frame("26"), {{0x26, ""}});
    EXPECT_EQ(m_nRounds,
              CountLines(kLogNotice, WithPlace("<== NetworkThread got exceptional event 0x77")));
    EXPECT_EQ(m_nRounds, CountLines(kLogNotice, GarbageLine(0x01)));
    EXPECT_EQ(m_nRounds, CountLines(kLogNotice, GarbageLine(0x02)));
    EXPECT_EQ(m_nRounds, CountLines(kLogNotice, GarbageLine(0x03)));
    EXPECT_EQ(3 * m_nRounds, GarbageLines());
}

TEST_P(ClassificationTest, AnswerThatNobodyWaitsForIsExceptional) {
    Connect();
    DeliverEvents(Frame("11 41 42 43 44") + Frame("26"), {{0x26, ""}});
    EXPECT_EQ(m_nRounds,
              CountLines(kLogNotice, WithPlace("<== NetworkThread got exceptional event 0x11")));
    EXPECT_EQ("", m_P.LastAnswer());
}

TEST_P(ClassificationTest, ExpectedAnswerIsReadAndNotQueued) {
    Connect();
    int rounds = 0;
    m_P.m_nAnsCode = kAnswer;
    Deliver(Frame("11 41 42 43 44"), [&] {
        EXPECT_TRUE(IsWaitingFor(0));
        EXPECT_EQ("ABCD", m_P.LastAnswer());
        EXPECT_EQ(0u, m_P.QueuedEvents());
        ++rounds;
        EXPECT_EQ(rounds, CountLines(kLogInfo, WithPlace("<== NetworkThread got response 0x11")));
        m_P.m_nAnsCode = kAnswer;
    });
}

TEST_P(ClassificationTest, ExpectedAnswerIsNoEventThoughAHandlerIsRegistered) {
    Connect();
    m_P.m_nAnsCode = kFixedEvent;
    Deliver(Frame("24 00 01 02 03 04 05 06 07 08 09 0A 0B"), [&] {
        EXPECT_TRUE(IsWaitingFor(0));
        EXPECT_EQ(0u, m_P.QueuedEvents());
        m_P.m_nAnsCode = kFixedEvent;
    });
    EXPECT_EQ(0, m_Log.Count(kLogInfo, "<== NetworkThread got event"));
}

TEST_P(ClassificationTest, EventWhileAnotherCodeIsExpectedStaysAnEvent) {
    Connect();
    m_P.m_nAnsCode = kAnswer;
    DeliverEvents(Frame("25 01 5A"), {{0x25, Hex("01 5A")}});
    EXPECT_EQ(kAnswer, m_P.m_nAnsCode);
}

TEST_P(ClassificationTest, CodeZeroWithoutARequestIsAResponse) {
    Connect();
    DeliverEvents(Frame("00") + Frame("26"), {{0x26, ""}});
    EXPECT_EQ(m_nRounds, CountLines(kLogInfo, WithPlace("<== NetworkThread got response 0x00")));
    EXPECT_EQ(0, m_Log.Count(kLogNotice, "<== NetworkThread got exceptional event"));
}

TEST_P(ClassificationTest, CustomFrameGoesToItsHookAloneWhichReadsItsPayload) {
    m_P.SetCustCmdPrefix("CustIPC");
    m_P.onCustCommand = [this] {
        char payload[2];
        return m_P.m_Socket.recv(payload, 2, 0, kReadTimeoutMs);
    };
    Connect();
    DeliverEvents(CustomFrame("26 26") + Frame("26"), {{0x26, ""}});
    Notes expected;
    for (int round = 0; round < m_nRounds; ++round)
        expected.insert(expected.end(), {"OnPeerAlive", "OnCustCommand", "OnPeerAlive"});
    EXPECT_EQ(expected, m_P.Notes());
    EXPECT_EQ(0, GarbageLines());
}

TEST_P(ClassificationTest, CustomFrameIsNotReadByDefault) {
    m_P.SetCustCmdPrefix("CustIPC");
    Connect();
    DeliverEvents(CustomFrame("26") + Frame("26"), {{0x26, ""}});
    EXPECT_EQ(m_nRounds, CountLines(kLogNotice, GarbageLine(0x26)));
    EXPECT_EQ(m_nRounds, GarbageLines());
}

TEST_P(ClassificationTest, CustomPrefixEqualToTheCommandPrefixGivesOrdinaryFrames) {
    m_P.SetCustCmdPrefix("RecvIPC");
    Connect();
    DeliverEvents(Frame("26"), {{0x26, ""}});
    EXPECT_EQ(Notes(static_cast<size_t>(m_nRounds), "OnPeerAlive"), m_P.Notes());
}

TEST_P(ClassificationTest, PeerIsAliveWithEveryPrefixBeforeAnythingElseOfTheFrame) {
    m_P.SetCustCmdPrefix("CustIPC");
    Connect();
    DeliverEvents(Frame("30") + Frame("77") + CustomFrame("") + Frame("30"),
                  {{0x30, ""}, {0x30, ""}});
    Notes expected;
    for (int round = 0; round < m_nRounds; ++round) {
        expected.insert(expected.end(), {"OnPeerAlive", "RecvHooked", "OnPeerAlive", "OnPeerAlive",
                                         "OnCustCommand", "OnPeerAlive", "RecvHooked"});
    }
    EXPECT_EQ(expected, m_P.Notes());
}

TEST_P(ClassificationTest, WithoutPrefixEveryFrameStartsWithItsCommandByte) {
    m_P.SetCmdPrefix("", 0);
    m_P.SetCustCmdPrefix("CustIPC");
    Connect();
    DeliverEvents(Hex("26 77 25 01 43 00 26"), {{0x26, ""}, {0x25, Hex("01 43")}, {0x26, ""}});
    EXPECT_EQ(0, GarbageLines());
    EXPECT_EQ(Notes(5 * static_cast<size_t>(m_nRounds), "OnPeerAlive"), m_P.Notes());
    EXPECT_EQ(m_nRounds, CountLines(kLogInfo, WithPlace("<== NetworkThread got response 0x00")));
    EXPECT_EQ(m_nRounds,
              CountLines(kLogNotice, WithPlace("<== NetworkThread got exceptional event 0x77")));
}

// ---- Random streams ----

/// Streams of noise, pieces of the prefix, whole frames and cut frames.
class RandomStreamTest : public ProtocolTest, public testing::WithParamInterface<unsigned> {
protected:
    size_t Below(size_t limit) { return m_Random() % limit; }
    std::string Noise(size_t size) {
        std::string bytes(size, '\0');
        for (char& byte : bytes)
            byte = static_cast<char>(Below(256));
        return bytes;
    }
    std::string Piece() {
        const std::string prefix = Hex(kPrefix);
        switch (Below(8)) {
            case 0:
                return prefix.substr(0, Below(7));
            case 1:
                return prefix.substr(Below(7));
            case 2:
                return prefix + Noise(1);
            case 3:
                return prefix + Hex("24") + Noise(Below(14));
            case 4:
                return prefix + Hex("25") + Noise(1 + Below(9));
            case 5:
                return prefix + Hex("26");
            case 6:
                return Hex(kCustom).substr(0, Below(8));
            default:
                return Noise(Below(30));
        }
    }

    /// The frame rule once more, on a whole stream.
    static Events EventsIn(const std::string& stream) {
        const std::string prefix = Hex(kPrefix);
        Events events;
        size_t at = 0;
        while (at + prefix.size() < stream.size()) {
            if (stream.compare(at, prefix.size(), prefix) != 0) {
                at += stream.compare(at, 7, Hex(kCustom)) == 0 ? 7 : 1;
                continue;
            }
            at += prefix.size();
            const unsigned char cmd = static_cast<unsigned char>(stream[at++]);
            size_t size = 0;
            if (cmd == 0x24)
                size = 12;
            else if (cmd == 0x25)
                size = 1u + static_cast<unsigned char>(stream.at(at));
            else if (cmd != 0x26 && cmd != 0x30)
                continue;
            events.emplace_back(cmd, stream.substr(at, size));
            at += size;
        }
        return events;
    }

    std::mt19937 m_Random{GetParam()};
};

TEST_P(RandomStreamTest, EveryFrameBetweenTheNoiseIsFoundAndNothingElse) {
    m_P.SetCustCmdPrefix("CustIPC");
    Connect();
    std::string stream;
    while (stream.size() < 6000)
        stream += Piece();
    // Whatever frame the noise has begun is satisfied by this filling, which begins none.
    stream += std::string(300, '\0') + Frame("24 4C 61 73 74 46 69 78 65 64 45 76 21") +
              Frame("25 04 4C 61 73 74");
    const Events expected = EventsIn(stream);
    ASSERT_LT(50u, expected.size());
    ASSERT_EQ(TestProtocol::Event(0x25, Hex("04 4C 61 73 74")), expected.back());

    for (size_t at = 0; at < stream.size();) {
        const size_t size = 1 + Below(400);
        m_Peer.Send(stream.substr(at, size));
        at += size;
    }
    EXPECT_TRUE(
        WaitFor([&] { return m_P.QueuedEvents() >= expected.size(); }, milliseconds(30000)));
    EXPECT_EQ(expected, m_P.TakeEvents());
    EXPECT_EQ(0, m_P.GetErrorCode());
    EXPECT_TRUE(m_P.IsConnected());
}

TEST_P(RandomStreamTest, EventsReachTheirHandlersWhileNoiseStreamsIn) {
    Connect(false);
    std::string stream;
    while (stream.size() < 3000)
        stream += Piece();
    stream += std::string(300, '\0') + Frame("25 03 45 6E 64");
    m_Peer.Send(stream);
    EXPECT_TRUE(WaitFor(
        [&] {
            const Notes notes = m_P.Notes();
            return !notes.empty() && notes.back() == "HandleRetVal 25 1" &&
                   notes[notes.size() - 2] == "On 25 456E64";
        },
        milliseconds(30000)));
}

TEST_P(RandomStreamTest, AnswerIsFoundBehindNoise) {
    Connect();
    std::future<int> result = RequestAsync(kRequest, kAnswer, "Name", 20);
    EXPECT_EQ(Frame("10"), m_Peer.Receive(8));
    std::string stream;
    while (stream.size() < 3000) {
        const std::string noise = Noise(1 + Below(50));
        if (noise.find_first_of("RC") == std::string::npos)  // completes no prefix
            stream += noise + Hex(kPrefix).substr(0, Below(7));
    }
    m_Peer.Send(stream + Frame("11 41 42 43 44"));
    EXPECT_EQ(0, result.get());
    EXPECT_EQ("ABCD", m_P.LastAnswer());
}

TEST_P(RandomStreamTest, ConnectionThatEndsAnywhereInTheNoiseCanBeOpenedAgain) {
    for (int round = 0; round < 5; ++round) {
        Connect(false);
        std::string stream;
        while (stream.size() < 200)
            stream += Piece();
        m_Peer.Send(stream.substr(0, Below(stream.size())));
        if (Below(2) == 0)
            m_Peer.Close();
        else
            m_Peer.Reset();
        EXPECT_TRUE(WaitFor([&] { return !m_P.IsConnected(); }, milliseconds(20000)));
        EXPECT_GT(0, m_P.GetErrorCode());
    }
    Connect(false);
    m_P.ForgetNotes();
    m_Peer.Send(Frame("26"));
    EXPECT_TRUE(WaitFor([&] {
        return m_P.Notes() == Notes({"OnPeerAlive", "On 26 ", "HandleRetVal 26 1"});
    }));
}

INSTANTIATE_TEST_SUITE_P(Seeds, RandomStreamTest, testing::Values(1u, 7u, 42u, 1234u, 99999u));

}  // namespace
}  // namespace sr_test
