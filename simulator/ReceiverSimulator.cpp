#include "simulator/ReceiverSimulator.h"

#include <array>
#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <map>
#include <mutex>
#include <thread>
#include <utility>

#include "simulator/Connection.h"
#include "simulator/ReceiverState.h"
#include "simulator/Wire.h"

// One thread runs the io_context; sockets and connections are touched by it alone. The state is
// shared with the callers of the API and guarded by one mutex, which is never held while anything
// is sent or observed.
//
// The order of notifications is the order of the changes: a caller of the API changes the state and
// leaves its notifications in m_Pending under one lock; a request takes what is pending with the
// same lock under which it changes the state, sends that first, then its answer, then its own.
//
// Every byte for a client passes Connection::Send, every frame Impl::Deliver.

namespace simulator {

namespace {

using boost::asio::ip::tcp;
using ErrorCode = boost::system::error_code;

constexpr size_t kMaxPending = 4096;
constexpr std::chrono::milliseconds kAcceptRetry(100);

}  // namespace

class ReceiverSimulator::Impl final : public Connection::Owner {
public:
    Impl(Options options, Observer observer)
        : m_Options(std::move(options)),
          m_Observer(std::move(observer)),
          m_Acceptor(m_Io),
          m_AcceptTimer(m_Io),
          m_nPort(m_Options.port) {}

    std::error_code Start();
    void Stop();

    // Changes the state with `bool change(state, notes)` and has the notifications sent.
    template <typename Change>
    bool ChangeState(Change change);
    template <typename Look>
    auto LookAtState(Look look) const;
    void DropClients();

    const Options& GetOptions() const { return m_Options; }
    uint16_t Port() const { return m_nPort; }
    size_t ClientCount() const { return m_nConnected; }
    uint64_t FramesReceived(uint8_t code) const { return m_Received[code]; }
    Statistics GetStatistics() const;

private:
    using Connections = std::map<uint64_t, std::shared_ptr<Connection>>;

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

    // I/O thread only, m_Mutex not held.
    void Accept();
    void OnAccepted(const ErrorCode& error, tcp::socket socket);
    void Adopt(tcp::socket socket);
    void OnBytes(Connection& connection, const char* bytes, size_t size) override;
    void OnEnd(Connection& connection, ClientChange reason) override;
    void Serve(Connection& connection, const Frame& frame);
    void FlushPending();
    void Broadcast(const ReceiverState::Notes& notes);
    void Deliver(Connection& connection,
                 uint8_t code,
                 const std::string& payload,
                 const std::string& bytes);
    void Close(Connection& connection, ClientChange change);
    void CloseAll();

    std::string Answer(const Request& request, ReceiverState::Notes& notes);  // m_Mutex held

    // Constant after construction.
    const Options m_Options;
    const Observer m_Observer;

    // Synchronise themselves.
    boost::asio::io_context m_Io{1};
    Counters m_Counters;
    std::array<std::atomic<uint64_t>, 256> m_Received{};
    std::atomic<size_t> m_nConnected{0};

    // I/O thread; Start() while there is none.
    tcp::acceptor m_Acceptor;
    boost::asio::steady_timer m_AcceptTimer;
    Connections m_Connections;
    uint64_t m_nNextClient = 1;

    std::mutex m_StartStopMutex;  // taken before m_Mutex
    std::thread m_Thread;         // guarded by m_StartStopMutex
    std::atomic<uint16_t> m_nPort;

    mutable std::mutex m_Mutex;
    std::condition_variable m_Room;  // m_Pending was emptied
    // Guarded by m_Mutex.
    ReceiverState m_State;
    ReceiverState::Notes m_Pending;
    bool m_bServing = false;
    bool m_bFlushPosted = false;
};

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
        m_Pending.clear();
    }
    m_Room.notify_all();
}

ErrorCode ReceiverSimulator::Impl::Listen() {
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
}

void ReceiverSimulator::Impl::Run() {
    for (;;) {
        try {
            m_Io.run();
            return;
        } catch (const std::exception&) {
            // Memory ran out in one handler; the others go on.
        }
    }
}

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

void ReceiverSimulator::Impl::Publish(const ReceiverState::Notes& notes) {
    if (!m_bServing || notes.empty())
        return;
    m_Pending.insert(m_Pending.end(), notes.begin(), notes.end());
    if (!std::exchange(m_bFlushPosted, true))
        boost::asio::post(m_Io, [this] { FlushPending(); });
}

void ReceiverSimulator::Impl::DropClients() {
    std::lock_guard<std::mutex> lock(m_Mutex);
    if (!m_bServing)
        return;
    boost::asio::post(m_Io, [this] {
        while (!m_Connections.empty())
            Close(*m_Connections.begin()->second, ClientChange::Closed);
    });
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
    return statistics;
}

