#ifndef TESKCLIENT_WIREFORMAT_H_
#define TESKCLIENT_WIREFORMAT_H_

#include <cstdint>
#include <string>

/**
 * The frame rule. A frame is
 *
 *     prefix (P bytes) | command byte | payload
 *
 * with no length field, no checksum and no terminator: the command byte fixes the payload's length.
 * Bytes in front of a prefix are dropped one at a time. Integers inside payloads are big-endian and
 * may stand at odd offsets, so they are read and written byte by byte. docs/protocol.md has the
 * payloads of every command.
 */
namespace wire {

// Sizes in bytes.
constexpr int kRequestPayload = 32;
constexpr int kReplyPayload = 32;
constexpr int kNotifyPayload = 12;
constexpr int kListHeader = 32;
constexpr int kShortRecord = 64;
constexpr int kLongRecord = 128;

enum class PrefixMatch {
    Command,     // an ordinary frame starts here
    Custom,      // a custom frame starts here
    Incomplete,  // fewer bytes than a prefix has: look again when more have come
    Garbage,     // the first byte belongs to no frame
};

/// Decides what the `got` bytes at the front of `bytes` are; `bytes` is one prefix long.
inline PrefixMatch MatchPrefix(const std::string& bytes,
                               int got,
                               const std::string& command,
                               const std::string& custom) {
    if (got < static_cast<int>(bytes.size()))
        return PrefixMatch::Incomplete;
    if (bytes == command)
        return PrefixMatch::Command;
    return bytes == custom ? PrefixMatch::Custom : PrefixMatch::Garbage;
}

inline uint32_t GetByte(const char* bytes) {
    return static_cast<unsigned char>(*bytes);
}

inline uint16_t GetU16(const char* bytes) {
    return static_cast<uint16_t>(GetByte(bytes) << 8 | GetByte(bytes + 1));
}

inline uint32_t GetU32(const char* bytes) {
    return GetByte(bytes) << 24 | GetByte(bytes + 1) << 16 | GetByte(bytes + 2) << 8 |
           GetByte(bytes + 3);
}

inline int32_t GetI32(const char* bytes) {
    return static_cast<int32_t>(GetU32(bytes));
}

inline void PutI32(char* bytes, int32_t value) {
    const uint32_t bits = static_cast<uint32_t>(value);
    bytes[0] = static_cast<char>(bits >> 24);
    bytes[1] = static_cast<char>(bits >> 16);
    bytes[2] = static_cast<char>(bits >> 8);
    bytes[3] = static_cast<char>(bits);
}

}  // namespace wire

#endif  // TESKCLIENT_WIREFORMAT_H_
