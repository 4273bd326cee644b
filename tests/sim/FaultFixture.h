#ifndef TESTS_SIM_FAULTFIXTURE_H_
#define TESTS_SIM_FAULTFIXTURE_H_

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

#include "SimulatorFixture.h"

namespace sim_test {

using simulator::CutEnd;
using simulator::Fault;
using simulator::FaultKind;
using simulator::GarbagePlace;
using simulator::kEveryAnswer;
using simulator::kEveryFrame;
using simulator::kNotifications;
using std::chrono::milliseconds;

/// Longer than any test.
constexpr milliseconds kHour(3600000);

/// Long enough for what should not come to come on most machines: it can hide a mistake, never
/// invent one.
constexpr milliseconds kWhile(50);

inline Fault MakeFault(FaultKind kind, int command = kEveryAnswer, uint64_t count = 0) {
    Fault fault;
    fault.kind = kind;
    fault.command = command;
    fault.count = count;
    return fault;
}

inline Fault CutFault(int command, int64_t bytes, CutEnd end, milliseconds time = milliseconds(1)) {
    Fault fault = MakeFault(FaultKind::Cut, command);
    fault.bytes = bytes;
    fault.end = end;
    fault.time = time;
    return fault;
}

inline Fault TrickleFault(int command, int64_t bytes, milliseconds time) {
    Fault fault = MakeFault(FaultKind::Trickle, command);
    fault.bytes = bytes;
    fault.time = time;
    return fault;
}

inline Fault DelayFault(int command, milliseconds time) {
    Fault fault = MakeFault(FaultKind::Delay, command);
    fault.time = time;
    return fault;
}

inline Fault GarbageFault(int command, GarbagePlace place, int64_t bytes) {
    Fault fault = MakeFault(FaultKind::Garbage, command);
    fault.place = place;
    fault.bytes = bytes;
    return fault;
}

inline std::string WithCode(std::string frame, int code) {
    frame[7] = static_cast<char>(code);
    return frame;
}

class Stopwatch {
public:
    milliseconds Elapsed() const {
        return std::chrono::duration_cast<milliseconds>(Clock::now() - m_Start);
    }

private:
    using Clock = std::chrono::steady_clock;
    const Clock::time_point m_Start = Clock::now();
};

/// What a request with all-zero arguments gets from a receiver without senders.
struct Exchange {
    int command;
    const char* request;  // code, hex
    const char* answer;   // code, hex
    const char* payload;  // of the answer, hex
};

inline void PrintTo(const Exchange& exchange, std::ostream* stream) {
    *stream << "command " << exchange.command;
}

inline const std::vector<Exchange>& Exchanges() {
    static const std::vector<Exchange> kExchanges = {
        {16, "10", "11", ""},
        {18, "12", "13", "00 00 00 01"},
        {20, "14", "15", "00 00 00 01"},
        {22, "16", "17", ""},
        {24, "18", "19", ""},
        {26, "1A", "1B", ""},
        {28, "1C", "1D", ""},
        {30, "1E", "1F", "00 00 00 01"},
        {32, "20", "21", ""},
        {34, "22", "23", ""},
    };
    return kExchanges;
}

class FaultFixture : public SimulatorFixture {
protected:
    FaultFixture() {
        m_Observer.frame = [this](const simulator::Frame& frame) {
            if (frame.incoming)
                return;
            std::lock_guard<std::mutex> lock(m_SeenMutex);
            m_Seen[frame.code] = frame.faults;
        };
    }

    void On(const Fault& fault) { ASSERT_TRUE(m_pSim->FaultOn(fault)); }

    void Off(FaultKind kind) { ASSERT_TRUE(m_pSim->FaultOff(kind)); }

    /// The next that comes is the answer to this request.
    void ExpectServed(RawClient& client) {
        EXPECT_EQ(Frame32("23"), Ask(client, Frame32("22"), kFrameSize));
    }
    void ExpectServed() { ExpectServed(*m_pClient); }

    bool WaitForFaults(uint64_t count) {
        return WaitFor([&] { return m_pSim->GetStatistics().faultsDone >= count; });
    }

    /// What the observer was told about the latest frame with this command byte.
    std::string FaultsOf(uint8_t code) {
        std::lock_guard<std::mutex> lock(m_SeenMutex);
        const auto seen = m_Seen.find(code);
        return seen == m_Seen.end() ? "not seen" : seen->second;
    }

    const std::string m_strNotify = NotifyFrame("00 00 00 01 00 00 00 02 00 00 00 03");

    void Notify() { m_pSim->Notify(1, 2, 3); }

private:
    std::mutex m_SeenMutex;
    std::map<uint8_t, std::string> m_Seen;
};

}  // namespace sim_test

#endif  // TESTS_SIM_FAULTFIXTURE_H_
