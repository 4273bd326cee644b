#ifndef TESTS_CABI_ANSWERINGPEER_H_
#define TESTS_CABI_ANSWERINGPEER_H_

#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace sr_test {

/**
 * A receiver that goes by a table: for programs of their own, whose requests come when they like.
 * Serves any number of clients on a thread of its own, from construction to destruction.
 */
class AnsweringPeer {
public:
    struct Script {
        /// What each request code is answered with, byte for byte; a code that is missing gets
        /// nothing.
        std::map<int, std::string> answers;
        /// Request codes after whose answer the connection is closed.
        std::set<int> closing;
        /// Time between notifications that every client is sent; 0 for none.
        std::chrono::milliseconds notifyEvery{0};
    };

    explicit AnsweringPeer(const Script& script);
    ~AnsweringPeer();
    AnsweringPeer(const AnsweringPeer&) = delete;
    AnsweringPeer& operator=(const AnsweringPeer&) = delete;

    const std::string& Address() const { return m_Address; }

    /// All requests so far, in the order in which they came, prefixes included.
    std::vector<std::string> Requests() const;
    /// Waits for the n-th request of this code.
    bool AwaitRequest(int code, size_t count) const;

private:
    struct Client {
        int socket;
        std::string received;
    };

    void Serve();
    bool Read(Client& client);
    bool Answer(Client& client);
    static void Send(int socket, const std::string& bytes);

    const Script m_Script;
    const std::string m_Address;
    int m_Listener;
    std::vector<Client> m_Clients;  // the thread's
    std::atomic<bool> m_bRunning;
    mutable std::mutex m_Mutex;
    std::vector<std::string> m_Requests;  // guarded by m_Mutex
    std::thread m_Thread;
};

}  // namespace sr_test

#endif  // TESTS_CABI_ANSWERINGPEER_H_
