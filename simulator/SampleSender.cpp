#include <array>

#include "simulator/ReceiverSimulator.h"

namespace simulator {

Sender SampleSender(int32_t key) {
    static const std::array<const char*, 12> kNames = {"Ada",  "Grace",   "Edsger", "Barbara",
                                                       "Alan", "Frances", "Donald", "Hedy",
                                                       "Ivan", "Radia",   "Dennis", "Margaret"};
    const uint32_t index = static_cast<uint32_t>(key) - 1;
    Sender sender;
    sender.key = key;
    sender.address = 0xC0A80A14u + index % 0x8000u;  // 192.168.10.20 and on
    sender.userName = kNames[index % kNames.size()];
    if (index >= kNames.size())
        sender.userName += " " + std::to_string(index / kNames.size() + 1);
    sender.osType = static_cast<uint16_t>(index % 4 + 1);
    sender.appType = static_cast<uint16_t>(index % 2 + 1);
    sender.pointerInputType = static_cast<uint16_t>(index % 3);
    sender.local = index % 4 == 2;
    sender.valid = index % 4 != 3;
    sender.status = sender.valid ? kStatusReady : kStatusIdle;
    return sender;
}

}  // namespace simulator
