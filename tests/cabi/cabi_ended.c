#define _POSIX_C_SOURCE 200809L

#include "ScreenReceiver/ScreenReceiver.h"
#include "tests/cabi/loading.h"

/* usage: cabi_ended LIBRARY HOST - calls every function after the library has ended with the process;
   exit code 7 when each was turned away. */

enum { kExitCode = 7, kTurnedAway = -6528101 };

static int (*s_init)(const char*, bool);
static int (*s_lists[3])(ScreenSenderRecord***);
static int (*s_get_moderator)(ModeratorInfo*);
static int (*s_set_moderator)(const ModeratorInfo*);
static int (*s_start)(int, unsigned char);
static int (*s_id_commands[2])(int);
static int (*s_commands[3])(void);
static void (*s_set_callback)(int (*)(int, int, int));
static const char* s_host;

static int ignore_event(int a, int b, int c) {
    (void)a, (void)b, (void)c;
    return 0;
}

/* Registered before the library was loaded, so it runs after the library's end. */
static void call_everything(void) {
    ScreenSenderRecord* nothing[1];
    ScreenSenderRecord** list = nothing;
    ModeratorInfo info = {1, 1};
    int i;
    CHECK(s_init(s_host, true) == kTurnedAway);
    for (i = 0; i < 3; ++i) {
        CHECK(s_lists[i](&list) == 0);
        CHECK(list == nothing);
        CHECK(s_commands[i]() == kTurnedAway);
    }
    CHECK(s_get_moderator(&info) == kTurnedAway);
    CHECK(info.nModeratorId == 0 && info.byModeratorFlag == 0);
    CHECK(s_set_moderator(&info) == kTurnedAway);
    CHECK(s_start(1, 1) == kTurnedAway);
    CHECK(s_id_commands[0](1) == kTurnedAway);
    CHECK(s_id_commands[1](1) == kTurnedAway);
    s_set_callback(ignore_event);
    _Exit(kExitCode);
}

int main(int argc, char** argv) {
    void* library;
    if (argc < 3)
        return 2;
    CHECK(atexit(call_everything) == 0);
    library = load(argv[1]);
    s_host = argv[2];
    find(library, "Init", &s_init, sizeof s_init);
    find(library, "GetSenderList", &s_lists[0], sizeof s_lists[0]);
    find(library, "GetNonLocalSenderList", &s_lists[1], sizeof s_lists[1]);
    find(library, "GetValidSenderList", &s_lists[2], sizeof s_lists[2]);
    find(library, "GetModeratorInfo", &s_get_moderator, sizeof s_get_moderator);
    find(library, "SetModeratorInfo", &s_set_moderator, sizeof s_set_moderator);
    find(library, "StartPlayImage", &s_start, sizeof s_start);
    find(library, "StopPlayImage", &s_id_commands[0], sizeof s_id_commands[0]);
    find(library, "ForceSenderLogout", &s_id_commands[1], sizeof s_id_commands[1]);
    find(library, "RefreshConfCtrlTimer", &s_commands[0], sizeof s_commands[0]);
    find(library, "QuitConfCtrl", &s_commands[1], sizeof s_commands[1]);
    find(library, "GetErrorCode", &s_commands[2], sizeof s_commands[2]);
    find(library, "SetScrRcvNotifyCB", &s_set_callback, sizeof s_set_callback);

    CHECK(s_init(s_host, true) == 0);
    CHECK(s_id_commands[0](1) == 7);
    return 3; /* unless call_everything() ends the process */
}
