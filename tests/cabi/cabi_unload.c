#define _POSIX_C_SOURCE 200809L

#include <dirent.h>
#include <dlfcn.h>
#include <pthread.h>

#include "ScreenReceiver/ScreenReceiver.h"
#include "tests/cabi/program.h"

/* usage: cabi_unload MODE LIBRARY CYCLES [HOST] - loads and unloads the library over and over.
   MODE: "unused" does nothing between, "main" and "worker" connect, make a request and take a
   notification, on the main thread or on a new thread that ends after the unload. */

enum { kSettled = 10 }; /* cycles until the C library has its caches */

static const char* s_library;
static const char* s_host;
static pthread_mutex_t s_mutex = PTHREAD_MUTEX_INITIALIZER;
static int s_events;

static int events(void) {
    int value;
    pthread_mutex_lock(&s_mutex);
    value = s_events;
    pthread_mutex_unlock(&s_mutex);
    return value;
}

static int count_event(int a, int b, int c) {
    (void)a, (void)b, (void)c;
    pthread_mutex_lock(&s_mutex);
    ++s_events;
    pthread_mutex_unlock(&s_mutex);
    return 0;
}

static int is_mapped(void) {
    char line[4096];
    int found = 0;
    FILE* maps = fopen("/proc/self/maps", "r");
    CHECK(maps != NULL);
    while (fgets(line, sizeof line, maps) != NULL)
        found = found || strstr(line, "libScreenReceiver") != NULL;
    fclose(maps);
    return found;
}

static int entries(const char* path) {
    int count = 0;
    DIR* directory = opendir(path);
    CHECK(directory != NULL);
    while (readdir(directory) != NULL)
        ++count;
    closedir(directory);
    return count;
}

static void find(void* library, const char* name, void* function, size_t size) {
    /* An object pointer is not a function pointer in C99; their representation is one here. */
    void* symbol = dlsym(library, name);
    CHECK(symbol != NULL);
    memcpy(function, &symbol, size);
}

static void use(void* library) {
    int (*init)(const char*, bool);
    int (*refresh)(void);
    int (*get_error_code)(void);
    void (*set_callback)(int (*)(int, int, int));
    const int before = events();
    find(library, "Init", &init, sizeof init);
    find(library, "RefreshConfCtrlTimer", &refresh, sizeof refresh);
    find(library, "GetErrorCode", &get_error_code, sizeof get_error_code);
    find(library, "SetScrRcvNotifyCB", &set_callback, sizeof set_callback);

    set_callback(count_event);
    CHECK(init(s_host, true) == 0);
    CHECK(refresh() == 0);
    CHECK(get_error_code() == 0);
    /* Two notifications follow the answer; unload while they are being delivered, too. */
    AWAIT(events() > before);
}

static void* cycle(void* used) {
    void* library = dlopen(s_library, RTLD_NOW | RTLD_LOCAL);
    if (library == NULL)
        fprintf(stderr, "%s\n", dlerror());
    CHECK(library != NULL);
    CHECK(is_mapped());
    if (used != NULL)
        use(library);
    CHECK(dlclose(library) == 0);
    CHECK(!is_mapped());
    return NULL;
}

int main(int argc, char** argv) {
    int i, cycles, threads = 0, descriptors = 0;
    if (argc < 4)
        return 2;
    s_library = argv[2];
    cycles = atoi(argv[3]);
    s_host = argc > 4 ? argv[4] : NULL;
    CHECK(!is_mapped());
    for (i = 0; i < cycles; ++i) {
        if (strcmp(argv[1], "worker") == 0) {
            pthread_t thread;
            CHECK(pthread_create(&thread, NULL, cycle, argv) == 0);
            CHECK(pthread_join(thread, NULL) == 0);
        } else {
            cycle(strcmp(argv[1], "main") == 0 ? argv : NULL);
        }
        if (i == kSettled) {
            threads = entries("/proc/self/task");
            descriptors = entries("/proc/self/fd");
        }
        if (i > kSettled) {
            /* A joined thread may take a moment to leave the table. */
            AWAIT(entries("/proc/self/task") <= threads);
            CHECK(entries("/proc/self/fd") == descriptors);
        }
    }
    return 0;
}
