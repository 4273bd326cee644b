#include <gtest/gtest.h>

#include <climits>
#include <iterator>
#include <set>
#include <string>

#include "TeskClient/ErrorHandler.h"
#include "TeskClient/ErrorTable.h"

// The lookup does not show the order of the rows, so the table is taken in here once more.
namespace as_listed {
#include "TeskClient/ErrorTable.cpp"
}

namespace {

struct ExpectedRow {
    int code;
    const char* message;
};

// The external interface, word for word.
// clang-format off
constexpr ExpectedRow kExpected[] = {
    {-6527001, "Failed to create object: %s"},
    {-6527002, "Function reentry is not allowed: %s"},
    {-6527003, "Out of memory! Failed to allocate %s bytes memory."},
    {-6527004, "Failed to init object: %s"},
    {-6527005, "Receiver version is too old to support this operation: %s"},
    {-6527007, "System is busy now. Please retry later!"},
    {-6528001, "No TCP connection could be built to IP:%s Port:%s"},
    {-6528002, "The connection has been gracefully closed."},
    {-6528004, "It's invliad to specify empty port number vector (vecPort) to OpenConnect()."},
    {-6528005, "Previous network thread is still busy at closing itself, please wait a moment then retry."},
    {-6528006, "It's OK to build connection, but server handshake was failed. This problem is probably caused by anti-virus or firewall software."},
    {-6528101, "%s command failed to receive response packet within %s seconds."},
    {-6528102, "Device ROLL aliveness message timeout."},
    {-6528103, "Device returned fail on getting video position."},
    {-6528105, "Device returned fail on getting video duration."},
    {-6528104, "Can't init any UDP broadcast socket between this port range: %s"},
    {-6528201, "Failed to open screen capture engine: %s"},
    {-6528202, "Failed to start screen capture engine."},
    {-6528203, "Already tried to send image block several times, but still failed."},
    {-6528205, "Failed to load JPEG encoder library."},
    {-6528206, "Failed to open jpeg file engine: %s"},
    {-6528207, "Failed to open H264 encoder library: %s"},
    {-6528301, "Login rejected. User name = %s, Password = %s"},
    {-6528302, "Unable to start play image due to device is occupied."},
    {-6528303, "Device returned fail on stopping play image."},
    {-6528304, "Device returned fail on playing video stream."},
    {-6528305, "No available inbound port could be found for video. Please check your firewall setting."},
    {-6528306, "VornClient is disconnected."},
    {-6528307, "Device returned fail on stopping video stream."},
    {-6528308, "Device returned fail on pausing video stream."},
    {-6528309, "Device returned fail on setting video volume."},
    {-6528310, "Device returned fail on seeking video stream."},
    {-6528313, "Can't open video file: %s"},
    {-6528314, "Unsupported video file format."},
    {-6528315, "Internal error - Failed to convert video offset: %s"},
    {-6528316, "The projector is in the conference mode. Only the conference admin can assign someone to project."},
    {-6528317, "There is already a %s logged in."},
    {-6528318, "Device returned fail on hiding screen."},
    {-6528319, "Internal error - BackupAccel() failed."},
    {-6528320, "Failed to change Windows display setting for better projection performance: %s."},
    {-6528321, "Device returned fail on changing value -> name:%s, value:%s"},
    {-6528322, "Failed to create log file \"%s\""},
    {-6528323, "Device is busy. Can't play video at this moment."},
    {-6528324, "This program does not have JPEG encoder for device JPEG image requirement."},
    {-6528325, "File does not exist: %s"},
    {-6528326, "Receiver is too old to support network quality in prebuf mode."},
    {-6528401, "Unable to proceed this operation due to Lumo component is not installed."},
    {-6528402, "Internal error - no start function."},
    {-6528403, "Internal error - no stop function."},
    {-6528405, "Your Lumo version is too old to run this function. Please upgrade it!"},
    {-6528406, "Internal error - can't start Lumo."},
    {-6528501, "TrelInit() failed at port: %s"},
    {-6528502, "TrelShutdown() failed."},
    {-6528503, "TrelRegister() failed to register file: %s"},
    {-6528504, "TrelDeregister() failed to unregister file: %s"},
    {-6528505, "Video streaming server is not running."},
    {-6528506, "Video streaming server can not have multiple instances"},
    {-6528507, "Trel dll functions loading failure."},
    {-6528601, "TrelTRegister() failed."},
    {-6528602, "TrelTDeregister failed."},
    {-6528603, "TrelT not enabled."},
    {-6528604, "TrelT dll functions loading failure."},
    {-6528901, "Action is failed."},
    {-6528902, "Action is time out."},
    {-6528903, "The target device may not exist or not be found."},
    {-6528904, "The target device is not supported this action"},
    {-6528905, "Device is busy. Can't execute the command at this moment."},
    {-6528906, "Video format or codec may not support."},
    {-6528907, "Audio format or codec may not support."},
    {-6528908, "Seek mode not supported or desired time is out of range."},
    {-6528909, "Not support multi-streaming."},
    {-6528701, "No server socket can be bound successfully."},
    {-6528801, "Failed to build connection to the specified Sender address!"},
};
// clang-format on

std::string Filled(std::string message, const std::string& arg1, const std::string& arg2) {
    for (const std::string& arg : {arg1, arg2}) {
        const size_t place = message.find("%s");
        if (place == std::string::npos)
            break;
        message.replace(place, 2, arg);
    }
    return message;
}

std::string MessageOf(int code, const char* arg1, const char* arg2) {
    NibErrorHandler errors;
    errors.SetErrorAt(code, arg1, arg2, "dir/Site.cpp", 77);
    return errors.GetErrorMessage();
}

TEST(ErrorTableTest, EveryRowIsThereWordForWord) {
    ASSERT_EQ(73u, std::size(kExpected));
    for (const ExpectedRow& row : kExpected) {
        const char* message = FindErrorMessage(row.code);
        ASSERT_NE(nullptr, message) << row.code;
        EXPECT_STREQ(row.message, message) << row.code;
    }
}

TEST(ErrorTableTest, RowsStandInTheirOrder) {
    ASSERT_EQ(std::size(kExpected), std::size(as_listed::kRows));
    for (size_t i = 0; i < std::size(kExpected); ++i)
        EXPECT_EQ(kExpected[i].code, as_listed::kRows[i].code) << "row " << i + 1;
}

TEST(ErrorTableTest, NoOtherCodeHasARow) {
    std::set<int> listed;
    for (const ExpectedRow& row : kExpected)
        EXPECT_TRUE(listed.insert(row.code).second) << row.code;
    for (int code = -6530000; code <= -6526000; ++code)
        EXPECT_EQ(listed.count(code) == 1, FindErrorMessage(code) != nullptr) << code;
}

TEST(ErrorTableTest, GapsStayOpen) {
    for (const int code : {-6527006, -6528003, -6528204, -6528311, -6528312, -6528404})
        EXPECT_EQ(nullptr, FindErrorMessage(code)) << code;
}

TEST(ErrorTableTest, SuccessAndSystemErrorsHaveNoRow) {
    for (const int code : {0, 1, 6527001, INT_MAX, INT_MIN, -1, -110})
        EXPECT_EQ(nullptr, FindErrorMessage(code)) << code;
}

TEST(ErrorTableTest, MessagesHoldAtMostTwoTextsAndNoOtherConversion) {
    for (const ExpectedRow& row : kExpected) {
        const std::string message = FindErrorMessage(row.code);
        int texts = 0;
        for (size_t i = message.find('%'); i != std::string::npos; i = message.find('%', i + 1)) {
            EXPECT_EQ('s', message[i + 1]) << row.code;
            ++texts;
        }
        EXPECT_LE(texts, 2) << row.code;
    }
}

TEST(ErrorTableTest, EmptyArgumentsLeaveThePlacesEmpty) {
    for (const ExpectedRow& row : kExpected)
        EXPECT_EQ(Filled(row.message, "", "") + " [Site.cpp:77]", MessageOf(row.code, "", ""));
}

TEST(ErrorTableTest, ArgumentsFillThePlacesInTurn) {
    for (const ExpectedRow& row : kExpected) {
        EXPECT_EQ(Filled(row.message, "First 1", "Second 2") + " [Site.cpp:77]",
                  MessageOf(row.code, "First 1", "Second 2"));
    }
}

TEST(ErrorTableTest, PercentInAnArgumentIsNoConversion) {
    EXPECT_EQ("Failed to init object: %s%n100% [Site.cpp:77]",
              MessageOf(-6527004, "%s%n100%", "x"));
}

TEST(ErrorTableTest, MissingAnswerReadsAsAnApplicationSeesIt) {
    EXPECT_EQ(
        "GetSenderList command failed to receive response packet within 10 seconds. [Site.cpp:77]",
        MessageOf(-6528101, "GetSenderList", "10"));
    EXPECT_EQ("Cancel command failed to receive response packet within ? seconds. [Site.cpp:77]",
              MessageOf(-6528101, "Cancel", "?"));
}

TEST(ErrorTableTest, RefusedPortsKeepTheirBlanks) {
    EXPECT_EQ("No TCP connection could be built to IP:127.0.0.1 Port:80 19996  [Site.cpp:77]",
              MessageOf(-6528001, "127.0.0.1", "80 19996 "));
}

TEST(ErrorTableTest, QuotesOfTheLogFileRowStay) {
    EXPECT_EQ("Failed to create log file \"/tmp/x.log\" [Site.cpp:77]",
              MessageOf(-6528322, "/tmp/x.log", ""));
}

TEST(ErrorTableTest, ClosedConnectionIgnoresItsArguments) {
    EXPECT_EQ("The connection has been gracefully closed. [Site.cpp:77]",
              MessageOf(-6528002, "one", "two"));
}

TEST(ErrorTableTest, CodeInAGapGetsTheSystemsText) {
    EXPECT_EQ("Unknown error 6528003GetSenderList [Site.cpp:77]",
              MessageOf(-6528003, "GetSenderList", "10"));
}

TEST(ErrorTableTest, NamedCodesAreThoseThatTheLibraryRaises) {
    EXPECT_EQ(-6527001, kErrCreateObject);
    EXPECT_EQ(-6527002, kErrReentry);
    EXPECT_EQ(-6527004, kErrInitObject);
    EXPECT_EQ(-6528001, kErrConnect);
    EXPECT_EQ(-6528002, kErrPeerClosed);
    EXPECT_EQ(-6528004, kErrNoPorts);
    EXPECT_EQ(-6528005, kErrStillClosing);
    EXPECT_EQ(-6528006, kErrHandShake);
    EXPECT_EQ(-6528101, kErrNoAnswer);
}

}  // namespace
