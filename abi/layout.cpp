// Compiled for its record layouts only: all classes that an application may have objects of.
#include "ScreenReceiver/ScreenReceiver.h"
#include "ScreenReceiver/ScreenReceiverStub.h"

static_assert(sizeof(ScreenReceiverStub) + sizeof(ScreenSenderInfo) + sizeof(auto_closesocket) +
              sizeof(ScreenSenderRecord) + sizeof(ModeratorInfo) +
              sizeof(ScreenReceiverStub::ModeratorInfo));
