#include "simulator/Connection.h"

#include <fcntl.h>

#include <boost/asio/buffer.hpp>
#include <exception>
#include <utility>

namespace simulator {

namespace {

using boost::asio::ip::tcp;

// A long list must not hold its memory for as long as the client stays.
constexpr size_t kKeptCapacity = size_t{64} * 1024;

}  // namespace

void CloseOnExec(int descriptor) {
    const int flags = fcntl(descriptor, F_GETFD);
    if (flags >= 0)
        fcntl(descriptor, F_SETFD, flags | FD_CLOEXEC);
}

Connection::Connection(Owner& owner, uint64_t id, tcp::socket socket)
    : m_Owner(owner), m_nId(id), m_Socket(std::move(socket)) {
    ErrorCode ignored;
    const tcp::endpoint peer = m_Socket.remote_endpoint(ignored);
    m_strPeer = peer.address().to_string() + ":" + std::to_string(peer.port());
    m_Socket.set_option(tcp::no_delay(true), ignored);
    CloseOnExec(m_Socket.native_handle());
}

void Connection::StartReading() {
    m_Socket.async_read_some(boost::asio::buffer(m_Chunk),
                             [self = shared_from_this()](const ErrorCode& error, size_t size) {
                                 self->OnRead(error, size);
                             });
}

void Connection::Send(const std::string& bytes) {
    m_strQueued += bytes;
    if (m_strSending.empty())
        WriteNext();
}

void Connection::Close() {
    ErrorCode ignored;
    m_Socket.close(ignored);
}

void Connection::OnRead(const ErrorCode& error, size_t size) {
    if (!IsOpen())
        return;
    if (error) {
        // A client that has only shut down its sending side still gets what is due to it.
        m_bEnded = error == boost::asio::error::eof;
        if (!m_bEnded || m_strSending.empty())
            m_Owner.OnEnd(*this, ClientChange::Left);
        return;
    }
    try {
        m_Owner.OnBytes(*this, m_Chunk.data(), size);
        if (IsOpen())
            StartReading();
    } catch (const std::exception&) {
        m_Owner.OnEnd(*this, ClientChange::Failed);
    }
}

void Connection::WriteNext() {
    if (m_nSent == m_strSending.size()) {
        m_strSending.clear();
        if (m_strSending.capacity() > kKeptCapacity)
            m_strSending.shrink_to_fit();
        m_strSending.swap(m_strQueued);
        m_nSent = 0;
    }
    if (m_strSending.empty())
        return;
    m_Socket.async_write_some(
        boost::asio::buffer(m_strSending.data() + m_nSent, m_strSending.size() - m_nSent),
        [self = shared_from_this()](const ErrorCode& error, size_t size) {
            self->OnWritten(error, size);
        });
}

void Connection::OnWritten(const ErrorCode& error, size_t size) {
    if (!IsOpen())
        return;
    m_nSent += size;
    if (!error)
        WriteNext();
    if (error || (m_bEnded && m_strSending.empty()))
        m_Owner.OnEnd(*this, ClientChange::Left);
}

}  // namespace simulator
