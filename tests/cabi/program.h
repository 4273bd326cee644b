#ifndef TESTS_CABI_PROGRAM_H_
#define TESTS_CABI_PROGRAM_H_

/* What the C programs of this folder share. */

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#define CHECK(condition)                                                                   \
    do {                                                                                   \
        if (!(condition)) {                                                                \
            fprintf(stderr, "%s:%d: does not hold: %s\n", __FILE__, __LINE__, #condition); \
            _Exit(1);                                                                      \
        }                                                                                  \
    } while (0)

static inline void sleep_ms(long ms) {
    struct timespec time;
    time.tv_sec = ms / 1000;
    time.tv_nsec = ms % 1000 * 1000000;
    nanosleep(&time, NULL);
}

/* Waits until the condition holds; fails after about 20 s. */
#define AWAIT(condition)                                           \
    do {                                                           \
        int looks_;                                                \
        for (looks_ = 0; !(condition) && looks_ < 20000; ++looks_) \
            sleep_ms(1);                                           \
        CHECK(condition);                                          \
    } while (0)

#endif /* TESTS_CABI_PROGRAM_H_ */
