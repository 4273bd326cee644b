#include "simulator/ReceiverState.h"

#include <tuple>

namespace simulator {

namespace {

auto Fields(const Sender& s) {
    return std::tie(s.key, s.address, s.userName, s.status, s.splitScreen, s.osType, s.appType,
                    s.pointerInputType, s.local, s.valid);
}

bool IsSelected(const Sender& sender, ReceiverState::Selection selection) {
    switch (selection) {
        case ReceiverState::Selection::NonLocal:
            return !sender.local;
        case ReceiverState::Selection::Valid:
            return sender.valid;
        case ReceiverState::Selection::All:
            break;
    }
    return true;
}

}  // namespace

bool ReceiverState::Add(const Sender& sender, Notes& notes) {
    if (m_Entries.size() >= kMaxSenders || Find(sender.key) != nullptr)
        return false;
    m_Numbers[sender.key] = m_nNextNumber;
    m_Entries[m_nNextNumber++].sender = sender;
    ++m_nVersion;
    notes.push_back({kNotifySenderJoined, sender.key, sender.status});
    return true;
}

bool ReceiverState::Remove(int32_t key, Notes& notes) {
    if (Find(key) == nullptr)
        return false;
    StopPlay(key, notes);
    const auto number = m_Numbers.find(key);
    m_Entries.erase(number->second);
    m_Numbers.erase(number);
    ++m_nVersion;
    notes.push_back({kNotifySenderLeft, key, 0});
    return true;
}

bool ReceiverState::Change(int32_t key, const std::function<void(Sender&)>& change, Notes& notes) {
    Entry* entry = Find(key);
    if (entry == nullptr)
        return false;
    Sender sender = entry->sender;
    change(sender);
    sender.key = key;
    if (Fields(entry->sender) != Fields(sender)) {
        entry->sender = sender;
        ++m_nVersion;
        notes.push_back({kNotifySenderChanged, key, sender.status});
    }
    return true;
}

Result ReceiverState::StartPlay(int32_t key, uint8_t option, Notes& notes) {
    Entry* entry = Find(key);
    if (entry == nullptr)
        return kResultUnknownSender;
    if (entry->shown)
        return kResultAlreadyShown;
    if (!entry->sender.valid)
        return kResultNotValid;
    entry->shown = option;
    ++m_nVersion;
    notes.push_back({kNotifyShowStarted, key, option});
    return kResultOk;
}

Result ReceiverState::StopPlay(int32_t key, Notes& notes) {
    Entry* entry = Find(key);
    if (entry == nullptr)
        return kResultUnknownSender;
    if (!entry->shown)
        return kResultNotShown;
    entry->shown.reset();
    ++m_nVersion;
    notes.push_back({kNotifyShowStopped, key, 0});
    return kResultOk;
}

void ReceiverState::SetModerator(const Moderator& moderator, Notes& notes) {
    if (moderator.id == m_Moderator.id && moderator.flag == m_Moderator.flag)
        return;
    m_Moderator = moderator;
    notes.push_back({kNotifyModeratorChanged, moderator.id, moderator.flag});
}

void ReceiverState::RefreshConfControl(uint64_t client, Notes& notes) {
    if (client == m_nConfClient)
        return;
    m_nConfClient = client;
    notes.push_back({kNotifyConfControl, kConfControlTaken, static_cast<int32_t>(client)});
}

void ReceiverState::QuitConfControl(uint64_t client, Notes& notes) {
    if (client == m_nConfClient)
        EndConfControl(kConfControlLeft, notes);
}

void ReceiverState::ExpireConfControl(Notes& notes) {
    if (m_nConfClient != 0)
        EndConfControl(kConfControlExpired, notes);
}

void ReceiverState::EndConfControl(ConfControlChange change, Notes& notes) {
    notes.push_back({kNotifyConfControl, change, static_cast<int32_t>(m_nConfClient)});
    m_nConfClient = 0;
}

std::vector<Sender> ReceiverState::Reported(Selection selection) const {
    std::vector<Sender> senders;
    for (const auto& [number, entry] : m_Entries) {
        if (!IsSelected(entry.sender, selection))
            continue;
        senders.push_back(entry.sender);
        if (entry.shown) {
            senders.back().status = kStatusShown;
            senders.back().splitScreen = *entry.shown;
        }
    }
    return senders;
}

std::vector<Sender> ReceiverState::Senders() const {
    std::vector<Sender> senders;
    for (const auto& [number, entry] : m_Entries)
        senders.push_back(entry.sender);
    return senders;
}

std::optional<uint8_t> ReceiverState::ShownOption(int32_t key) const {
    const Entry* entry = Find(key);
    return entry == nullptr ? std::nullopt : entry->shown;
}

ReceiverState::Entry* ReceiverState::Find(int32_t key) {
    return const_cast<Entry*>(static_cast<const ReceiverState*>(this)->Find(key));
}

const ReceiverState::Entry* ReceiverState::Find(int32_t key) const {
    const auto number = m_Numbers.find(key);
    return number == m_Numbers.end() ? nullptr : &m_Entries.at(number->second);
}

}  // namespace simulator
