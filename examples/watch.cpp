// Prints a receiver's senders, and again after each notification, until the link ends or COUNT
// notifications have come: watch [ADDRESS [COUNT]]
#include <array>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <optional>
#include <vector>

#include "ScreenReceiver/ScreenReceiverStub.h"

namespace {

using Notification = std::array<int, 3>;

// The callback carries no context, so what it fills has to be global.
std::mutex g_mutex;
std::condition_variable g_changed;
std::deque<Notification> g_notifications;
bool g_linkEnded = false;

/// On the library's dispatcher thread: hands over and returns, so that the next one is not held up.
int OnNotify(int first, int second, int third) {
    const std::lock_guard<std::mutex> lock(g_mutex);
    g_notifications.push_back({first, second, third});
    g_changed.notify_one();
    return 0;
}

/// None when the link has ended.
std::optional<Notification> NextNotification() {
    std::unique_lock<std::mutex> lock(g_mutex);
    g_changed.wait(lock, [] { return g_linkEnded || !g_notifications.empty(); });
    if (g_notifications.empty())
        return std::nullopt;
    const Notification next = g_notifications.front();
    g_notifications.pop_front();
    return next;
}

class Watched : public ScreenReceiverStub {
public:
    // Before this class's part is gone, or a thread of the library could still call into it.
    ~Watched() override { EndThreads(); }

    int PrintSenders() {
        std::vector<ScreenSenderInfo> senders;
        if (const int failure = GetSenderList(senders))
            return failure;
        for (const ScreenSenderInfo& sender : senders)
            std::printf("  %d %s: status %d\n", static_cast<int>(sender.GetPrimaryKey()),
                        sender.GetUserName(), static_cast<int>(sender.GetStatus()));
        std::fflush(stdout);
        return 0;
    }

    /// On the library's close thread, after the link has ended by itself.
    void OnConnectClose() override {
        ScreenReceiverStub::OnConnectClose();
        const std::lock_guard<std::mutex> lock(g_mutex);
        g_linkEnded = true;
        g_changed.notify_one();
    }
};

}  // namespace

int main(int argc, char** argv) {
    const int count = argc > 2 ? std::atoi(argv[2]) : -1;
    Watched receiver;
    receiver.SetScrRcvNotifyCB(OnNotify);
    int failure = receiver.Init(argc > 1 ? argv[1] : "127.0.0.1", false);
    if (failure == 0)
        failure = receiver.PrintSenders();
    for (int i = 0; failure == 0 && i != count; ++i) {
        const std::optional<Notification> next = NextNotification();
        if (!next)
            break;
        std::printf("notification %d, %d, %d\n", (*next)[0], (*next)[1], (*next)[2]);
        failure = receiver.PrintSenders();
    }
    if (failure != 0)
        std::fprintf(stderr, "%s\n", receiver.GetErrorMessage());
    return failure == 0 ? 0 : 1;
}
