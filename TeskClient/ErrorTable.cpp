#include "TeskClient/ErrorTable.h"

namespace {

struct Row {
    int code;
    const char* message;
};

// Shared by a family of programs; this library raises the codes of ErrorTable.h only. The texts are
// known to users and support as they stand, so misspellings stay, and so do the gaps and the order.
// clang-format off
constexpr Row kRows[] = {
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

}  // namespace

const char* FindErrorMessage(int code) {
    for (const Row& row : kRows) {
        if (row.code == code)
            return row.message;
    }
    return nullptr;
}
