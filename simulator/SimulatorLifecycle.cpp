#include <exception>

#include "simulator/SimulatorImpl.h"

namespace simulator {

namespace {

constexpr std::chrono::milliseconds kMemoryRetry(10);

}  // namespace

std::error_code ReceiverSimulator::Impl::Start() {
    std::lock_guard<std::mutex> startStop(m_StartStopMutex);
    if (m_Thread.joinable())
        return std::make_error_code(std::errc::operation_in_progress);
    ErrorCode ignored;
    if (const ErrorCode error = Listen()) {
        m_Acceptor.close(ignored);
        return error;
    }
    std::error_code failure;
    try {
        m_Io.restart();
        Accept();
        SetServing(true);
        m_Thread = std::thread([this] { Run(); });
        return failure;
    } catch (const std::system_error& error) {
        failure = error.code();
    } catch (const std::exception&) {
        failure = std::make_error_code(std::errc::not_enough_memory);
    }
    SetServing(false);
    CloseAll();
    m_Io.poll();  // lets the handlers of what was closed go
    return failure;
}

void ReceiverSimulator::Impl::SetServing(bool serving) {
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_bServing = serving;
        m_bFlushPosted = false;
        m_Pending.clear();
        if (serving)
            m_ToRepeat = m_Faults.Repeating();
    }
    m_Room.notify_all();
}

boost::system::error_code ReceiverSimulator::Impl::Listen() {
    ErrorCode error;
    const auto address = boost::asio::ip::make_address_v4(m_Options.address, error);
    if (error)
        return make_error_code(boost::system::errc::invalid_argument);
    const tcp::endpoint endpoint(address, m_Options.port);
    m_Acceptor.open(endpoint.protocol(), error);
    if (error)
        return error;
    CloseOnExec(m_Acceptor.native_handle());
    // Or a restarted simulator would wait for the old connections' last minute.
    m_Acceptor.set_option(tcp::acceptor::reuse_address(true), error);
    if (!error)
        m_Acceptor.bind(endpoint, error);
    if (!error)
        m_Acceptor.listen(boost::asio::socket_base::max_listen_connections, error);
    if (!error)
        m_nPort = m_Acceptor.local_endpoint(error).port();
    return error;
}

void ReceiverSimulator::Impl::Stop() {
    std::lock_guard<std::mutex> startStop(m_StartStopMutex);
    if (!m_Thread.joinable())
        return;
    SetServing(false);
    // Once all is closed nothing is left to do, and Run() ends by itself: no handler is left over.
    boost::asio::post(m_Io, [this] { CloseAll(); });
    m_Thread.join();
    m_Player.reset();
}

void ReceiverSimulator::Impl::Run() {
    for (bool resumed = false;;) {
        try {
            if (!std::exchange(resumed, true))
                Resume();
            else
                Recover();
            m_Io.run();
            return;
        } catch (const std::exception&) {
            // Memory ran out in one handler; the others go on.
            std::this_thread::sleep_for(kMemoryRetry);
        }
    }
}

void ReceiverSimulator::Impl::Publish(const ReceiverState::Notes& notes) {
    if (!m_bServing || notes.empty())
        return;
    m_Pending.insert(m_Pending.end(), notes.begin(), notes.end());
    if (!std::exchange(m_bFlushPosted, true))
        boost::asio::post(m_Io, [this] { FlushPending(); });
}

void ReceiverSimulator::Impl::DropClients() {
    Post([this] {
        while (!m_Connections.empty())
            Close(*m_Connections.begin()->second, ClientChange::Closed, Closing::Gracefully);
    });
}

bool ReceiverSimulator::Impl::FaultOn(const Fault& fault) {
    const bool onIoThread = m_Io.get_executor().running_in_this_thread();
    std::lock_guard<std::mutex> lock(m_Mutex);
    const std::optional<uint64_t> number = m_Faults.On(fault);
    if (number && m_bServing) {
        const Clock::time_point start = onIoThread ? m_Agenda.Now() : Clock::now();
        boost::asio::post(m_Io, [this, number, start] { StartRepeating(*number, start); });
    }
    return number.has_value();
}

bool ReceiverSimulator::Impl::FaultOff(FaultKind kind, std::optional<int> command) {
    bool wasOn = false;
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        wasOn = m_Faults.Off(kind, command);
    }
    // Also when its count has run out: the connections that it took are not read yet.
    if (kind == FaultKind::NeverRead) {
        wasOn = wasOn || m_nMuted > 0;
        Post([this] { UnmuteAll(); });
    }
    return wasOn;
}

void ReceiverSimulator::Impl::FaultsOff() {
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_Faults.AllOff();
    }
    Post([this] { UnmuteAll(); });
}

std::vector<Fault> ReceiverSimulator::Impl::Faults() const {
    std::lock_guard<std::mutex> lock(m_Mutex);
    return m_Faults.Active();
}

std::error_code ReceiverSimulator::Impl::Play(const Scenario& scenario) {
    std::lock_guard<std::mutex> startStop(m_StartStopMutex);
    if (m_Thread.joinable())
        return std::make_error_code(std::errc::operation_in_progress);
    m_Player.emplace(m_Agenda, m_Self, m_Observer, scenario, m_Options.seed,
                     [this] { FlushPending(); });
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_State = m_Player->FirstState();
    m_Answers.ForgetLists();
    return std::error_code();
}

Statistics ReceiverSimulator::Impl::GetStatistics() const {
    Statistics statistics;
    statistics.clients = m_Counters.clients;
    statistics.clientsDropped = m_Counters.clientsDropped;
    statistics.bytesReceived = m_Counters.bytesReceived;
    statistics.framesReceived = m_Counters.framesReceived;
    statistics.framesSent = m_Counters.framesSent;
    statistics.garbageBytes = m_Counters.garbageBytes;
    statistics.unknownCommands = m_Counters.unknownCommands;
    std::lock_guard<std::mutex> lock(m_Mutex);
    statistics.faultsDone = m_Faults.Done();
    return statistics;
}

}  // namespace simulator
