#include "tests/cabi/AnsweringPeer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "tests/support/ScriptedPeer.h"

namespace sr_test {

namespace {

constexpr size_t kRequestSize = 40;
constexpr size_t kCodeOffset = 7;
constexpr int kSliceMs = 2;

int Listen(const std::string& address) {
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int on = 1;
    ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in name = {};
    name.sin_family = AF_INET;
    name.sin_port = htons(ScriptedPeer::kReceiverPort);
    ::inet_pton(AF_INET, address.c_str(), &name.sin_addr);
    if (::bind(listener, reinterpret_cast<sockaddr*>(&name), sizeof name) != 0 ||
        ::listen(listener, 64) != 0)
        throw std::system_error(errno, std::generic_category(), "AnsweringPeer: " + address);
    return listener;
}

}  // namespace

AnsweringPeer::AnsweringPeer(const Script& script)
    : m_Script(script),
      m_Address(UniqueAddress()),
      m_Listener(Listen(m_Address)),
      m_bRunning(true),
      m_Thread([this] { Serve(); }) {}

AnsweringPeer::~AnsweringPeer() {
    m_bRunning = false;
    m_Thread.join();
    for (const Client& client : m_Clients)
        ::close(client.socket);
    ::close(m_Listener);
}

std::vector<std::string> AnsweringPeer::Requests() const {
    const std::lock_guard<std::mutex> lock(m_Mutex);
    return m_Requests;
}

bool AnsweringPeer::AwaitRequest(int code, size_t count) const {
    return WaitFor([&] {
        const std::vector<std::string> requests = Requests();
        return static_cast<size_t>(std::count_if(
                   requests.begin(), requests.end(), [code](const std::string& request) {
                       return request[kCodeOffset] == static_cast<char>(code);
                   })) >= count;
    });
}

void AnsweringPeer::Serve() {
    using Clock = std::chrono::steady_clock;
    const std::string notification =
        Hex("52 65 63 76 49 50 43 24 00 00 00 01 00 00 00 02 00 00 00 03");
    Clock::time_point notified = Clock::now();
    while (m_bRunning) {
        std::vector<pollfd> entries = {{m_Listener, POLLIN, 0}};
        for (const Client& client : m_Clients)
            entries.push_back({client.socket, POLLIN, 0});
        ::poll(entries.data(), entries.size(), kSliceMs);

        for (size_t i = m_Clients.size(); i > 0; --i) {
            if (entries[i].revents == 0 || Read(m_Clients[i - 1]))
                continue;
            ::close(m_Clients[i - 1].socket);
            m_Clients.erase(m_Clients.begin() + static_cast<std::ptrdiff_t>(i) - 1);
        }
        const int socket = ::accept4(m_Listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (socket >= 0)
            m_Clients.push_back({socket, std::string()});

        if (m_Script.notifyEvery.count() != 0 && Clock::now() - notified >= m_Script.notifyEvery) {
            notified = Clock::now();
            for (const Client& client : m_Clients)
                Send(client.socket, notification);
        }
    }
}

// False when the client's connection is to be closed.
bool AnsweringPeer::Read(Client& client) {
    char bytes[4096];
    const ssize_t got = ::recv(client.socket, bytes, sizeof bytes, MSG_DONTWAIT);
    if (got <= 0)
        return got < 0 && (errno == EAGAIN || errno == EINTR);
    client.received.append(bytes, static_cast<size_t>(got));
    while (client.received.size() >= kRequestSize) {
        if (!Answer(client))
            return false;
    }
    return true;
}

bool AnsweringPeer::Answer(Client& client) {
    const std::string request = client.received.substr(0, kRequestSize);
    client.received.erase(0, kRequestSize);
    const int code = static_cast<unsigned char>(request[kCodeOffset]);
    const auto answer = m_Script.answers.find(code);
    if (answer != m_Script.answers.end())
        Send(client.socket, answer->second);
    const std::lock_guard<std::mutex> lock(m_Mutex);
    m_Requests.push_back(request);
    return m_Script.closing.count(code) == 0;
}

// A client that has gone, or that does not read, is its own affair.
void AnsweringPeer::Send(int socket, const std::string& bytes) {
    if (::send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT) < 0)
        return;
}

}  // namespace sr_test
