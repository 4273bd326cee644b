#ifndef SIMULATOR_FAULTTABLE_H_
#define SIMULATOR_FAULTTABLE_H_

#include <chrono>
#include <cstdint>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "simulator/Delivery.h"
#include "simulator/ReceiverSimulator.h"

namespace simulator {

/// Its sequence is the same with every compiler.
using Random = std::mt19937_64;

// The most that a fault may have of each.
constexpr std::chrono::hours kMaxFaultTime(24);
constexpr int64_t kMaxFaultBytes = int64_t{1} << 30;
constexpr int64_t kMaxGarbage = int64_t{1} << 20;
constexpr uint32_t kMaxFloodRate = 1000000;

bool CanBe(const Fault& fault);

/// As commands and scenarios call it, e.g. "wrong-code".
const char* FaultName(FaultKind kind);

/**
 * The faults that are on, and what they do to a frame. Pure: no sockets, no clock, no locks; the
 * owner serialises the calls.
 *
 * On a frame the kinds act in this order: Silent, FalseCount, OpenName, WrongCode, Twice, Garbage,
 * Cut, Trickle, Delay.
 */
class FaultTable {
public:
    /// A number for Repeat(); nothing for a fault that cannot be.
    std::optional<uint64_t> On(Fault fault);
    bool Off(FaultKind kind, std::optional<int> command);
    void AllOff() { m_Entries.clear(); }
    std::vector<Fault> Active() const;
    /// Numbers of the faults that act by themselves: Unasked and Flood.
    std::vector<uint64_t> Repeating() const;
    uint64_t Done() const { return m_nDone; }

    /// Nothing when no fault touches the frame.
    std::optional<Delivery> Plan(const Bytes& frame, Random& random);

    /// Whether CloseOnAccept or NeverRead is for this connection.
    bool TakesConnection(FaultKind kind, Random& random);

    /// Uses up to `wanted` of what is left of a repeating fault; nothing when it is off.
    std::optional<Fault> Repeat(uint64_t number, uint64_t& wanted);

private:
    struct Entry {
        uint64_t number;
        Fault fault;
    };

    std::optional<Fault> Take(FaultKind kind, std::optional<uint8_t> code, Random& random);
    void Use(std::vector<Entry>::iterator entry, uint64_t times);

    std::vector<Entry> m_Entries;
    uint64_t m_nNextNumber = 0;
    uint64_t m_nDone = 0;
};

}  // namespace simulator

#endif  // SIMULATOR_FAULTTABLE_H_
