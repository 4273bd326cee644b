#ifndef SIMULATOR_RECEIVERSTATE_H_
#define SIMULATOR_RECEIVERSTATE_H_

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <unordered_map>
#include <vector>

#include "simulator/ReceiverSimulator.h"
#include "simulator/Wire.h"

namespace simulator {

/**
 * What the receiver knows, and the rules by which it changes. No locks, no sockets, no clock: the
 * owner serialises the calls.
 *
 * Each change appends its notifications to `notes`; a call that changes nothing appends none.
 */
class ReceiverState {
public:
    using Notes = std::vector<Notification>;
    enum class Selection { All, NonLocal, Valid };

    bool Add(const Sender& sender, Notes& notes);
    bool Remove(int32_t key, Notes& notes);
    bool Change(int32_t key, const std::function<void(Sender&)>& change, Notes& notes);
    Result StartPlay(int32_t key, uint8_t option, Notes& notes);
    Result StopPlay(int32_t key, Notes& notes);
    void SetModerator(const Moderator& moderator, Notes& notes);
    void RefreshConfControl(uint64_t client, Notes& notes);
    void QuitConfControl(uint64_t client, Notes& notes);
    void ExpireConfControl(Notes& notes);

    /// As a list reports them: senders that are shown with their place on the screen.
    std::vector<Sender> Reported(Selection selection) const;
    /// With their own values.
    std::vector<Sender> Senders() const;
    std::optional<uint8_t> ShownOption(int32_t key) const;
    const Moderator& GetModerator() const { return m_Moderator; }
    /// The client that has it, 0 when none has.
    uint64_t ConfControlClient() const { return m_nConfClient; }
    /// Another one after each change of what lists report.
    uint64_t Version() const { return m_nVersion; }

private:
    struct Entry {
        Sender sender;
        std::optional<uint8_t> shown;  // the option
    };

    Entry* Find(int32_t key);
    void EndConfControl(ConfControlChange change, Notes& notes);
    const Entry* Find(int32_t key) const;

    std::map<uint64_t, Entry> m_Entries;              // by number of joining
    std::unordered_map<int32_t, uint64_t> m_Numbers;  // key to number of joining
    uint64_t m_nNextNumber = 0;
    Moderator m_Moderator;
    uint64_t m_nConfClient = 0;
    uint64_t m_nVersion = 0;
};

}  // namespace simulator

#endif  // SIMULATOR_RECEIVERSTATE_H_
