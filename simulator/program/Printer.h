#ifndef SIMULATOR_PROGRAM_PRINTER_H_
#define SIMULATOR_PROGRAM_PRINTER_H_

#include <cstdint>
#include <string>

#include "simulator/ReceiverSimulator.h"

namespace receiver_sim {

/**
 * What the program prints: lines for people, or a JSON object a line.
 *
 * Threads: any. A line is printed whole, and at once.
 */
class Printer {
public:
    /// `level`: how often -v was given.
    Printer(bool json, int level) : m_bJson(json), m_nLevel(level) {}

    /// The printer must outlive the simulator that has the observer.
    simulator::Observer MakeObserver() const;

    void Listening(const std::string& address, uint16_t port) const;
    /// To a command of standard input.
    void Answer(const std::string& answer) const;
    void Summary(const simulator::Statistics& statistics) const;

private:
    void Frame(const simulator::Frame& frame) const;
    void Client(uint64_t client, simulator::ClientChange change, const std::string& peer) const;
    void Garbage(uint64_t client, uint64_t bytes) const;
    void Timeline(const std::string& command, const std::string& answer) const;

    const bool m_bJson;
    const int m_nLevel;
};

}  // namespace receiver_sim

#endif  // SIMULATOR_PROGRAM_PRINTER_H_
