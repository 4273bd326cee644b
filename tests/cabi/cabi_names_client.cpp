#include "ScreenReceiver/ScreenReceiverStub.h"
#include "tests/cabi/cabi_names.h"

namespace {

class Tables : public ProtocolBase {
public:
    ~Tables() override { EndThreads(); }
    bool HaveTheDefaults() const {
        return m_CmdHandlers[3] == static_cast<CmdHandler>(&ProtocolBase::OnUnknownCommand) &&
               m_RecvHandlers[3] == static_cast<RecvHandler>(&ProtocolBase::RecvUnknownData);
    }
};

}  // namespace

bool DefaultHandlersAreRecognized() {
    return Tables().HaveTheDefaults();
}

int CountSenders(const char* host) {
    ScreenReceiverStub receiver;
    std::vector<ScreenSenderInfo> senders;
    if (receiver.Init(host, false) != 0 || receiver.GetSenderList(senders) != 0)
        return -1;
    return static_cast<int>(senders.size());
}
