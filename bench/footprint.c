#define _GNU_SOURCE

#include <dlfcn.h>
#include <fcntl.h>
#include <inttypes.h>
#include <link.h>
#include <malloc.h>
#include <pthread.h>
#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "ScreenReceiver/ScreenReceiver.h"

/* What the library costs its process in private memory: footprint LIBRARY HOST

   Counts the process's private pages before the library is loaded, after, and after Init() and a
   list. Private are those that no file holds: they were written to and cannot be dropped. Works under
   qemu-user, too: there, smaps and pagemap are those of the host, for which the pages of the
   emulated process are pages like any other, at a constant distance. */

#define MAX_THREADS 16

enum { kStageCount = 3 }; /* before, loaded, connected */

enum Group { kLibrary, kBoost, kStandardLibrary, kStacks, kOther, kGroupCount };
static const char* const kGroups[] = {"libScreenReceiver", "libboost_*",
                                      "libstdc++, libgcc_s, libm", "stacks of its threads",
                                      "heap, libc, other"};

struct Figures {
    unsigned long private_kib[kGroupCount];
    unsigned long sum_kib;
    unsigned long heap_bytes;
    unsigned long address_space_kib;
};

struct Stack {
    uintptr_t low;
    size_t size;
};

static struct Stack s_stacks[MAX_THREADS];
static int s_stack_count;
static pthread_mutex_t s_mutex = PTHREAD_MUTEX_INITIALIZER;

static void fail(const char* what) {
    fprintf(stderr, "footprint: %s\n", what);
    exit(1);
}

static void check(bool holds, const char* what) {
    if (!holds)
        fail(what);
}

/* ---- the library's threads: it finds this pthread_create before the C library's ---- */

struct Start {
    void* (*run)(void*);
    void* argument;
};

static void note_own_stack(void) {
    pthread_attr_t attributes;
    void* low;
    size_t size;
    pthread_getattr_np(pthread_self(), &attributes);
    pthread_attr_getstack(&attributes, &low, &size);
    pthread_attr_destroy(&attributes);
    pthread_mutex_lock(&s_mutex);
    check(s_stack_count < MAX_THREADS, "more threads than expected");
    s_stacks[s_stack_count].low = (uintptr_t)low;
    s_stacks[s_stack_count].size = size;
    ++s_stack_count;
    pthread_mutex_unlock(&s_mutex);
}

static void* begin(void* argument) {
    const struct Start start = *(struct Start*)argument;
    free(argument);
    note_own_stack();
    return start.run(start.argument);
}

int pthread_create(pthread_t* thread,
                   const pthread_attr_t* attributes,
                   void* (*run)(void*),
                   void* argument) {
    int (*original)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    void* symbol = dlsym(RTLD_NEXT, "pthread_create");
    struct Start* start = malloc(sizeof *start);
    check(symbol != NULL && start != NULL, "pthread_create");
    memcpy(&original, &symbol, sizeof original);
    start->run = run;
    start->argument = argument;
    return original(thread, attributes, begin, start);
}

/* ---- pages ---- */

/* The first mapping of the file, as `path` lists it. */
static uint64_t first_mapping(const char* path, const char* file) {
    char line[4096];
    uint64_t low = 0;
    FILE* maps = fopen(path, "r");
    check(maps != NULL, path);
    while (low == 0 && fgets(line, sizeof line, maps) != NULL)
        if (strstr(line, file) != NULL)
            sscanf(line, "%" SCNx64, &low);
    fclose(maps);
    check(low != 0, "does not find itself among its own mappings");
    return low;
}

/* Where the pages of this process are for the kernel: 0, unless it is emulated. */
static uint64_t s_base;

static bool is_own(uint64_t low) {
    return s_base == 0 || (low >= s_base && low - s_base <= UINT32_MAX);
}

static unsigned long sum_of_private(void) {
    char line[4096];
    uint64_t low, high;
    unsigned long kib, sum = 0;
    bool own = false;
    FILE* smaps = fopen("/proc/self/smaps", "r");
    check(smaps != NULL, "/proc/self/smaps");
    while (fgets(line, sizeof line, smaps) != NULL) {
        if (sscanf(line, "%" SCNx64 "-%" SCNx64, &low, &high) == 2)
            own = is_own(low);
        else if (own && sscanf(line, "Anonymous: %lu", &kib) == 1)
            sum += kib;
    }
    fclose(smaps);
    return sum;
}

static unsigned long address_space(void) {
    char line[4096];
    uint64_t low, high, sum = 0;
    FILE* maps = fopen("/proc/self/maps", "r");
    check(maps != NULL, "/proc/self/maps");
    while (fgets(line, sizeof line, maps) != NULL)
        if (sscanf(line, "%" SCNx64 "-%" SCNx64, &low, &high) == 2)
            sum += high - low;
    fclose(maps);
    return (unsigned long)(sum / 1024);
}

