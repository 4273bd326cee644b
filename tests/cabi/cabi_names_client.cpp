#include "ScreenReceiver/ScreenReceiverStub.h"
#include "tests/cabi/cabi_names.h"

int CountSenders(const char* host) {
    ScreenReceiverStub receiver;
    std::vector<ScreenSenderInfo> senders;
    if (receiver.Init(host, false) != 0 || receiver.GetSenderList(senders) != 0)
        return -1;
    return static_cast<int>(senders.size());
}
