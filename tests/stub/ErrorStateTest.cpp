#include <climits>

#include "tests/stub/StubFixture.h"

namespace sr_test {
namespace {

/// A command that returns the receiver's own result.
struct ResultCommand {
    const char* name;
    const char* answer;  // hex up to the code
    int line;            // recorded with the result
    int (*call)(ScreenReceiverStub&);
};

std::ostream& operator<<(std::ostream& out, const ResultCommand& command) {
    return out << command.name;
}

class ServiceResultTest : public StubTest, public testing::WithParamInterface<ResultCommand> {
protected:
    int CallGets(const std::string& result) {
        return CallAnswered([this] { return GetParam().call(m_Stub); },
                            Frame(GetParam().answer + result));
    }

    std::string StubPlace() const {
        return "ScreenReceiverStub.cpp:" + std::to_string(GetParam().line);
    }
    std::string LineText() const { return std::to_string(GetParam().line); }
};

TEST_P(ServiceResultTest, EveryResultIsReturnedAndBecomesTheCode) {
    Connect();
    const std::pair<int, const char*> results[] = {
        {0, "00 00 00 00"},       {7, "00 00 00 07"},        {42, "00 00 00 2a"},
        {-1, "ff ff ff ff"},      {-110, "ff ff ff 92"},     {INT_MIN, "80 00 00 00"},
        {INT_MAX, "7f ff ff ff"}, {16909060, "01 02 03 04"},
    };
    for (const auto& result : results) {
        SCOPED_TRACE(result.first);
        EXPECT_EQ(result.first, CallGets(result.second));
        EXPECT_EQ(result.first, m_Stub.GetErrorCode());
        EXPECT_EQ(GetParam().line, m_Stub.m_nErrLine);
        EXPECT_EQ("", m_Stub.m_strErrArg1);
        EXPECT_EQ("", m_Stub.m_strErrArg2);
    }
}

TEST_P(ServiceResultTest, PositiveResultHasNoTextAndKeepsTheEarlierFile) {
    Connect();
    m_Stub.SetErrorAt(-6528101, "Earlier", "3", "somewhere/Earlier.cpp", 11);
    EXPECT_EQ(42, CallGets("00 00 00 2a"));
    EXPECT_EQ("", m_Stub.m_strErrMsg);
    EXPECT_EQ("", m_Stub.m_strErrArg1);
    EXPECT_EQ("", m_Stub.m_strErrArg2);
    EXPECT_STREQ(("Earlier.cpp:" + LineText()).c_str(), m_Stub.GetErrFileLine());
    EXPECT_EQ("OK [Earlier.cpp:" + LineText() + "]", m_Stub.GetErrorMessage());
}

TEST_P(ServiceResultTest, FirstPositiveResultNamesNoFile) {
    Connect();
    EXPECT_EQ(0, CallGets("00 00 00 00"));
    EXPECT_EQ(":" + LineText(), m_Stub.GetErrFileLine());
}

TEST_P(ServiceResultTest, NegativeResultReadsAsTheSystemsTextAtItsPlace) {
    Connect();
    EXPECT_EQ(-110, CallGets("ff ff ff 92"));
    EXPECT_EQ("Connection timed out [" + StubPlace() + "]", m_Stub.GetErrorMessage());
    EXPECT_EQ(
        1, m_Log.Count(kLogError, "ErrorCode=-110 -> Connection timed out [" + StubPlace() + "]"));
    // The next good result keeps the file of this one.
    EXPECT_EQ(7, CallGets("00 00 00 07"));
    EXPECT_EQ(StubPlace(), m_Stub.GetErrFileLine());
}

TEST_P(ServiceResultTest, LowestResultHasAMessageToo) {
    Connect();
    EXPECT_EQ(INT_MIN, CallGets("80 00 00 00"));
    const std::string message = m_Stub.GetErrorMessage();
    const std::string place = " [" + StubPlace() + "]";
    ASSERT_GT(message.size(), place.size());
    EXPECT_EQ(place, message.substr(message.size() - place.size()));
    EXPECT_EQ(1, m_Log.Count(kLogError, "ErrorCode=-2147483648 -> "));
}

TEST_P(ServiceResultTest, ResultOfATableCodeReadsAsItsRowWithoutTexts) {
    Connect();
    EXPECT_EQ(-6528101, CallGets("ff 9c 63 9b"));
    EXPECT_EQ(" command failed to receive response packet within  seconds. [" + StubPlace() + "]",
              m_Stub.GetErrorMessage());
    ExpectAlive();
}

TEST_P(ServiceResultTest, GoodResultWritesNoErrorLine) {
    Connect();
    EXPECT_EQ(42, CallGets("00 00 00 2a"));
    EXPECT_EQ(0, m_Log.Count(kLogError, ""));
}

INSTANTIATE_TEST_SUITE_P(
    All,
    ServiceResultTest,
    testing::Values(
        ResultCommand{"SetModeratorInfo", "52 65 63 76 49 50 43 23", 119,
                      [](ScreenReceiverStub& stub) {
                          return stub.SetModeratorInfo({1, 1});
                      }},
        ResultCommand{"StartPlayImage", "52 65 63 76 49 50 43 13", 137,
                      [](ScreenReceiverStub& stub) { return stub.StartPlayImage(1, 1); }},
        ResultCommand{"StopPlayImage", "52 65 63 76 49 50 43 15", 153,
                      [](ScreenReceiverStub& stub) { return stub.StopPlayImage(1); }},
        ResultCommand{"ForceSenderLogout", "52 65 63 76 49 50 43 1f", 169,
                      [](ScreenReceiverStub& stub) { return stub.ForceSenderLogout(1); }}),
    [](const testing::TestParamInfo<ResultCommand>& command) {
        return std::string(command.param.name);
    });

class ErrorStateTest : public StubTest {};

TEST_F(ErrorStateTest, GetModeratorInfoResetsTheCodeAtItsLine) {
    Connect();
    m_Stub.SetErrorAt(-6528101, "Earlier", "3", "somewhere/Earlier.cpp", 11);
    ScreenReceiverStub::ModeratorInfo info = {1, 1};
    EXPECT_EQ(0, CallAnswered([&] { return m_Stub.GetModeratorInfo(info); },
                              Frame("52 65 63 76 49 50 43 21 80 00 00 00 ff")));
    EXPECT_EQ(INT_MIN, info.nModeratorId);
    EXPECT_EQ(255, info.byModeratorFlag);
    EXPECT_EQ(0, m_Stub.GetErrorCode());
    EXPECT_EQ("", m_Stub.m_strErrMsg);
    EXPECT_EQ("", m_Stub.m_strErrArg1);
    EXPECT_EQ("", m_Stub.m_strErrArg2);
    EXPECT_STREQ("OK [Earlier.cpp:98]", m_Stub.GetErrorMessage());
}

TEST_F(ErrorStateTest, ConferenceControlAndListsLeaveTheEnginesRecord) {
    Connect();
    for (const Command& command : AllCommands()) {
        const std::string name = command.name;
        if (name != "RefreshConfCtrlTimer" && name != "QuitConfCtrl" &&
            name.find("List") == name.npos)
            continue;
        SCOPED_TRACE(name);
        m_Stub.SetErrorAt(-6528101, "Earlier", "3", "somewhere/Earlier.cpp", 11);
        EXPECT_EQ(0, CallAnswered(command, Frame(command.answer)));
        EXPECT_STREQ("OK [Earlier.cpp:307]", m_Stub.GetErrorMessage());
    }
}

TEST_F(ErrorStateTest, PartOfAnAnswerIsNotTheResultOfACommand) {
    Connect();
    EXPECT_EQ(-6528002, CallWhile([this] { return m_Stub.StartPlayImage(1, 1); },
                                  [this] {
                                      EXPECT_EQ(kFrameSize, m_Peer.Receive(kFrameSize).size());
                                      m_Peer.Send(Hex("52 65 63 76 49 50 43 13 00 00 00 2a"));
                                      m_Peer.Close();
                                  }));
}

TEST_F(ErrorStateTest, PartOfTheModeratorSettingsIsHandedOutWithTheFailure) {
    Connect();
    ScreenReceiverStub::ModeratorInfo info = {1, 1};
    EXPECT_EQ(-6528002, CallWhile([&] { return m_Stub.GetModeratorInfo(info); },
                                  [this] {
                                      EXPECT_EQ(kFrameSize, m_Peer.Receive(kFrameSize).size());
                                      m_Peer.Send(Hex("52 65 63 76 49 50 43 21 00 00 01"));
                                      m_Peer.Close();
                                  }));
    EXPECT_EQ(256, info.nModeratorId);
    EXPECT_EQ(0, info.byModeratorFlag);
}

/// Requests fail with a result of their own; only the current code tells why.
class FailingStub : public OpenStub {
public:
    ~FailingStub() override { EndThreads(); }

