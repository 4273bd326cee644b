#ifndef TESTS_SUPPORT_EMULATION_H_
#define TESTS_SUPPORT_EMULATION_H_

namespace sr_test {

/// The tests run in an emulator, on another machine than they are built for.
#ifdef SR_EMULATED
constexpr bool kEmulated = true;
#else
constexpr bool kEmulated = false;
#endif

}  // namespace sr_test

#endif  // TESTS_SUPPORT_EMULATION_H_
