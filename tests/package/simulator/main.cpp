// A program with a receiver of its own: simulator ADDRESS
#include <vector>

#include "ScreenReceiver/ScreenReceiverStub.h"
#include "simulator/ReceiverSimulator.h"

int main(int argc, char** argv) {
    if (argc != 2)
        return 2;
    simulator::Options options;
    options.address = argv[1];
    simulator::ReceiverSimulator receiver(options);
    if (receiver.Start())
        return 1;
    ScreenReceiverStub client;
    std::vector<ScreenSenderInfo> senders;
    const bool isListed = client.Init(argv[1], false) == 0 && client.GetSenderList(senders) == 0;
    return isListed && receiver.GetStatistics().framesReceived == 1 ? 0 : 1;
}
