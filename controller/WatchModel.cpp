#include "controller/WatchModel.h"

#include <algorithm>
#include <string_view>
#include <tuple>
#include <utility>

namespace screenctl {

namespace {

using SenderList = std::vector<ScreenSenderInfo>;

auto ValuesOf(const ScreenSenderInfo& sender) {
    return std::make_tuple(sender.GetPrimaryKey(), sender.GetIpAddress(),
                           std::string_view(sender.GetUserName()), sender.GetStatus(),
                           sender.GetSplitScreen(), sender.GetOSType(), sender.GetAppType(),
                           sender.GetPointInputType());
}

SenderList ByKey(SenderList senders) {
    std::stable_sort(senders.begin(), senders.end(),
                     [](const ScreenSenderInfo& left, const ScreenSenderInfo& right) {
                         return left.GetPrimaryKey() < right.GetPrimaryKey();
                     });
    return senders;
}

bool IsThere(const ScreenSenderInfo& wanted, const SenderList& senders) {
    const auto isSame = [&wanted](const ScreenSenderInfo& sender) {
        return sender.GetPrimaryKey() == wanted.GetPrimaryKey() &&
               sender.GetIpAddress() == wanted.GetIpAddress() &&
               std::string_view(sender.GetUserName()) == wanted.GetUserName();
    };
    return std::any_of(senders.begin(), senders.end(), isSame);
}

// A key may come more than once in a list: the first is compared with the first.
std::vector<Change> Compare(const SenderList& before, const SenderList& after) {
    std::vector<Change> changes;
    auto old = before.begin();
    auto now = after.begin();
    while (old != before.end() || now != after.end()) {
        const bool isLeft = now == after.end() ||
                            (old != before.end() && old->GetPrimaryKey() < now->GetPrimaryKey());
        if (isLeft) {
            changes.push_back({Change::Kind::Left, *old++});
        } else if (old == before.end() || now->GetPrimaryKey() < old->GetPrimaryKey()) {
            changes.push_back({Change::Kind::Joined, *now++});
        } else {
            if (ValuesOf(*old) != ValuesOf(*now))
                changes.push_back({Change::Kind::Changed, *now});
            ++old;
            ++now;
        }
    }
    return changes;
}

}  // namespace

std::chrono::milliseconds RetryPause::Next() {
    const auto pause = m_Next;
    m_Next = std::min(pause * 2, kLongest);
    return pause;
}

std::vector<Change> WatchModel::Update(SenderList senders, WallTime time) {
    std::vector<Change> changes;
    if (m_bHasList)
        changes = Compare(ByKey(m_Senders), ByKey(senders));
    m_bHasList = true;
    m_bListCurrent = true;
    m_Answered = time;
    m_Senders = std::move(senders);
    if (m_Asked && !IsThere(*m_Asked, m_Senders))
        EndQuestion();
    if (!m_nChosen)
        Choose(0);
    else if (const std::optional<size_t> row = Chosen())
        m_nRow = *row;
    return changes;
}

void WatchModel::Move(int rows) {
    const std::optional<size_t> row = Chosen();
    const auto target = static_cast<int64_t>(m_nRow) + (row ? rows : 0);
    Choose(static_cast<size_t>(std::max<int64_t>(target, 0)));
}

std::optional<size_t> WatchModel::Chosen() const {
    const auto isChosen = [this](const ScreenSenderInfo& sender) {
        return sender.GetPrimaryKey() == m_nChosen;
    };
    const auto found = std::find_if(m_Senders.begin(), m_Senders.end(), isChosen);
    if (found == m_Senders.end())
        return std::nullopt;
    return static_cast<size_t>(found - m_Senders.begin());
}

void WatchModel::Choose(size_t row) {
    if (m_Senders.empty())
        return;
    m_nRow = std::min(row, m_Senders.size() - 1);
    m_nChosen = m_Senders[m_nRow].GetPrimaryKey();
}

void WatchModel::AskLogout() {
    if (const std::optional<size_t> row = Chosen())
        m_Asked = m_Senders[*row];
}

bool WatchModel::SetLink(const LinkState& link) {
    const bool isNews = !m_Link || m_Link->connected != link.connected || m_Link->code != link.code;
    m_Link = link;
    if (!link.connected) {
        m_bListCurrent = false;
        EndQuestion();
    }
    return isNews;
}

void WatchModel::Log(WallTime time, const std::string& text) {
    m_Entries.push_back({time, text});
    if (m_Entries.size() > kMaxLog)
        m_Entries.pop_front();
}

}  // namespace screenctl