static unsigned long private_kib(uintptr_t from, size_t size) {
    const uint64_t page_size = (uint64_t)sysconf(_SC_PAGESIZE);
    const uint64_t present = (uint64_t)1 << 63, of_a_file = (uint64_t)1 << 61;
    unsigned long pages = 0;
    uint64_t page, entry;
    const int map = open("/proc/self/pagemap", O_RDONLY | O_CLOEXEC);
    check(map >= 0, "/proc/self/pagemap");
    for (page = (s_base + from) / page_size; page * page_size < s_base + from + size; ++page) {
        check(pread64(map, &entry, sizeof entry, (off64_t)(page * sizeof entry)) ==
                  (ssize_t)sizeof entry,
              "/proc/self/pagemap");
        pages += (entry & present) != 0 && (entry & of_a_file) == 0;
    }
    close(map);
    return (unsigned long)(pages * page_size / 1024);
}

static enum Group group_of(const char* module) {
    if (strstr(module, "libScreenReceiver") != NULL)
        return kLibrary;
    if (strstr(module, "libboost_") != NULL)
        return kBoost;
    if (strstr(module, "libstdc++") != NULL || strstr(module, "libgcc_s") != NULL ||
        strstr(module, "libm.so") != NULL)
        return kStandardLibrary;
    return kOther;
}

/* Code and constants are the file's; what is written to, .bss included, is a segment of its own. */
static int count_module(struct dl_phdr_info* module, size_t size, void* figures) {
    const enum Group group = group_of(module->dlpi_name);
    int i;
    (void)size;
    for (i = 0; group != kOther && i < module->dlpi_phnum; ++i)
        if (module->dlpi_phdr[i].p_type == PT_LOAD)
            ((struct Figures*)figures)->private_kib[group] += private_kib(
                module->dlpi_addr + module->dlpi_phdr[i].p_vaddr, module->dlpi_phdr[i].p_memsz);
    return 0;
}

static void measure(struct Figures* figures) {
    unsigned long known = 0;
    int i;
    memset(figures, 0, sizeof *figures);
    dl_iterate_phdr(count_module, figures);
    pthread_mutex_lock(&s_mutex);
    for (i = 0; i < s_stack_count; ++i)
        figures->private_kib[kStacks] += private_kib(s_stacks[i].low, s_stacks[i].size);
    pthread_mutex_unlock(&s_mutex);
    for (i = 0; i < kOther; ++i)
        known += figures->private_kib[i];
    figures->sum_kib = sum_of_private();
    check(figures->sum_kib > known, "the system does not tell which pages are private");
    figures->private_kib[kOther] = figures->sum_kib - known;
    figures->heap_bytes = (unsigned long)mallinfo2().uordblks;
    figures->address_space_kib = address_space();
}

/* ---- the library ---- */

static void* load(const char* path) {
    void* library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    check(library != NULL, "the library cannot be loaded");
    return library;
}

static void find(void* library, const char* name, void* function, size_t size) {
    void* symbol = dlsym(library, name);
    check(symbol != NULL, name);
    memcpy(function, &symbol, size);
}

static int connect_and_list(void* library, const char* host) {
    int (*init)(const char*, bool);
    int (*get_sender_list)(ScreenSenderRecord***);
    ScreenSenderRecord** senders;
    int count, i;
    find(library, "Init", &init, sizeof init);
    find(library, "GetSenderList", &get_sender_list, sizeof get_sender_list);
    check(init(host, false) == 0, "Init() failed");
    count = get_sender_list(&senders);
    check(count > 0, "no senders");
    for (i = 0; i < count; ++i)
        free(senders[i]);
    free(senders);
    return count;
}

static void print_row(const char* name, const unsigned long* first) {
    const size_t distance = sizeof(struct Figures) / sizeof *first;
    printf("%-28s%12lu%12lu%12lu\n", name, first[0], first[distance], first[2 * distance]);
}

static void print(const struct Figures stages[], int count) {
    int i;
    printf("%-28s%12s%12s%12s\n", "private memory, KiB", "before", "loaded", "connected");
    for (i = 0; i < kGroupCount; ++i)
        print_row(kGroups[i], &stages[0].private_kib[i]);
    print_row("sum", &stages[0].sum_kib);
    print_row("heap in use, bytes", &stages[0].heap_bytes);
    print_row("address space, KiB", &stages[0].address_space_kib);
    printf("connected, with a list of %d senders, and threads:\n", count);
    for (i = 0; i < s_stack_count; ++i)
        printf("  stack of %lu KiB, touched %lu KiB\n", (unsigned long)s_stacks[i].size / 1024,
               private_kib(s_stacks[i].low, s_stacks[i].size));
}

int main(int argc, char** argv) {
    struct Figures stages[kStageCount];
    const char* slash = strrchr(argv[0], '/');
    const char* own_name = slash == NULL ? argv[0] : slash + 1;
    void* library;
    int count;
    check(argc == 3, "usage: footprint LIBRARY HOST");

    s_base =
        first_mapping("/proc/self/smaps", own_name) - first_mapping("/proc/self/maps", own_name);
    measure(&stages[0]); /* once in vain, for what this program itself allocates */
    measure(&stages[0]);
    library = load(argv[1]);
    measure(&stages[1]);
    count = connect_and_list(library, argv[2]);
    sleep(1); /* until the threads have come to rest */
    measure(&stages[2]);
    print(stages, count);
    return 0;
}