void ReceiverSimulator::Impl::Accept() {
    m_Acceptor.async_accept([this](const ErrorCode& error, tcp::socket socket) {
        OnAccepted(error, std::move(socket));
    });
}

void ReceiverSimulator::Impl::OnAccepted(const ErrorCode& error, tcp::socket socket) {
    if (!m_Acceptor.is_open())
        return;
    if (!error) {
        try {
            Adopt(std::move(socket));
        } catch (const std::exception&) {
            // This client is refused; the next one may fit.
        }
        Accept();
        return;
    }
    // Out of descriptors, most likely: that lasts, and trying again at once would spin.
    m_AcceptTimer.expires_after(kAcceptRetry);
    m_AcceptTimer.async_wait([this](const ErrorCode&) {
        if (m_Acceptor.is_open())
            Accept();
    });
}

void ReceiverSimulator::Impl::Adopt(tcp::socket socket) {
    // What changed before this client came is not for it.
    FlushPending();
    const auto connection = std::make_shared<Connection>(*this, m_nNextClient++, std::move(socket));
    m_Connections[connection->Id()] = connection;
    ++m_Counters.clients;
    ++m_nConnected;
    if (m_Observer.client)
        m_Observer.client(connection->Id(), ClientChange::Connected, connection->Peer());
    connection->StartReading();
}

void ReceiverSimulator::Impl::OnEnd(Connection& connection, ClientChange reason) {
    Close(connection, reason);
}

void ReceiverSimulator::Impl::OnBytes(Connection& connection, const char* bytes, size_t size) {
    FrameFinder& finder = connection.Finder();
    finder.Append(bytes, size);
    m_Counters.bytesReceived += size;
    while (connection.IsOpen()) {
        std::optional<Frame> frame = finder.Next();
        m_Counters.garbageBytes += finder.TakeSkipped();
        if (!frame)
            return;
        frame->client = connection.Id();
        ++m_Counters.framesReceived;
        ++m_Received[frame->code];
        if (m_Observer.frame)
            m_Observer.frame(*frame);
        if (IsRequest(frame->code))
            Serve(connection, *frame);
        else
            ++m_Counters.unknownCommands;
    }
}

void ReceiverSimulator::Impl::Serve(Connection& connection, const Frame& frame) {
    const Request request = DecodeRequest(frame);
    ReceiverState::Notes earlier;
    ReceiverState::Notes caused;
    std::string payload;
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        earlier.swap(m_Pending);
        payload = Answer(request, caused);
    }
    m_Room.notify_all();
    const uint8_t code = static_cast<uint8_t>(request.code + 1);
    Broadcast(earlier);
    Deliver(connection, code, payload, Assemble(code, payload));
    Broadcast(caused);
}

std::string ReceiverSimulator::Impl::Answer(const Request& request, ReceiverState::Notes& notes) {
    using Selection = ReceiverState::Selection;
    const auto list = [this](Selection selection) {
        return EncodeSenders(m_State.Reported(selection), m_Options.records);
    };
    switch (request.code) {
        case kGetSenderList:
            return list(Selection::All);
        case kGetNonLocalSenderList:
            return list(Selection::NonLocal);
        case kGetValidSenderList:
            return list(Selection::Valid);
        case kStartPlayImage:
            return EncodeResult(m_State.StartPlay(request.number, request.byte, notes));
        case kStopPlayImage:
            return EncodeResult(m_State.StopPlay(request.number, notes));
        case kForceSenderLogout:
            return EncodeResult(m_State.Remove(request.number, notes) ? kResultOk
                                                                      : kResultUnknownSender);
        case kGetModeratorInfo:
            return EncodeModerator(m_State.GetModerator());
        case kSetModeratorInfo:
            m_State.SetModerator({request.number, request.byte}, notes);
            return EncodeResult(kResultOk);
        case kRefreshConfCtrlTimer:
            m_State.SetConfControl(true, notes);
            break;
        case kQuitConfCtrl:
            m_State.SetConfControl(false, notes);
            break;
        default:
            break;
    }
    return EncodeReserved();
}

void ReceiverSimulator::Impl::FlushPending() {
    ReceiverState::Notes notes;
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_bFlushPosted = false;
        notes.swap(m_Pending);
    }
    m_Room.notify_all();
    Broadcast(notes);
}

