#ifndef TESTS_SUPPORT_SCRIPTEDPEER_H_
#define TESTS_SUPPORT_SCRIPTEDPEER_H_

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace sr_test {

using std::chrono::milliseconds;

/// Stretches a time-out for slow builds: sanitizers and emulation are known, slow
/// machines set SR_TEST_SLOWDOWN.
milliseconds Stretched(milliseconds time);

/// Waits for a condition, looking at it every millisecond; false when `limit` (stretched) has passed.
bool WaitFor(const std::function<bool()>& condition, milliseconds limit = milliseconds(10000));

/// A loopback address 127.a.b.c that no other test process and no earlier call has.
std::string UniqueAddress();

/// Bytes from hex digits; blanks are skipped: Hex("52 65 0a").
std::string Hex(const std::string& digits);

/// `bytes`, filled up with zero bytes to `size`.
std::string Padded(const std::string& bytes, size_t size);

/**
 * The far end of one TCP connection, played by the test: says what came, sends what it is told, and
 * closes as it is told. Listens from construction on; the sockets are closed by the destructor. It
 * has no thread and knows nothing of the protocol.
 */
class ScriptedPeer {
public:
    static constexpr uint16_t kReceiverPort = 19996;

    /// Port 0 takes any free one.
    explicit ScriptedPeer(const std::string& address = UniqueAddress(),
                          uint16_t port = kReceiverPort);
    ~ScriptedPeer();
    ScriptedPeer(const ScriptedPeer&) = delete;
    ScriptedPeer& operator=(const ScriptedPeer&) = delete;

    const std::string& Address() const { return m_Address; }
    const char* Host() const { return m_Address.c_str(); }
    uint16_t Port() const { return m_Port; }

    /// Takes the next client, closing the one before. False when none came in time.
    bool Accept(milliseconds limit = milliseconds(10000));

    /// The next `size` bytes; fewer when the client closed or the time ran out.
    std::string Receive(size_t size, milliseconds limit = milliseconds(10000));
    /// What has come within `time` and was not received yet; for showing that nothing comes.
    std::string ReceiveAllWithin(milliseconds time);

    void Send(const std::string& bytes);
    /// In pieces that end at the given offsets, each sent once the one before has left this end.
    void SendSplitAt(const std::string& bytes,
                     const std::vector<size_t>& offsets,
                     milliseconds pause = milliseconds(5));
    void SendByteByByte(const std::string& bytes);

    /// Waits until the client has closed its end.
    bool ClientClosed(milliseconds limit = milliseconds(10000));

    void Close();          // graceful: FIN
    void Reset();          // RST
    void StopListening();  // the port is refused from now on
    int Socket() const { return m_Client; }

private:
    std::string m_Address;
    uint16_t m_Port;
    int m_Listener;
    int m_Client;
};

}  // namespace sr_test

#endif  // TESTS_SUPPORT_SCRIPTEDPEER_H_
