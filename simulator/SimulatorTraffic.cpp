#include <algorithm>
#include <exception>

#include "simulator/SimulatorImpl.h"
#include "simulator/Wire.h"

namespace simulator {

namespace {

constexpr std::chrono::milliseconds kAcceptRetry(100);
constexpr int kFramesATurn = 8;

}  // namespace

void ReceiverSimulator::Impl::Accept() {
    m_Acceptor.async_accept([this](const ErrorCode& error, tcp::socket socket) {
        m_bAccepting = false;
        OnAccepted(error, std::move(socket));
    });
    m_bAccepting = true;
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
        if (m_Acceptor.is_open() && !m_bAccepting)
            Accept();
    });
}

void ReceiverSimulator::Impl::Adopt(tcp::socket socket) {
    // What changed before this client came is not for it.
    FlushPending();
    const auto connection = std::make_shared<Connection>(*this, m_Agenda, m_nNextClient++,
                                                         m_Options.seed, std::move(socket));
    m_Connections[connection->Id()] = connection;
    ++m_Counters.clients;
    ++m_nConnected;
    try {
        Welcome(*connection);
    } catch (const std::exception&) {
        Close(*connection, ClientChange::Failed, Closing::AtOnce);
    }
}

void ReceiverSimulator::Impl::Welcome(Connection& connection) {
    if (m_Observer.client)
        m_Observer.client(connection.Id(), ClientChange::Connected, connection.Peer());
    bool closes = false;
    bool mutes = false;
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        closes = m_Faults.TakesConnection(FaultKind::CloseOnAccept, connection.GetRandom());
        mutes = !closes && m_Faults.TakesConnection(FaultKind::NeverRead, connection.GetRandom());
        m_nMuted += mutes;
    }
    if (closes)
        Close(connection, ClientChange::Faulted, Closing::Gracefully);
    else if (mutes)
        connection.Mute();
    else
        connection.StartReading();
    if (m_Player)
        m_Player->OnClient();
}

void ReceiverSimulator::Impl::OnBytes(Connection& connection, const char* bytes, size_t size) {
    connection.Finder().Append(bytes, size);
    m_Counters.bytesReceived += size;
}

bool ReceiverSimulator::Impl::OnFrames(Connection& connection) {
    FrameFinder& finder = connection.Finder();
    for (int turn = 0; turn < kFramesATurn && connection.IsOpen(); ++turn) {
        std::optional<Frame> frame = finder.Next();
        const uint64_t skipped = finder.TakeSkipped();
        m_Counters.garbageBytes += skipped;
        if (skipped != 0 && m_Observer.garbage)
            m_Observer.garbage(connection.Id(), skipped);
        if (!frame)
            return false;
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
    return true;
}

void ReceiverSimulator::Impl::Serve(Connection& connection, const Frame& frame) {
    const Request request = DecodeRequest(frame);
    ReceiverState::Notes earlier;
    ReceiverState::Notes caused;
    Bytes answer;
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        earlier.swap(m_Pending);
        answer = m_Answers.Answer(request, connection.Id(), caused);
    }
    m_Room.notify_all();
    if (request.code == kRefreshConfCtrlTimer)
        AwaitConfTimeout();
    Broadcast(earlier);
    Deliver(connection, answer);
    Broadcast(caused);
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
    for (const Notification& note : notes)
        Broadcast(MakeFrame(kNotifyEvent, EncodeNotification(note)));
}

void ReceiverSimulator::Impl::Broadcast(const Bytes& frame) {
    for (auto it = m_Connections.begin(); it != m_Connections.end();) {
        // Delivering may close this one, which takes it off the list.
        const std::shared_ptr<Connection> connection = (it++)->second;
        Deliver(*connection, frame);
    }
}

void ReceiverSimulator::Impl::Deliver(Connection& connection, const Bytes& frame) {
    if (!connection.IsOpen())
        return;
    if (connection.Backlog() > m_Options.maxBacklog) {
        ++m_Counters.clientsDropped;
        Close(connection, ClientChange::BacklogDropped, Closing::AtOnce);
        return;
    }
    std::optional<Delivery> delivery;
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        delivery = m_Faults.Plan(frame, connection.GetRandom());
    }
    Observe(connection, frame, delivery ? delivery->faults : "");
    if (delivery && !delivery->sent)
        return;
    ++m_Counters.framesSent;
    if (delivery)
        connection.Send(std::move(*delivery));
    else
        connection.Send(frame);
}

void ReceiverSimulator::Impl::Observe(const Connection& connection,
                                      const Bytes& frame,
                                      const std::string& faults) {
    if (m_Observer.frame)
        m_Observer.frame({connection.Id(), false, CodeOf(*frame), PayloadOf(*frame), faults});
}

void ReceiverSimulator::Impl::Close(Connection& connection, ClientChange change, Closing closing) {
    if (!connection.IsOpen())
        return;
    const std::shared_ptr<Connection> kept = connection.shared_from_this();
    if (connection.IsMuted())
        --m_nMuted;
    m_Connections.erase(connection.Id());
    --m_nConnected;
    connection.Close(closing);
    if (closing != Closing::AtOnce) {
        const auto isGone = [](const std::weak_ptr<Connection>& one) { return one.expired(); };
        m_Lingering.erase(std::remove_if(m_Lingering.begin(), m_Lingering.end(), isGone),
                          m_Lingering.end());
        m_Lingering.push_back(kept);
    }
    if (m_Observer.client)
        m_Observer.client(connection.Id(), change, connection.Peer());
}

void ReceiverSimulator::Impl::CloseAll() {
    ErrorCode ignored;
    m_Acceptor.close(ignored);
    m_AcceptTimer.cancel();
    m_Agenda.Clear();
    while (!m_Connections.empty())
        Close(*m_Connections.begin()->second, ClientChange::Closed, Closing::AtOnce);
    for (const std::weak_ptr<Connection>& lingering : std::exchange(m_Lingering, {})) {
        if (const auto connection = lingering.lock())
            connection->Close(Closing::AtOnce);
    }
}

void ReceiverSimulator::Impl::UnmuteAll() {
    for (const auto& [id, connection] : m_Connections)
        connection->Unmute();
    m_nMuted = 0;
}

}  // namespace simulator
