#ifndef SIMULATOR_SIMULATORIMPL_H_
#define SIMULATOR_SIMULATORIMPL_H_

#include <array>
#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "simulator/Agenda.h"
#include "simulator/Answers.h"
#include "simulator/Connection.h"
#include "simulator/FaultTable.h"
#include "simulator/ReceiverSimulator.h"
#include "simulator/ReceiverState.h"
#include "simulator/ScenarioPlayer.h"

namespace simulator {

/**
 * One thread runs the io_context; sockets, connections and the agenda are touched by it alone. The
 * state and the faults are shared with the callers of the API and guarded by one mutex, which is
 * never held while anything is sent or observed.
 *
 * The order of notifications is the order of the changes: a caller of the API changes the state and
 * leaves its notifications in m_Pending under one lock; a request takes what is pending with the
 * same lock under which it changes the state, sends that first, then its answer, then its own.
 *
 * Every byte for a client passes Connection::Send, every frame Impl::Deliver, which asks the
 * faults. What happens by itself - timeline, crowd, floods, the end of conference control - is a
 * task of the agenda, so its order does not depend on how busy the machine is.
 *
 * Its functions stand in three files: SimulatorLifecycle.cpp, what the callers of the API reach;
 * SimulatorTraffic.cpp, from a client's bytes to the bytes for it; SimulatorSchedule.cpp, what
 * happens by itself.
 */
class ReceiverSimulator::Impl final : public Connection::Owner {
public:
    Impl(ReceiverSimulator& self, Options options, Observer observer)
        : m_Options(std::move(options)),
          m_Observer(std::move(observer)),
          m_Self(self),
          m_Agenda(m_Io),
          m_Acceptor(m_Io),
          m_AcceptTimer(m_Io),
          m_nPort(m_Options.port),
          m_Answers(m_State, m_Options) {}

    std::error_code Start();
    void Stop();

    // Changes the state with `bool change(state, notes)` and has the notifications sent.
    template <typename Change>
    bool ChangeState(Change change);
    template <typename Look>
    auto LookAtState(Look look) const;
    void DropClients();
    bool FaultOn(const Fault& fault);
    bool FaultOff(FaultKind kind, std::optional<int> command);
    void FaultsOff();
    std::vector<Fault> Faults() const;
    std::error_code Play(const Scenario& scenario);

    const Options& GetOptions() const { return m_Options; }
    uint16_t Port() const { return m_nPort; }
    size_t ClientCount() const { return m_nConnected; }
    uint64_t FramesReceived(uint8_t code) const { return m_Received[code]; }
    Statistics GetStatistics() const;

private:
    using tcp = boost::asio::ip::tcp;
    using ErrorCode = boost::system::error_code;
    using Connections = std::map<uint64_t, std::shared_ptr<Connection>>;
    using Clock = Agenda::Clock;

    static constexpr size_t kMaxPending = 4096;

    struct Counters {
        std::atomic<uint64_t> clients{0};
        std::atomic<uint64_t> clientsDropped{0};
        std::atomic<uint64_t> bytesReceived{0};
        std::atomic<uint64_t> framesReceived{0};
        std::atomic<uint64_t> framesSent{0};
        std::atomic<uint64_t> garbageBytes{0};
        std::atomic<uint64_t> unknownCommands{0};
    };

    ErrorCode Listen();
    void SetServing(bool serving);
    void Run();
    void Publish(const ReceiverState::Notes& notes);  // m_Mutex held
    template <typename Task>
    void Post(Task task);

    // I/O thread only, m_Mutex not held.
    void Accept();
    void OnAccepted(const ErrorCode& error, tcp::socket socket);
    void Adopt(tcp::socket socket);
    void Welcome(Connection& connection);
    void OnBytes(Connection& connection, const char* bytes, size_t size) override;
    bool OnFrames(Connection& connection) override;
    void Serve(Connection& connection, const Frame& frame);
    void FlushPending();
    void Broadcast(const ReceiverState::Notes& notes);
    void Broadcast(const Bytes& frame);
    void Deliver(Connection& connection, const Bytes& frame);
    void Observe(const Connection& connection, const Bytes& frame, const std::string& faults);
    void Close(Connection& connection, ClientChange change, Closing closing) override;
    void CloseAll();
    void UnmuteAll();
    void Resume();
    void Recover();
    void AwaitConfTimeout();
    void StartRepeating(uint64_t fault, Clock::time_point start);
    void Flood(uint64_t fault, Clock::time_point start, uint64_t batch, uint64_t sent);
    Clock::time_point NotTooLate(Clock::time_point planned) const;
    void AnswerUnasked(uint64_t fault, uint64_t round);

    // Constant after construction.
    const Options m_Options;
    const Observer m_Observer;
    ReceiverSimulator& m_Self;

    // Synchronise themselves.
    boost::asio::io_context m_Io{1};
    Counters m_Counters;
    std::array<std::atomic<uint64_t>, 256> m_Received{};
    std::atomic<size_t> m_nConnected{0};
    std::atomic<size_t> m_nMuted{0};

    // I/O thread; Start() while there is none.
    Agenda m_Agenda;
    Agenda::Ticket m_ConfTimeout;
    std::optional<ScenarioPlayer> m_Player;
    tcp::acceptor m_Acceptor;
    bool m_bAccepting = false;
    boost::asio::steady_timer m_AcceptTimer;
    Connections m_Connections;
    std::vector<std::weak_ptr<Connection>>
        m_Lingering;  // closed gracefully, waiting for the client
    uint64_t m_nNextClient = 1;
    int32_t m_nFlooded = 0;

    std::mutex m_StartStopMutex;  // taken before m_Mutex
    std::thread m_Thread;         // guarded by m_StartStopMutex
    std::atomic<uint16_t> m_nPort;

    mutable std::mutex m_Mutex;
    std::condition_variable m_Room;  // m_Pending was emptied
    // Guarded by m_Mutex.
    ReceiverState m_State;
    ReceiverState::Notes m_Pending;
    FaultTable m_Faults;
    Answers m_Answers;
    std::vector<uint64_t> m_ToRepeat;  // faults that were on when serving began
    bool m_bServing = false;
    bool m_bFlushPosted = false;
};

template <typename Change>
bool ReceiverSimulator::Impl::ChangeState(Change change) {
    const bool onIoThread = m_Io.get_executor().running_in_this_thread();
    std::unique_lock<std::mutex> lock(m_Mutex);
    if (!onIoThread)
        m_Room.wait(lock, [this] { return m_Pending.size() < kMaxPending; });
    ReceiverState::Notes notes;
    const bool done = change(m_State, notes);
    Publish(notes);
    return done;
}

template <typename Look>
auto ReceiverSimulator::Impl::LookAtState(Look look) const {
    std::lock_guard<std::mutex> lock(m_Mutex);
    return look(m_State);
}

template <typename Task>
void ReceiverSimulator::Impl::Post(Task task) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    if (m_bServing)
        boost::asio::post(m_Io, std::move(task));
}

}  // namespace simulator

#endif  // SIMULATOR_SIMULATORIMPL_H_
