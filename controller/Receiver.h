#ifndef CONTROLLER_RECEIVER_H_
#define CONTROLLER_RECEIVER_H_

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ScreenReceiver/ScreenReceiverStub.h"
#include "controller/Failure.h"

namespace screenctl {

/// "192.0.2.7": four numbers from 0 to 255, nothing else.
bool IsDottedAddress(const std::string& host);

enum class Which { All, NonLocal, Valid };

struct Trace {
    std::string file;  // empty: none; "-": standard error
    int level = 700;
};

/**
 * The connection to one receiver, over the library. Every call gives nothing when it was done, else
 * why it was not. A request that fails has ended the connection, but when the receiver answered it
 * with a result of its own (Exit::Refused).
 *
 * Threads: one. One object at a time in a process may have a listener, since the library's callback
 *          carries no context.
 */
class Receiver {
public:
    using Result = std::optional<Failure>;

    Receiver(const std::string& host, const Trace& trace);
    ~Receiver();

    /// Tries to connect, once, or again and again for `wait`. A refused port is told at once; so is,
    /// with Exit::WrongUsage, an address that is not dotted and a trace that cannot be written.
    Result Connect(std::chrono::milliseconds wait = std::chrono::milliseconds(0));
    /// False once the link has been found broken.
    bool IsConnected() const;
    void Close();

    Result List(Which which, std::vector<ScreenSenderInfo>& senders);
    Result GetModerator(ScreenReceiverStub::ModeratorInfo& moderator);
    Result SetModerator(const ScreenReceiverStub::ModeratorInfo& moderator);
    Result Play(int sender, unsigned char option);
    Result Stop(int sender);
    Result Logout(int sender);
    Result KeepAlive();
    Result QuitControl();

    /// Called on threads of the library, one call at a time, for every notification, and without
    /// values after the link has broken by itself. Set it before Connect().
    using Listener = std::function<void(const int* values)>;  // three, or null
    void Listen(Listener listener);

    const std::string& Host() const;

private:
    class Stub;
    Result Ask(const std::function<int(Stub&)>& request, const std::string& what);

    std::unique_ptr<Stub> m_pStub;
    std::string m_strHost;
    Result m_Unusable;  // why the trace cannot be written
};

}  // namespace screenctl

#endif  // CONTROLLER_RECEIVER_H_