void ReceiverSimulator::Impl::Broadcast(const ReceiverState::Notes& notes) {
    for (const Notification& note : notes) {
        const std::string payload = EncodeNotification(note);
        const std::string bytes = Assemble(kNotifyEvent, payload);
        for (auto it = m_Connections.begin(); it != m_Connections.end();) {
            // Delivering may close this one, which takes it off the list.
            const std::shared_ptr<Connection> connection = (it++)->second;
            Deliver(*connection, kNotifyEvent, payload, bytes);
        }
    }
}

void ReceiverSimulator::Impl::Deliver(Connection& connection,
                                      uint8_t code,
                                      const std::string& payload,
                                      const std::string& bytes) {
    if (!connection.IsOpen())
        return;
    if (connection.Backlog() > m_Options.maxBacklog) {
        ++m_Counters.clientsDropped;
        Close(connection, ClientChange::BacklogDropped);
        return;
    }
    ++m_Counters.framesSent;
    if (m_Observer.frame)
        m_Observer.frame({connection.Id(), false, code, payload});
    connection.Send(bytes);
}

void ReceiverSimulator::Impl::Close(Connection& connection, ClientChange change) {
    if (!connection.IsOpen())
        return;
    const std::shared_ptr<Connection> kept = connection.shared_from_this();
    connection.Close();
    m_Connections.erase(connection.Id());
    --m_nConnected;
    if (m_Observer.client)
        m_Observer.client(connection.Id(), change, connection.Peer());
}

void ReceiverSimulator::Impl::CloseAll() {
    ErrorCode ignored;
    m_Acceptor.close(ignored);
    m_AcceptTimer.cancel();
    while (!m_Connections.empty())
        Close(*m_Connections.begin()->second, ClientChange::Closed);
}

ReceiverSimulator::ReceiverSimulator(Options options, Observer observer)
    : m_pImpl(std::make_unique<Impl>(std::move(options), std::move(observer))) {}

ReceiverSimulator::~ReceiverSimulator() {
    Stop();
}

std::error_code ReceiverSimulator::Start() {
    return m_pImpl->Start();
}

void ReceiverSimulator::Stop() {
    m_pImpl->Stop();
}

const std::string& ReceiverSimulator::Address() const {
    return m_pImpl->GetOptions().address;
}

uint16_t ReceiverSimulator::Port() const {
    return m_pImpl->Port();
}

bool ReceiverSimulator::AddSender(const Sender& sender) {
    return m_pImpl->ChangeState([&](ReceiverState& state, ReceiverState::Notes& notes) {
        return state.Add(sender, notes);
    });
}

bool ReceiverSimulator::RemoveSender(int32_t key) {
    return m_pImpl->ChangeState([&](ReceiverState& state, ReceiverState::Notes& notes) {
        return state.Remove(key, notes);
    });
}

bool ReceiverSimulator::UpdateSender(const Sender& sender) {
    return m_pImpl->ChangeState([&](ReceiverState& state, ReceiverState::Notes& notes) {
        return state.Update(sender, notes);
    });
}

void ReceiverSimulator::SetModerator(const Moderator& moderator) {
    m_pImpl->ChangeState([&](ReceiverState& state, ReceiverState::Notes& notes) {
        state.SetModerator(moderator, notes);
        return true;
    });
}

void ReceiverSimulator::Notify(int32_t first, int32_t second, int32_t third) {
    m_pImpl->ChangeState([&](ReceiverState&, ReceiverState::Notes& notes) {
        notes.push_back({first, second, third});
        return true;
    });
}

void ReceiverSimulator::DropClients() {
    m_pImpl->DropClients();
}

std::vector<Sender> ReceiverSimulator::Senders() const {
    return m_pImpl->LookAtState([](const ReceiverState& state) { return state.Senders(); });
}

Moderator ReceiverSimulator::GetModerator() const {
    return m_pImpl->LookAtState([](const ReceiverState& state) { return state.GetModerator(); });
}

bool ReceiverSimulator::ConfControlHeld() const {
    return m_pImpl->LookAtState([](const ReceiverState& state) { return state.ConfControlHeld(); });
}

bool ReceiverSimulator::IsShown(int32_t key) const {
    return ShownOption(key).has_value();
}

std::optional<uint8_t> ReceiverSimulator::ShownOption(int32_t key) const {
    return m_pImpl->LookAtState([&](const ReceiverState& state) { return state.ShownOption(key); });
}

size_t ReceiverSimulator::ClientCount() const {
    return m_pImpl->ClientCount();
}

uint64_t ReceiverSimulator::FramesReceived(uint8_t code) const {
    return m_pImpl->FramesReceived(code);
}

Statistics ReceiverSimulator::GetStatistics() const {
    return m_pImpl->GetStatistics();
}

}  // namespace simulator
