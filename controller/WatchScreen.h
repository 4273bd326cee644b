#ifndef CONTROLLER_WATCHSCREEN_H_
#define CONTROLLER_WATCHSCREEN_H_

#include <string>

#include "controller/Receiver.h"
#include "controller/WatchFeed.h"

namespace screenctl {

/// Fills the terminal with what the feed tells of `host`, a printable text, and does what is typed,
/// until the user quits. Gives why it could not. The terminal is then as it was before.
Receiver::Result RunWatchScreen(WatchFeed& feed, const std::string& host);

}  // namespace screenctl

#endif  // CONTROLLER_WATCHSCREEN_H_
