#define _POSIX_C_SOURCE 200809L

#include <errno.h>
#include <stdint.h>

#include "ScreenReceiver/ScreenReceiver.h"
#include "tests/cabi/program.h"

/* usage: cabi_malloc HOST - lets each malloc of a list function fail in turn. The receiver lists
   three senders in every selection. */

enum { kSenders = 3, kBlocks = kSenders + 1, kMaxLive = 64 };

extern void* __libc_malloc(size_t size);
extern void __libc_free(void* block);

/* Only calls out of the library itself count: the list functions are the only code there that calls
   malloc by name, everything else goes through the C++ runtime. */
static uintptr_t s_begin = 1, s_end;
static volatile int s_armed;
static int s_failing; /* which call fails; 0 for none */
static int s_calls;
static int s_live;
static void* s_blocks[kMaxLive];

void* malloc(size_t size) {
    const uintptr_t caller = (uintptr_t)__builtin_return_address(0);
    void* block;
    if (!s_armed || caller < s_begin || caller >= s_end)
        return __libc_malloc(size);
    if (++s_calls == s_failing) {
        errno = ENOMEM;
        return NULL;
    }
    block = __libc_malloc(size);
    if (s_live == kMaxLive)
        abort();
    s_blocks[s_live++] = block;
    return block;
}

void free(void* block) {
    int i;
    for (i = 0; block != NULL && s_armed && i < s_live; ++i) {
        if (s_blocks[i] == block) {
            s_blocks[i] = s_blocks[--s_live];
            break;
        }
    }
    __libc_free(block);
}

static void find_library(void) {
    char line[4096];
    FILE* maps = fopen("/proc/self/maps", "r");
    CHECK(maps != NULL);
    while (fgets(line, sizeof line, maps) != NULL) {
        char* rest;
        uintptr_t begin, end;
        if (strstr(line, "libScreenReceiver") == NULL)
            continue;
        begin = (uintptr_t)strtoull(line, &rest, 16);
        end = (uintptr_t)strtoull(rest + 1, NULL, 16);
        if (s_begin == 1)
            s_begin = begin;
        s_end = end;
    }
    fclose(maps);
    CHECK(s_end > s_begin);
}

int main(int argc, char** argv) {
    int (*const functions[])(ScreenSenderRecord***) = {GetSenderList, GetNonLocalSenderList,
                                                       GetValidSenderList};
    ScreenSenderRecord* nothing[1];
    size_t f;
    if (argc < 2)
        return 2;
    find_library();
    CHECK(Init(argv[1], true) == 0);
    for (f = 0; f < sizeof functions / sizeof functions[0]; ++f) {
        int i;
        ScreenSenderRecord** list = nothing;

        s_failing = 0;
        s_calls = 0;
        s_armed = 1;
        CHECK(functions[f](&list) == kSenders);
        /* Without these the rest would prove nothing. */
        CHECK(s_calls == kBlocks);
        CHECK(s_live == kBlocks);
        for (i = 0; i < kSenders; ++i)
            free(list[i]);
        free(list);
        CHECK(s_live == 0);

        for (s_failing = 1; s_failing <= kBlocks; ++s_failing) {
            list = nothing;
            s_calls = 0;
            CHECK(functions[f](&list) == 0);
            CHECK(s_calls == s_failing);
            CHECK(list == nothing);
            CHECK(s_live == 0);
        }
        s_armed = 0;
    }
    return 0;
}
