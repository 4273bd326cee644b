#define _POSIX_C_SOURCE 200809L

#include <errno.h>
#include <stdint.h>

#include "ScreenReceiver/ScreenReceiver.h"
#include "tests/cabi/program.h"

/* usage: cabi_malloc HOST - lets each operator new of a request fail in turn, then each malloc of a
   list function. The receiver lists three senders in every selection. */

enum { kOutOfMemory = -12, kStarted = 5 };
enum { kSenders = 3, kBlocks = kSenders + 1, kMaxLive = 64 };

extern void* __libc_malloc(size_t size);
extern void __libc_free(void* block);

struct range {
    uintptr_t begin, end;
};

/* Calls out of the library itself are those of the list functions: they are the only code there that
   calls malloc by name, everything else goes through operator new, which calls out of the C++ runtime. */
static struct range s_library, s_runtime;
static volatile int s_armed;
static int s_failing; /* which call fails; 0 for none */
static int s_calls;
/* Volatile: the compiler takes it that free() changes nothing it could look at. */
static volatile int s_live;
static void* s_blocks[kMaxLive];

/* For the thread that makes the request: the others keep their memory. */
static __thread int t_armed;
static __thread int t_all;     /* whether those after the failing one fail, too */
static __thread int t_failing; /* which operator new fails */
static __thread int t_calls;

static int is_in(struct range range, uintptr_t address) {
    return address >= range.begin && address < range.end;
}

void* malloc(size_t size) {
    const uintptr_t caller = (uintptr_t)__builtin_return_address(0);
    void* block;
    if (t_armed && is_in(s_runtime, caller)) {
        ++t_calls;
        if (t_calls == t_failing || (t_all && t_calls > t_failing)) {
            errno = ENOMEM;
            return NULL;
        }
    }
    if (!s_armed || !is_in(s_library, caller))
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

static struct range find_mapping(const char* name) {
    struct range found = {0, 0};
    char line[4096];
    FILE* maps = fopen("/proc/self/maps", "r");
    CHECK(maps != NULL);
    while (fgets(line, sizeof line, maps) != NULL) {
        char* rest;
        uintptr_t begin, end;
        if (strstr(line, name) == NULL)
            continue;
        begin = (uintptr_t)strtoull(line, &rest, 16);
        end = (uintptr_t)strtoull(rest + 1, NULL, 16);
        if (found.begin == 0)
            found.begin = begin;
        found.end = end;
    }
    fclose(maps);
    CHECK(found.end > found.begin);
    return found;
}

static int start_playing(void) {
    return StartPlayImage(1, 1);
}

static ScreenSenderRecord* s_nothing[1];

static int list_senders(void) {
    ScreenSenderRecord** list = s_nothing;
    int i;
    const int count = GetSenderList(&list);
    t_armed = 0;
    CHECK((count == 0) == (list == s_nothing));
    if (count == 0)
        return 0;
    for (i = 0; i < count; ++i)
        free(list[i]);
    free(list);
    return count;
}

/* Lets the first operator new of the call fail, then the second, until there is none more. */
static void run_out_of_memory(int (*call)(void), int all, int failed, int succeeded) {
    int failing;
    for (failing = 1;; ++failing) {
        int result, calls;
        t_all = all;
        t_failing = failing;
        t_calls = 0;
        t_armed = 1;
        result = call();
        t_armed = 0;
        calls = t_calls;
        if (calls < failing) {
            CHECK(result == succeeded);
            CHECK(GetErrorCode() == (call == start_playing ? kStarted : 0));
            break;
        }
        CHECK(result == failed);
        CHECK(GetErrorCode() == kOutOfMemory);
    }
    /* Without this nothing was proved. */
    CHECK(failing > 1);
    /* The connection is in step. */
    CHECK(StopPlayImage(1) == 7);
}

int main(int argc, char** argv) {
    int (*const functions[])(ScreenSenderRecord***) = {GetSenderList, GetNonLocalSenderList,
                                                       GetValidSenderList};
    ScreenSenderRecord* nothing[1];
    size_t f;
    if (argc < 2)
        return 2;
    s_library = find_mapping("libScreenReceiver");
    s_runtime = find_mapping("libstdc++");
    CHECK(Init(argv[1], true) == 0);
    /* The first request of all needs memory that later ones find in place. */
    for (f = 0; f < 2; ++f) {
        run_out_of_memory(start_playing, (int)f, kOutOfMemory, kStarted);
        run_out_of_memory(list_senders, (int)f, 0, kSenders);
    }
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
            CHECK(GetErrorCode() == kOutOfMemory);
            CHECK(s_calls == s_failing);
            CHECK(list == nothing);
            CHECK(s_live == 0);
        }
        s_armed = 0;
    }
    return 0;
}
