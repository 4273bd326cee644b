#ifndef CONTROLLER_WATCHMODEL_H_
#define CONTROLLER_WATCHMODEL_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "ScreenReceiver/ScreenSenderInfo.h"

namespace screenctl {

using WallTime = std::chrono::system_clock::time_point;

struct Change {
    enum class Kind { Joined, Left, Changed };
    Kind kind;
    ScreenSenderInfo sender;  // as it is now; one that has left: as it was
};

struct LinkState {
    bool connected = false;
    int code = 0;  // why it is not connected: the library's
    std::string message;
    std::chrono::milliseconds retry{0};            // the pause before the next try
    std::chrono::steady_clock::time_point next{};  // when that will be
};

/// The pauses between tries to connect: each twice as long as the one before, up to 10 s.
class RetryPause {
public:
    std::chrono::milliseconds Next();
    void Reset() { m_Next = kFirst; }

private:
    static constexpr std::chrono::milliseconds kFirst{500};
    static constexpr std::chrono::milliseconds kLongest{10000};

    std::chrono::milliseconds m_Next = kFirst;
};

struct LogEntry {
    WallTime time;
    std::string text;  // safe to print
};

/// What is known of the watched receiver. Knows nothing of connections and terminals.
class WatchModel {
public:
    static constexpr size_t kMaxLog = 500;

    /// Takes the newest list. Gives what has changed since the one before, in the order of the
    /// keys; nothing for the first.
    std::vector<Change> Update(std::vector<ScreenSenderInfo> senders, WallTime time);
    bool HasList() const { return m_bHasList; }
    /// False from the loss of the link until the next list: a key may be someone else's by now.
    bool IsListCurrent() const { return m_bListCurrent; }
    const std::vector<ScreenSenderInfo>& Senders() const { return m_Senders; }

    /// Chooses the sender so many rows further down (negative: up), not past the ends. When the
    /// chosen one has left: the one in its place.
    void Move(int rows);
    /// The row of the chosen sender. It is remembered by its key: while it is away none is chosen,
    /// so that nothing is done to the one that has moved up.
    std::optional<size_t> Chosen() const;

    /// Begins to ask whether the chosen sender shall be logged out. The question ends with the link,
    /// and when the sender leaves or its name or address changes: a yes is meant for the one that
    /// the user was shown.
    void AskLogout();
    void EndQuestion() { m_Asked.reset(); }
    /// None when nothing is asked.
    const std::optional<ScreenSenderInfo>& Asked() const { return m_Asked; }

    /// True when this is news: connected or not, or another reason.
    bool SetLink(const LinkState& link);
    /// None before the first attempt has ended.
    const std::optional<LinkState>& Link() const { return m_Link; }

    void SetAnswered(WallTime time) { m_Answered = time; }
    const std::optional<WallTime>& Answered() const { return m_Answered; }

    /// Keeps the last kMaxLog.
    void Log(WallTime time, const std::string& text);
    const std::deque<LogEntry>& Entries() const { return m_Entries; }

private:
    void Choose(size_t row);

    std::vector<ScreenSenderInfo> m_Senders;
    bool m_bHasList = false;
    bool m_bListCurrent = false;
    std::optional<int> m_nChosen;  // its key
    size_t m_nRow = 0;             // where it was last
    std::optional<ScreenSenderInfo> m_Asked;
    std::optional<LinkState> m_Link;
    std::optional<WallTime> m_Answered;
    std::deque<LogEntry> m_Entries;
};

}  // namespace screenctl

#endif  // CONTROLLER_WATCHMODEL_H_
