#ifndef SIMULATOR_CONNECTION_H_
#define SIMULATOR_CONNECTION_H_

#include <array>
#include <boost/asio/ip/tcp.hpp>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>

#include "simulator/Agenda.h"
#include "simulator/Delivery.h"
#include "simulator/FaultTable.h"
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
        /// Serves a few of the frames that have come; true when there may be more.
        virtual bool OnFrames(Connection& connection) = 0;
        /// It cannot go on; the owner closes it in this way.
        virtual void Close(Connection& connection, ClientChange reason, Closing closing) = 0;

    protected:
        ~Owner() = default;
    };

    /// `seed` and `id` decide what is random about this connection.
    Connection(Owner& owner,
               Agenda& agenda,
               uint64_t id,
               uint64_t seed,
               boost::asio::ip::tcp::socket socket);

    uint64_t Id() const { return m_nId; }
    const std::string& Peer() const { return m_strPeer; }
    bool IsOpen() const { return m_bOpen; }
    FrameFinder& Finder() { return m_Finder; }
    Random& GetRandom() { return m_Random; }

    // One of the first two once, after the owner has stored it. Mute leaves what comes unread.
    void StartReading();
    void Mute();
    void Unmute();
    bool IsMuted() const { return m_bMuted; }

    void Send(const Bytes& bytes);
    void Send(Delivery delivery);
    /// Bytes that the system has not taken yet, with those that are held back, and what it costs to
    /// keep them.
    size_t Backlog() const { return m_nBacklog; }

    void Close(Closing closing);

private:
    using ErrorCode = boost::system::error_code;

    void OnRead(const ErrorCode& error, size_t size);
    void ServeFrames();
    void WatchMuted();
    void Push(std::vector<Piece> pieces);
    void WriteNext();
    void Write(const Piece& piece);
    void OnWritten(const ErrorCode& error, size_t size);
    bool EndPiece();
    void Pause(std::chrono::milliseconds time);
    void EndIfAllSent();
    void FinishFlush();
    void ResetWhenAllArrived();
    // Runs `task` in `time`, unless the connection is closed before.
    template <typename Task>
    void Later(std::chrono::milliseconds time, Task task);

    Owner& m_Owner;
    Agenda& m_Agenda;
    const uint64_t m_nId;
    boost::asio::ip::tcp::socket m_Socket;
    std::string m_strPeer;
    Random m_Random;
    FrameFinder m_Finder;
    std::array<char, size_t{16} * 1024> m_Chunk{};
    bool m_bOpen = true;
    bool m_bFlushing = false;   // closed for the owner; what waits is still sent
    bool m_bResetting = false;  // closed for the owner; what the system has is still sent
    bool m_bReading = false;    // a read is in progress
    bool m_bMuted = false;
    bool m_bEnded = false;  // the client sends no more

    std::deque<Piece> m_Pieces;
    std::string m_strSmall;  // small frames, to become one piece behind m_Pieces
    size_t m_nSent = 0;      // of the first piece
    size_t m_nBacklog = 0;
    bool m_bWriting = false;  // a write is in progress
    bool m_bPaused = false;
    std::map<uint64_t, Agenda::Ticket> m_Waits;
    uint64_t m_nNextWait = 0;
};

}  // namespace simulator

#endif  // SIMULATOR_CONNECTION_H_
