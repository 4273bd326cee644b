#define _POSIX_C_SOURCE 200809L

#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "ScreenReceiver/ScreenReceiver.h"
#include "tests/cabi/program.h"

/* usage: cabi_exit MODE [HOST] - ends in the middle of something, with this exit code: */
enum { kExitCode = 7 };

/* What the modes are about looks wrong to the sanitizers: exit() in a signal handler, threads that
   nobody joins. Each exit would take a second, to let the other threads run. The search for leaks
   would wait for an allocator that the signal interrupted. */
const char* __tsan_default_options(void);
const char* __asan_default_options(void);
const char* __tsan_default_options(void) {
    return "report_signal_unsafe=0 report_thread_leaks=0 atexit_sleep_ms=20";
}
const char* __asan_default_options(void) {
    return "detect_leaks=0";
}

static pthread_mutex_t s_mutex = PTHREAD_MUTEX_INITIALIZER;
static int s_count;

static void count(void) {
    pthread_mutex_lock(&s_mutex);
    ++s_count;
    pthread_mutex_unlock(&s_mutex);
}

static int counted(void) {
    int value;
    pthread_mutex_lock(&s_mutex);
    value = s_count;
    pthread_mutex_unlock(&s_mutex);
    return value;
}

static int count_event(int a, int b, int c) {
    (void)a, (void)b, (void)c;
    count();
    return 0;
}

static int exit_on_event(int a, int b, int c) {
    (void)a, (void)b, (void)c;
    exit(kExitCode);
}

static void exit_on_signal(int signal_number) {
    (void)signal_number;
    exit(kExitCode);
}

/* The receiver never answers ForceSenderLogout. */
static void* wait_for_answer(void* unused) {
    (void)unused;
    count();
    ForceSenderLogout(1);
    return NULL;
}

static void* request_in_a_loop(void* unused) {
    (void)unused;
    for (;;) {
        StopPlayImage(1);
        count();
    }
    return NULL;
}

static void* list_in_a_loop(void* unused) {
    (void)unused;
    for (;;) {
        ScreenSenderRecord** list;
        int i, n = GetSenderList(&list);
        for (i = 0; i < n; ++i)
            free(list[i]);
        if (n > 0)
            free(list);
        count();
    }
    return NULL;
}

static const char* s_host;

static void* init_in_a_loop(void* unused) {
    (void)unused;
    for (;;) {
        Init(s_host, true);
        count();
    }
    return NULL;
}

static void start(void* (*body)(void*)) {
    pthread_t thread;
    CHECK(pthread_create(&thread, NULL, body, NULL) == 0);
    CHECK(pthread_detach(thread) == 0);
}

/* A child has none of the library's threads, and must not wait for them. */
static void fork_child_that_exits(void) {
    int status = 0;
    const pid_t child = fork();
    if (child == 0) {
        alarm(4); /* ends a child that hangs */
        exit(kExitCode);
    }
    CHECK(child > 0);
    CHECK(waitpid(child, &status, 0) == child);
    CHECK(WIFEXITED(status) && WEXITSTATUS(status) == kExitCode);
}

int main(int argc, char** argv) {
    const char* mode = argv[1];
    if (argc < 2)
        return 2;
    s_host = argc > 2 ? argv[2] : NULL;

    if (strcmp(mode, "unused") == 0)
        return kExitCode;
    if (strcmp(mode, "unconnected-request") == 0) {
        start(wait_for_answer);
        AWAIT(counted() == 1);
        exit(kExitCode);
    }

    if (strcmp(mode, "stream") == 0 || strcmp(mode, "go") == 0)
        SetScrRcvNotifyCB(count_event);
    if (strncmp(mode, "inside-callback", 15) == 0)
        SetScrRcvNotifyCB(exit_on_event);
    if (strncmp(mode, "signal", 6) == 0) {
        struct sigaction action;
        memset(&action, 0, sizeof action);
        action.sa_handler = exit_on_signal;
        CHECK(sigaction(SIGTERM, &action, NULL) == 0);
    }
    CHECK(Init(s_host, true) == 0);

    if (strcmp(mode, "return") == 0) {
        CHECK(StopPlayImage(1) == 7);
        return kExitCode;
    }
    if (strcmp(mode, "exit") == 0) {
        CHECK(StopPlayImage(1) == 7);
        exit(kExitCode);
    }
    if (strcmp(mode, "at-once") == 0)
        return kExitCode;
    if (strncmp(mode, "fork", 4) == 0) {
        int i;
        if (strcmp(mode, "fork-loops") == 0) {
            start(list_in_a_loop);
            AWAIT(counted() >= 1);
        }
        for (i = 0; i < 5; ++i) {
            fork_child_that_exits();
            CHECK(StopPlayImage(1) == 7);
        }
        return kExitCode;
    }
    if (strcmp(mode, "stream") == 0) {
        AWAIT(counted() >= 3);
        return kExitCode;
    }
    if (strcmp(mode, "go") == 0) {
        /* The receiver tells by an event that the thread's request has arrived. */
        start(wait_for_answer);
        AWAIT(counted() >= 2);
        exit(kExitCode);
    }
    if (strcmp(mode, "loops") == 0) {
        start(request_in_a_loop);
        start(list_in_a_loop);
        AWAIT(counted() >= 5);
        exit(kExitCode);
    }
    if (strcmp(mode, "init-loops") == 0) {
        start(init_in_a_loop);
        start(init_in_a_loop);
        AWAIT(counted() >= 4);
        exit(kExitCode);
    }
    if (strcmp(mode, "inside-callback") == 0) {
        StopPlayImage(1);
        for (;;)
            pause();
    }
    if (strcmp(mode, "signal-elsewhere") == 0) {
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGTERM);
        CHECK(pthread_sigmask(SIG_BLOCK, &signals, NULL) == 0);
        kill(getpid(), SIGTERM);
        sleep_ms(20); /* time for a thread of the library to take it, should one let it through */
        CHECK(pthread_sigmask(SIG_UNBLOCK, &signals, NULL) == 0);
        for (;;)
            pause();
    }
    if (strcmp(mode, "signal-idle") == 0) {
        /* To the process, as others send it: any thread that lets it through may get it. */
        CHECK(StopPlayImage(1) == 7);
        kill(getpid(), SIGTERM);
        for (;;)
            pause();
    }
    if (strcmp(mode, "inside-callback-while-loops") == 0) {
        start(list_in_a_loop);
        request_in_a_loop(NULL);
    }
    if (strcmp(mode, "inside-callback-in-request") == 0) {
        ForceSenderLogout(1); /* the end of the process cancels it, and may still be under way */
        for (;;)
            pause();
    }
    if (strcmp(mode, "signal-in-request") == 0) {
        ForceSenderLogout(1);
        return 3; /* must have ended in it */
    }
    return 2;
}