    int RequestCommand(int, int, const char*, const std::string&, bool, int) override { return -1; }
};

class FailedRequestTest : public testing::TestWithParam<Command> {
protected:
    static bool ReturnsTheCode(const std::string& name) {
        return name == "StartPlayImage" || name == "StopPlayImage" || name == "ForceSenderLogout" ||
               name == "SetModeratorInfo" || name == "GetModeratorInfo";
    }
};

TEST_P(FailedRequestTest, CurrentCodeIsReturnedOnlyWhereAResultIsRecorded) {
    FailingStub stub;
    stub.SetErrorAt(-77, "", "", "somewhere/Earlier.cpp", 11);
    EXPECT_EQ(ReturnsTheCode(GetParam().name) ? -77 : -1, GetParam().call(stub));
    EXPECT_EQ(-77, stub.GetErrorCode());
    EXPECT_STREQ("Earlier.cpp:11", stub.GetErrFileLine());
}

/// Fails with its own code; another thread's success, or failure, comes before the caller looks.
class OvertakenStub : public OpenStub {
public:
    explicit OvertakenStub(int others) : m_nOthers(others) {}
    ~OvertakenStub() override { EndThreads(); }

    int RequestCommand(int, int, const char*, const std::string&, bool, int) override {
        SetErrorAt(-6528101, "Own", "10", "Own.cpp", 1);
        std::thread([this] { SetErrorAt(m_nOthers, "", "", "Other.cpp", 2); }).join();
        return -6528101;
    }

private:
    const int m_nOthers;
};

TEST_P(FailedRequestTest, FailureReturnsItsOwnCodeWhateverOthersRecord) {
    for (const int others : {0, -779}) {
        OvertakenStub stub(others);
        EXPECT_EQ(-6528101, GetParam().call(stub));
        EXPECT_EQ(others, stub.GetErrorCode());
    }
}

INSTANTIATE_TEST_SUITE_P(All, FailedRequestTest, testing::ValuesIn(AllCommands()), NameOf);

}  // namespace
}  // namespace sr_test
