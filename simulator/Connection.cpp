#include "simulator/Connection.h"

#include <fcntl.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <boost/asio/buffer.hpp>
#include <boost/asio/post.hpp>
#include <exception>
#include <utility>

namespace simulator {

namespace {

using boost::asio::ip::tcp;

// Frames below this size are copied together, so that many notifications make one system call.
constexpr size_t kSmallFrame = 1024;
constexpr std::chrono::milliseconds kMutedWatch(100);
constexpr std::chrono::milliseconds kLinger(2000);
constexpr std::chrono::milliseconds kArrivalWatch(1);
// What a piece takes besides its bytes, roughly and rather too much.
constexpr size_t kPieceCost = 512;

}  // namespace

void CloseOnExec(int descriptor) {
    const int flags = fcntl(descriptor, F_GETFD);
    if (flags >= 0)
        fcntl(descriptor, F_SETFD, flags | FD_CLOEXEC);
}

Connection::Connection(Owner& owner, Agenda& agenda, uint64_t id, uint64_t seed, tcp::socket socket)
    : m_Owner(owner), m_Agenda(agenda), m_nId(id), m_Socket(std::move(socket)) {
    std::seed_seq seeds{static_cast<uint32_t>(seed), static_cast<uint32_t>(seed >> 32),
                        static_cast<uint32_t>(id), static_cast<uint32_t>(id >> 32)};
    m_Random.seed(seeds);
    ErrorCode ignored;
    const tcp::endpoint peer = m_Socket.remote_endpoint(ignored);
    m_strPeer = peer.address().to_string() + ":" + std::to_string(peer.port());
    m_Socket.set_option(tcp::no_delay(true), ignored);
    CloseOnExec(m_Socket.native_handle());
}

template <typename Task>
void Connection::Later(std::chrono::milliseconds time, Task task) {
    const uint64_t number = m_nNextWait++;
    m_Waits[number] = m_Agenda.At(m_Agenda.Now() + time,
                                  [weak = weak_from_this(), number, task = std::move(task)] {
                                      const auto self = weak.lock();
                                      if (!self)
                                          return;
                                      self->m_Waits.erase(number);
                                      task(*self);
                                  });
}

void Connection::Mute() {
    m_bMuted = true;
    WatchMuted();
}

void Connection::Unmute() {
    if (!std::exchange(m_bMuted, false) || !m_bOpen)
        return;
    StartReading();
}

// An end that nobody reads up to shows only here.
void Connection::WatchMuted() {
    Later(kMutedWatch, [](Connection& self) {
        if (!self.m_bMuted)
            return;
        pollfd entry = {self.m_Socket.native_handle(), POLLRDHUP, 0};
        if (poll(&entry, 1, 0) > 0)
            self.m_Owner.Close(self, ClientChange::Left, Closing::AtOnce);
        else
            self.WatchMuted();
    });
}

void Connection::StartReading() {
    m_Socket.async_read_some(boost::asio::buffer(m_Chunk),
                             [self = shared_from_this()](const ErrorCode& error, size_t size) {
                                 self->OnRead(error, size);
                             });
    m_bReading = true;
}

void Connection::OnRead(const ErrorCode& error, size_t size) {
    m_bReading = false;
    if (!m_bOpen) {
        // Lingers: see Close().
        m_bEnded = m_bEnded || error;
        const bool sendsStill = m_bFlushing || (m_bResetting && error == boost::asio::error::eof);
        if (!error)
            StartReading();
        else if (!sendsStill)
            Close(Closing::AtOnce);
        return;
    }
    if (error) {
        // A client that has only shut down its sending side still gets what is due to it.
        m_bEnded = error == boost::asio::error::eof;
        if (m_bEnded)
            EndIfAllSent();
        else
            m_Owner.Close(*this, ClientChange::Left, Closing::AtOnce);
        return;
    }
    try {
        m_Owner.OnBytes(*this, m_Chunk.data(), size);
        ServeFrames();
    } catch (const std::exception&) {
        m_Owner.Close(*this, ClientChange::Failed, Closing::AtOnce);
    }
}

// Between two turns the other clients have theirs.
void Connection::ServeFrames() {
    const bool more = m_Owner.OnFrames(*this);
    if (!m_bOpen)
        return;
    if (!more) {
        StartReading();
        return;
    }
    boost::asio::post(m_Socket.get_executor(), [self = shared_from_this()] {
        if (!self->m_bOpen)
            return;
        try {
            self->ServeFrames();
        } catch (const std::exception&) {
            self->m_Owner.Close(*self, ClientChange::Failed, Closing::AtOnce);
        }
    });
}

void Connection::Send(const Bytes& bytes) {
    m_nBacklog += bytes->size();
    if (bytes->size() < kSmallFrame) {
        m_strSmall += *bytes;
        WriteNext();
        return;
    }
    m_nBacklog += kPieceCost;
    std::vector<Piece> pieces(1);
    pieces.front().bytes = bytes;
    Push(std::move(pieces));
}

void Connection::Send(Delivery delivery) {
    for (const Piece& piece : delivery.pieces)
        m_nBacklog += piece.bytes->size() + kPieceCost;
    if (delivery.delay.count() == 0) {
        Push(std::move(delivery.pieces));
        return;
    }
    Later(delivery.delay,
          [pieces = std::move(delivery.pieces)](Connection& self) { self.Push(pieces); });
}

void Connection::Push(std::vector<Piece> pieces) {
    if (!m_strSmall.empty()) {
        m_nBacklog += kPieceCost;
        m_Pieces.emplace_back();
        m_Pieces.back().bytes = std::make_shared<const std::string>(std::exchange(m_strSmall, {}));
    }
    m_Pieces.insert(m_Pieces.end(), pieces.begin(), pieces.end());
    WriteNext();
}

void Connection::WriteNext() {
    while ((m_bOpen || m_bFlushing) && !m_bWriting && !m_bPaused) {
        if (m_Pieces.empty()) {
            if (m_strSmall.empty())
                return FinishFlush();
            return Push({});
        }
        const Piece& first = m_Pieces.front();
        if (m_nSent < first.bytes->size()) {
            Write(first);
            return;
        }
        if (!EndPiece())
            return;
    }
}

void Connection::Write(const Piece& piece) {
    size_t size = piece.bytes->size() - m_nSent;
    if (piece.chunk != 0)
        size = std::min(size, piece.chunk - m_nSent % piece.chunk);
    m_Socket.async_write_some(
        boost::asio::buffer(piece.bytes->data() + m_nSent, size),
        [self = shared_from_this(), bytes = piece.bytes](const ErrorCode& error, size_t written) {
            self->OnWritten(error, written);
        });
    m_bWriting = true;
}

void Connection::OnWritten(const ErrorCode& error, size_t size) {
    m_bWriting = false;
    if (!m_bOpen && !m_bFlushing)
        return;
    if (error) {
        if (m_bOpen)
            m_Owner.Close(*this, ClientChange::Left, Closing::AtOnce);
        else
            Close(Closing::AtOnce);
        return;
    }
    m_nSent += size;
    m_nBacklog -= size;
    const Piece& piece = m_Pieces.front();
    const bool chunkSent = piece.chunk != 0 && m_nSent % piece.chunk == 0;
    if (chunkSent && m_nSent < piece.bytes->size())
        Pause(piece.pause);
    WriteNext();
    EndIfAllSent();
}

// False when the connection ends with it.
bool Connection::EndPiece() {
    const Piece piece = std::move(m_Pieces.front());
    m_Pieces.pop_front();
    m_nSent = 0;
    m_nBacklog -= kPieceCost;
    if (piece.end == PieceEnd::GoOn) {
        Pause(piece.pause);
        return true;
    }
    // What waits behind the cut is not for this client any more.
    m_Pieces.clear();
    m_strSmall.clear();
    if (!m_bOpen)
        return true;
    m_Owner.Close(*this, ClientChange::Faulted,
                  piece.end == PieceEnd::Close ? Closing::Gracefully : Closing::Reset);
    return false;
}

void Connection::Pause(std::chrono::milliseconds time) {
    if (time.count() == 0)
        return;
    if (m_bFlushing)
        return FinishFlush();
    m_bPaused = true;
    Later(time, [](Connection& self) {
        self.m_bPaused = false;
        self.WriteNext();
        self.EndIfAllSent();
    });
}

void Connection::EndIfAllSent() {
    if (m_bEnded && m_bOpen && m_nBacklog == 0)
        m_Owner.Close(*this, ClientChange::Left, Closing::AtOnce);
}

// All is sent, or a fault holds the rest back, perhaps for hours.
void Connection::FinishFlush() {
    if (!std::exchange(m_bFlushing, false))
        return;
    if (m_bEnded)
        return Close(Closing::AtOnce);
    ErrorCode ignored;
    m_Socket.shutdown(tcp::socket::shutdown_send, ignored);
}

void Connection::Close(Closing closing) {
    m_bOpen = false;
    m_bFlushing = closing == Closing::Gracefully;
    m_bMuted = false;
    if (closing == Closing::Gracefully) {
        // Closing with unread bytes would reset the connection and take from the client what it has
        // not read yet. So they are read, until the client closes or some time has passed.
        Later(kLinger, [](Connection& self) { self.Close(Closing::AtOnce); });
        if (!m_bReading)
            StartReading();
        if (m_bPaused)
            FinishFlush();
        else
            WriteNext();
        return;
    }
    for (const auto& [number, ticket] : m_Waits)
        m_Agenda.Cancel(ticket);
    m_Waits.clear();
    m_Pieces.clear();
    m_strSmall.clear();
    ErrorCode ignored;
    if (closing == Closing::Reset) {
        m_Socket.set_option(boost::asio::socket_base::linger(true, 0), ignored);
        m_bResetting = true;
        Later(kLinger, [](Connection& self) { self.Close(Closing::AtOnce); });
        ResetWhenAllArrived();
        return;
    }
    m_Socket.close(ignored);
}

// A reset takes back what the system has not sent yet.
void Connection::ResetWhenAllArrived() {
    int waiting = 0;
    if (ioctl(m_Socket.native_handle(), SIOCOUTQ, &waiting) == 0 && waiting > 0) {
        // Nothing else may hold it any more.
        Later(kArrivalWatch,
              [kept = shared_from_this()](Connection& self) { self.ResetWhenAllArrived(); });
        return;
    }
    Close(Closing::AtOnce);
}

}  // namespace simulator
