#ifndef TESTS_CABI_RECEIVERANSWERS_H_
#define TESTS_CABI_RECEIVERANSWERS_H_

#include "tests/cabi/AnsweringPeer.h"
#include "tests/cabi/ChildProcess.h"
#include "tests/support/ScriptedPeer.h"

namespace sr_test {

/// A receiver with three senders that answers every command; the programs know these values.
inline AnsweringPeer::Script AllAnswers() {
    const auto frame = [](const std::string& hex) { return Padded(Hex(hex), 40); };
    const std::string ann =
        Padded(Hex("01 02 03 04 c0 a8 00 11") + Padded("Ann", 48) + Hex("00 05 02"), 64);
    const std::string bob =
        Padded(Hex("ff ff ff ff 0a 00 00 01") + Padded("Bob", 48) + Hex("ff fe ff"), 64);
    const std::string nobody = Padded(Hex("00 00 00 03"), 64);
    const std::string carl =
        Padded(Hex("00 00 01 00 ff ff ff ff") +
                   Padded("Conference room 4, second floor, left side, PC1", 48) +
                   Hex("12 34 56 78 9a bc de f0 12"),
               128);

    AnsweringPeer::Script script;
    script.answers[16] = frame("52 65 63 76 49 50 43 11 00 03 00") + ann + bob + nobody;
    script.answers[26] = frame("52 65 63 76 49 50 43 1b 00 01 01") + carl;
    script.answers[28] = frame("52 65 63 76 49 50 43 1d 00 00 00");
    script.answers[18] = frame("52 65 63 76 49 50 43 13 00 00 00 05");
    script.answers[20] = frame("52 65 63 76 49 50 43 15 00 00 00 07");
    script.answers[30] = frame("52 65 63 76 49 50 43 1f 00 00 00 2a");
    script.answers[32] = frame("52 65 63 76 49 50 43 21 00 00 01 00 05");
    script.answers[34] = frame("52 65 63 76 49 50 43 23 ff ff ff ff");
    script.answers[22] = frame("52 65 63 76 49 50 43 17") +
                         Hex("52 65 63 76 49 50 43 24 00 00 00 01 ff ff ff ff 00 00 01 00"
                             "52 65 63 76 49 50 43 24 80 00 00 00 7f ff ff ff 00 00 00 02");
    script.answers[24] = frame("52 65 63 76 49 50 43 19");
    return script;
}

}  // namespace sr_test

#endif  // TESTS_CABI_RECEIVERANSWERS_H_
