#ifndef TESTS_SUPPORT_VIRTUALSLOT_H_
#define TESTS_SUPPORT_VIRTUALSLOT_H_

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <stdexcept>

namespace sr_test {

/// Slot of a virtual function in its class's table, from a pointer to it. Programs that were built
/// against the exported classes call by this number.
template <class Member>
size_t SlotOf(Member member) {
    struct {
        uintptr_t pointer;
        ptrdiff_t adjustment;
    } words;
    static_assert(sizeof words == sizeof member, "two words: table offset and this-adjustment");
    std::memcpy(&words, &member, sizeof words);
    // Virtual is marked in the pointer's low bit, on ARM in the adjustment's, for code there may
    // stand at odd addresses.
#if defined(__arm__) || defined(__aarch64__)
    const bool isVirtual = (words.adjustment & 1) != 0;
    const uintptr_t offset = words.pointer;
#else
    const bool isVirtual = (words.pointer & 1) != 0;
    const uintptr_t offset = words.pointer - 1;
#endif
    if (!isVirtual)
        throw std::invalid_argument("SlotOf: not virtual");
    return static_cast<size_t>(offset / sizeof(void*));
}

}  // namespace sr_test

#endif  // TESTS_SUPPORT_VIRTUALSLOT_H_
