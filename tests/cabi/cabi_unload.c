#define _POSIX_C_SOURCE 200809L

#include <dirent.h>
#include <pthread.h>

#include "ScreenReceiver/ScreenReceiver.h"
#include "tests/cabi/loading.h"

/* usage: cabi_unload THREAD USE LIBRARY CYCLES [HOST] - loads and unloads the library over and over.
   THREAD: "main", or "worker" for a new thread that ends after the unload.
   USE, what is done between: "nothing", "init" connects only, "everything" connects, makes a request
   and takes a notification. */

enum { kSettled = 10 }; /* cycles until the C library has its caches */

static const char* s_use;
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

static void use(void* library) {
    int (*init)(const char*, bool);
    int (*refresh)(void);
    int (*get_error_code)(void);
    void (*set_callback)(int (*)(int, int, int));
    const int before = events();
    find(library, "Init", &init, sizeof init);
    if (strcmp(s_use, "init") == 0) {
        CHECK(init(s_host, true) == 0);
        return;
    }
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

static void* cycle(void* unused) {
    void* library = load(s_library);
    (void)unused;
    CHECK(is_mapped());
    if (strcmp(s_use, "nothing") != 0)
        use(library);
    CHECK(dlclose(library) == 0);
    CHECK(!is_mapped());
    return NULL;
}

int main(int argc, char** argv) {
    int i, cycles, threads = 0, descriptors = 0;
    if (argc < 5)
        return 2;
    s_use = argv[2];
    s_library = argv[3];
    cycles = atoi(argv[4]);
    s_host = argc > 5 ? argv[5] : NULL;
    CHECK(!is_mapped());
    for (i = 0; i < cycles; ++i) {
        if (strcmp(argv[1], "worker") == 0) {
            pthread_t thread;
            CHECK(pthread_create(&thread, NULL, cycle, NULL) == 0);
            CHECK(pthread_join(thread, NULL) == 0);
        } else {
            cycle(NULL);
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
