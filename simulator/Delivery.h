#ifndef SIMULATOR_DELIVERY_H_
#define SIMULATOR_DELIVERY_H_

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace simulator {

/// Bytes that may wait for many clients at once.
using Bytes = std::shared_ptr<const std::string>;

/// How a connection ends: at once; so that the client gets all that was sent; with an RST.
enum class Closing { AtOnce, Gracefully, Reset };

enum class PieceEnd { GoOn, Close, Reset };

/// Part of what is sent to one client, and what happens after it.
struct Piece {
    Bytes bytes;
    size_t chunk = 0;                    // sent so many bytes at a time; 0: all
    std::chrono::milliseconds pause{0};  // after each chunk
    PieceEnd end = PieceEnd::GoOn;
};

/// What faults have made of a frame.
struct Delivery {
    std::string faults;  // their names
    bool sent = true;
    std::chrono::milliseconds delay{0};  // of all pieces; others may go first
    std::vector<Piece> pieces;
};

}  // namespace simulator

#endif  // SIMULATOR_DELIVERY_H_
