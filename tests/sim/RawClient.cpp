#include "RawClient.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <thread>

namespace sim_test {

namespace {

using Clock = std::chrono::steady_clock;

bool IsReadable(int descriptor, Clock::time_point deadline) {
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        pollfd entry = {descriptor, POLLIN, 0};
        const int ready = poll(&entry, 1, left.count() > 0 ? static_cast<int>(left.count()) : 0);
        if (ready >= 0 || errno != EINTR)
            return ready > 0;
    }
}

}  // namespace

bool WaitFor(const std::function<bool()>& condition) {
    const auto deadline = Clock::now() + kLimit;
    while (!condition()) {
        if (Clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

std::string OwnAddress() {
    const auto pid = static_cast<unsigned>(getpid());
    char text[32];
    std::snprintf(text, sizeof text, "127.%u.%u.%u", 128 + (pid >> 16 & 63u), pid >> 8 & 255u,
                  pid & 255u);
    return text;
}

std::string Hex(const std::string& digits) {
    std::string bytes;
    std::string pair;
    for (const char digit : digits) {
        if (digit == ' ')
            continue;
        pair += digit;
        if (pair.size() == 2) {
            bytes += static_cast<char>(std::strtoul(pair.c_str(), nullptr, 16));
            pair.clear();
        }
    }
    return bytes;
}

std::string Zeros(size_t count) {
    return std::string(count, '\0');
}

std::string Frame32(const std::string& code, const std::string& payload) {
    std::string body = Hex(payload);
    body.resize(32, '\0');
    return Hex("52 65 63 76 49 50 43") + Hex(code) + body;
}

std::string NotifyFrame(const std::string& body) {
    return Hex("52 65 63 76 49 50 43 24") + Hex(body);
}

RawClient::RawClient(const std::string& address, uint16_t port, int receiveBuffer)
    : m_nSocket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)), m_bConnected(false) {
    if (receiveBuffer > 0)
        setsockopt(m_nSocket, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
    const int on = 1;
    setsockopt(m_nSocket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    sockaddr_in peer = {};
    peer.sin_family = AF_INET;
    peer.sin_port = htons(port);
    peer.sin_addr.s_addr = inet_addr(address.c_str());
    m_bConnected = connect(m_nSocket, reinterpret_cast<sockaddr*>(&peer), sizeof peer) == 0;
}

RawClient::~RawClient() {
    close(m_nSocket);
}

bool RawClient::Send(const std::string& bytes) {
    size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t size =
            send(m_nSocket, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (size < 0)
            return false;
        sent += static_cast<size_t>(size);
    }
    return true;
}

void RawClient::SendNow(const std::string& bytes) {
    const ssize_t ignored =
        send(m_nSocket, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    static_cast<void>(ignored);
}

std::string RawClient::Receive(size_t size) {
    const auto deadline = Clock::now() + kLimit;
    std::string bytes(size, '\0');
    size_t received = 0;
    while (received < size && IsReadable(m_nSocket, deadline)) {
        const ssize_t got = recv(m_nSocket, &bytes[received], size - received, 0);
        if (got <= 0)
            break;
        received += static_cast<size_t>(got);
    }
    bytes.resize(received);
    return bytes;
}

bool RawClient::IsClosedByPeer() {
    const auto deadline = Clock::now() + kLimit;
    char chunk[65536];
    while (IsReadable(m_nSocket, deadline)) {
        if (recv(m_nSocket, chunk, sizeof chunk, 0) <= 0)
            return true;
    }
    return false;
}

Ending RawClient::ReceiveToEnd(std::string& bytes) {
    const auto deadline = Clock::now() + kLimit;
    char chunk[65536];
    while (IsReadable(m_nSocket, deadline)) {
        const ssize_t got = recv(m_nSocket, chunk, sizeof chunk, 0);
        if (got == 0)
            return Ending::Closed;
        if (got < 0)
            return errno == ECONNRESET ? Ending::Reset : Ending::Open;
        bytes.append(chunk, static_cast<size_t>(got));
    }
    return Ending::Open;
}

bool RawClient::IsAnythingComing(std::chrono::milliseconds time) {
    return IsReadable(m_nSocket, Clock::now() + time);
}

void RawClient::EndSending() {
    shutdown(m_nSocket, SHUT_WR);
}

void RawClient::Reset() {
    const linger now = {1, 0};
    setsockopt(m_nSocket, SOL_SOCKET, SO_LINGER, &now, sizeof now);
    close(m_nSocket);
    m_nSocket = -1;
}

}  // namespace sim_test
