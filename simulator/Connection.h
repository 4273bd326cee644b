#ifndef SIMULATOR_CONNECTION_H_
#define SIMULATOR_CONNECTION_H_

#include <array>
#include <boost/asio/ip/tcp.hpp>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "simulator/ReceiverSimulator.h"
#include "simulator/Wire.h"

namespace simulator {

/// Keeps a descriptor from child processes: those of a test must not keep connections open.
void CloseOnExec(int descriptor);

/**
 * One client: its socket, what came from it and what waits to be sent to it.
 *
 * Threads: the I/O thread only. Lives as long as the owner or an operation in progress holds it;
 * once it is closed it calls its owner no more.
 */
class Connection : public std::enable_shared_from_this<Connection> {
public:
    class Owner {
    public:
        virtual void OnBytes(Connection& connection, const char* bytes, size_t size) = 0;
        /// It cannot go on; the owner closes it.
        virtual void OnEnd(Connection& connection, ClientChange reason) = 0;

    protected:
        ~Owner() = default;
    };

    Connection(Owner& owner, uint64_t id, boost::asio::ip::tcp::socket socket);

    uint64_t Id() const { return m_nId; }
    const std::string& Peer() const { return m_strPeer; }
    bool IsOpen() const { return m_Socket.is_open(); }
    FrameFinder& Finder() { return m_Finder; }

    /// Once, after the owner has stored it.
    void StartReading();
    void Send(const std::string& bytes);
    /// Bytes that the system has not taken yet.
    size_t Backlog() const { return m_strQueued.size() + m_strSending.size() - m_nSent; }
    void Close();

private:
    using ErrorCode = boost::system::error_code;

    void OnRead(const ErrorCode& error, size_t size);
    void WriteNext();
    void OnWritten(const ErrorCode& error, size_t size);

    Owner& m_Owner;
    const uint64_t m_nId;
    boost::asio::ip::tcp::socket m_Socket;
    std::string m_strPeer;
    FrameFinder m_Finder;
    std::array<char, size_t{16} * 1024> m_Chunk{};
    std::string m_strQueued;
    std::string m_strSending;  // a write is in progress while it is not empty
    size_t m_nSent = 0;        // of m_strSending
    bool m_bEnded = false;     // the client sends no more
};

}  // namespace simulator

#endif  // SIMULATOR_CONNECTION_H_
