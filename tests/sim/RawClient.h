#ifndef TESTS_SIM_RAWCLIENT_H_
#define TESTS_SIM_RAWCLIENT_H_

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

namespace sim_test {

/// Long enough for a loaded machine; what goes well never waits for it.
constexpr std::chrono::milliseconds kLimit(30000);

/// Waits for a condition, looking at it every millisecond; false when kLimit has passed.
bool WaitFor(const std::function<bool()>& condition);

/// A loopback address that no other test process has.
std::string OwnAddress();

/// Bytes from hex digits; blanks are skipped.
std::string Hex(const std::string& digits);

/// `count` zero bytes.
std::string Zeros(size_t count);

/// "RecvIPC" and the command byte, and behind it these bytes, in hex, filled up to 32.
std::string Frame32(const std::string& code, const std::string& payload = "");

/// A whole notification of these three values, in hex.
std::string NotifyFrame(const std::string& body);

/// How the far end ended a connection; Open: not within kLimit.
enum class Ending { Open, Closed, Reset };

/// One connection, all bytes by hand.
class RawClient {
public:
    /// A receive buffer of 0 bytes leaves the system's default.
    RawClient(const std::string& address, uint16_t port, int receiveBuffer = 0);
    ~RawClient();
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;

    bool IsConnected() const { return m_bConnected; }
    /// False when the far end does not take them all.
    bool Send(const std::string& bytes);
    /// As many bytes as the system takes at once, without waiting.
    void SendNow(const std::string& bytes);
    /// The next `size` bytes; fewer when the far end closed or kLimit has passed.
    std::string Receive(size_t size);
    /// True when the far end closes, or has closed, the connection; bytes before that are dropped.
    bool IsClosedByPeer();
    /// What comes until the far end ends the connection.
    Ending ReceiveToEnd(std::string& bytes);
    /// True when something, or the end, comes within this time.
    bool IsAnythingComing(std::chrono::milliseconds time);
    void EndSending();  // FIN, and goes on reading
    void Reset();       // RST

private:
    int m_nSocket;
    bool m_bConnected;
};

}  // namespace sim_test

#endif  // TESTS_SIM_RAWCLIENT_H_
