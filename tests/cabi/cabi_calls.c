#define _POSIX_C_SOURCE 200809L

#include <limits.h>
#include <pthread.h>
#include <stdint.h>

#include "ScreenReceiver/ScreenReceiver.h"
#include "tests/cabi/program.h"

/* usage: cabi_calls MODE [HOST] - drives the library as an application in C does. Exit code 0 when
   everything was as it should be. */

static ScreenSenderRecord* s_aNothing[1];
static ScreenSenderRecord** const kUntouched = s_aNothing;

static void release(ScreenSenderRecord** list, int count) {
    int i;
    for (i = 0; i < count; ++i)
        free(list[i]);
    free(list);
}

static void check_three(ScreenSenderRecord** list) {
    CHECK(list[0]->nPrimaryKey == 16909060u);
    CHECK(strcmp(list[0]->szUserName, "Ann") == 0);
    CHECK(list[0]->nIpAddress == 3232235537u);
    CHECK(list[0]->bySplitScreen == 2);
    CHECK(list[0]->nStatus == 5);
    CHECK(list[0]->nOSType == 0 && list[0]->nAppType == 0 && list[0]->nPointInputType == 0);

    CHECK(list[1]->nPrimaryKey == 4294967295u);
    CHECK(strcmp(list[1]->szUserName, "Bob") == 0);
    CHECK(list[1]->nIpAddress == 167772161u);
    CHECK(list[1]->bySplitScreen == 255);
    CHECK(list[1]->nStatus == 65534);

    CHECK(list[2]->nPrimaryKey == 3u);
    CHECK(strcmp(list[2]->szUserName, "") == 0);
    CHECK(list[2]->bySplitScreen == 0);
}

static void check_long_one(ScreenSenderRecord** list) {
    /* Read by offset as well, as a program in another language reads it. */
    const char* bytes = (const char*)list[0];
    uint32_t key, address;
    int32_t status, os_type, app_type, input_type;
    memcpy(&key, bytes + 0, 4);
    memcpy(&address, bytes + 132, 4);
    memcpy(&status, bytes + 140, 4);
    memcpy(&os_type, bytes + 144, 4);
    memcpy(&app_type, bytes + 148, 4);
    memcpy(&input_type, bytes + 152, 4);
    CHECK(key == 256u);
    CHECK(strcmp(bytes + 4, "Conference room 4, second floor, left side, PC1") == 0);
    CHECK(address == 4294967295u);
    CHECK((unsigned char)bytes[136] == 0x56);
    CHECK(status == 0x1234);
    CHECK(os_type == 0x789A);
    CHECK(app_type == 0xBCDE);
    CHECK(input_type == 0xF012);
}

/* Everything but Init, the callback and GetErrorCode, with its expected result. */
static void make_every_request(void) {
    ScreenSenderRecord** list = kUntouched;
    ModeratorInfo info = {9, 9};
    const ModeratorInfo wanted = {-1, 2};

    CHECK(GetSenderList(&list) == 3);
    CHECK(list != kUntouched);
    check_three(list);
    release(list, 3);

    CHECK(GetNonLocalSenderList(&list) == 1);
    check_long_one(list);
    release(list, 1);

    list = kUntouched;
    CHECK(GetValidSenderList(&list) == 0);
    CHECK(list == kUntouched);

    CHECK(GetModeratorInfo(&info) == 0);
    CHECK(info.nModeratorId == 256 && info.byModeratorFlag == 5);

    CHECK(SetModeratorInfo(&wanted) == -1);
    CHECK(StartPlayImage(16909060, 7) == 5);
    CHECK(StopPlayImage(INT_MAX) == 7);
    CHECK(ForceSenderLogout(INT_MIN) == 42);
    CHECK(RefreshConfCtrlTimer() == 0);
    CHECK(QuitConfCtrl() == 0);
}

static void check_codes(void) {
    ScreenSenderRecord** list = kUntouched;
    ModeratorInfo info = {-1, 2};
    CHECK(SetModeratorInfo(&info) == -1);
    CHECK(GetErrorCode() == -1);
    CHECK(GetModeratorInfo(&info) == 0);
    CHECK(GetErrorCode() == 0);
    CHECK(StartPlayImage(1, 0) == 5);
    CHECK(GetErrorCode() == 5);
    CHECK(GetValidSenderList(&list) == 0);
    CHECK(GetErrorCode() == 0);
    CHECK(StopPlayImage(1) == 7);
    CHECK(GetErrorCode() == 7);
    CHECK(QuitConfCtrl() == 0);
    CHECK(GetErrorCode() == 0);
    CHECK(ForceSenderLogout(1) == 42);
    CHECK(GetErrorCode() == 42);
}

static pthread_mutex_t s_mutex = PTHREAD_MUTEX_INITIALIZER;
static int s_calls;
static int s_answered;
static int s_values[8][3];
static int s_inside_result;
static const char* s_host;

static int calls(void) {
    int count;
    pthread_mutex_lock(&s_mutex);
    count = s_calls;
    pthread_mutex_unlock(&s_mutex);
    return count;
}

static int on_notify(int a, int b, int c) {
    pthread_mutex_lock(&s_mutex);
    if (s_calls < 8) {
        s_values[s_calls][0] = a;
        s_values[s_calls][1] = b;
        s_values[s_calls][2] = c;
    }
    ++s_calls;
    pthread_mutex_unlock(&s_mutex);
    return -1;
}

static int answered(void) {
    int value;
    pthread_mutex_lock(&s_mutex);
    value = s_answered;
    pthread_mutex_unlock(&s_mutex);
    return value;
}

/* Uses every function from inside the callback, once. */
static int on_notify_use_all(int a, int b, int c) {
    (void)a, (void)b, (void)c;
    SetScrRcvNotifyCB(on_notify);
    /* The error code is one for the process: no request of the main thread may end meanwhile. */
    AWAIT(answered());
    s_inside_result = Init(s_host, false);
    CHECK(GetErrorCode() == -6527002);
    make_every_request();
    return on_notify(1, 2, 3);
}

static void* request_in_a_loop(void* unused) {
    int i;
    (void)unused;
    for (i = 0; i < 5; ++i)
        make_every_request();
    return NULL;
}

int main(int argc, char** argv) {
    const char* mode = argv[1];
    ScreenSenderRecord** list = kUntouched;
    ModeratorInfo info = {9, 9};
    if (argc < 2)
        return 2;
    s_host = argc > 2 ? argv[2] : NULL;

    if (strcmp(mode, "all-true") == 0 || strcmp(mode, "all-false") == 0) {
        CHECK(GetErrorCode() == 0);
        CHECK(Init(s_host, strcmp(mode, "all-true") == 0) == 0);
        CHECK(GetErrorCode() == 0);
        make_every_request();
    } else if (strcmp(mode, "codes") == 0) {
        CHECK(Init(s_host, true) == 0);
        check_codes();
    } else if (strcmp(mode, "notify") == 0) {
        /* Two events follow each answer to RefreshConfCtrlTimer. */
        SetScrRcvNotifyCB(on_notify);
        CHECK(Init(s_host, true) == 0);
        CHECK(RefreshConfCtrlTimer() == 0);
        AWAIT(calls() == 2);
        CHECK(s_values[0][0] == 1 && s_values[0][1] == -1 && s_values[0][2] == 256);
        CHECK(s_values[1][0] == INT_MIN && s_values[1][1] == INT_MAX && s_values[1][2] == 2);
        SetScrRcvNotifyCB(NULL);
        CHECK(RefreshConfCtrlTimer() == 0);
        CHECK(StopPlayImage(1) == 7);
        CHECK(calls() == 2);
    } else if (strcmp(mode, "inside-callback") == 0) {
        SetScrRcvNotifyCB(on_notify_use_all);
        CHECK(Init(s_host, true) == 0);
        CHECK(RefreshConfCtrlTimer() == 0);
        pthread_mutex_lock(&s_mutex);
        s_answered = 1;
        pthread_mutex_unlock(&s_mutex);
        AWAIT(calls() >= 1);
        CHECK(s_inside_result == -6527002);
        CHECK(StopPlayImage(1) == 7);
    } else if (strcmp(mode, "two-threads") == 0) {
        pthread_t threads[2];
        CHECK(Init(s_host, true) == 0);
        CHECK(pthread_create(&threads[0], NULL, request_in_a_loop, NULL) == 0);
        CHECK(pthread_create(&threads[1], NULL, request_in_a_loop, NULL) == 0);
        CHECK(pthread_join(threads[0], NULL) == 0);
        CHECK(pthread_join(threads[1], NULL) == 0);
    } else if (strcmp(mode, "init-again") == 0) {
        int i;
        for (i = 0; i < 5; ++i) {
            CHECK(Init(s_host, true) == 0);
            CHECK(StopPlayImage(1) == 7);
        }
    } else if (strcmp(mode, "no-address") == 0) {
        /* "garbage" is the broadcast address to the system. Which error it has for one is its own
           affair; a socket that was not connected reads as -ENOTCONN. */
        const char* const hosts[] = {"garbage", "255.255.255.255"};
        size_t i;
        for (i = 0; i < sizeof hosts / sizeof hosts[0]; ++i) {
            CHECK(Init(hosts[i], true) == 0);
            AWAIT(GetErrorCode() < 0);
            CHECK(GetErrorCode() > -4096);
            CHECK(Init(s_host, true) == 0);
            CHECK(GetErrorCode() == 0);
            CHECK(StopPlayImage(1) == 7);
        }
    } else if (strcmp(mode, "before-init-list") == 0) {
        CHECK(GetValidSenderList(&list) == 0);
        CHECK(list == kUntouched);
        CHECK(GetErrorCode() == -6528101);
    } else if (strcmp(mode, "before-init-moderator") == 0) {
        CHECK(GetModeratorInfo(&info) == -6528101);
        CHECK(info.nModeratorId == 0 && info.byModeratorFlag == 0);
        CHECK(GetErrorCode() == -6528101);
    } else if (strcmp(mode, "before-init-rest") == 0) {
        SetScrRcvNotifyCB(on_notify);
        SetScrRcvNotifyCB(NULL);
        CHECK(GetErrorCode() == 0);
        CHECK(StartPlayImage(1, 1) == -6528101);
        CHECK(GetErrorCode() == -6528101);
    } else if (strcmp(mode, "time-out") == 0) {
        CHECK(Init(s_host, true) == 0);
        CHECK(GetModeratorInfo(&info) == -6528101);
        CHECK(info.nModeratorId == 0 && info.byModeratorFlag == 0);
        CHECK(GetErrorCode() == -6528101);
        /* The connection is kept. */
        CHECK(StopPlayImage(1) == 7);
    } else if (strcmp(mode, "list-fails") == 0) {
        CHECK(Init(s_host, true) == 0);
        CHECK(GetSenderList(&list) == 0);
        CHECK(list == kUntouched);
        CHECK(GetErrorCode() == -6528002);
    } else if (strcmp(mode, "list-breaks") == 0) {
        int i, j;
        CHECK(Init(s_host, true) == 0);
        CHECK(GetSenderList(&list) == 3);
        CHECK(GetErrorCode() == -6528002);
        CHECK(strcmp(list[0]->szUserName, "Ann") == 0);
        for (i = 1; i < 3; ++i) {
            const unsigned char* bytes = (const unsigned char*)list[i];
            CHECK(list[i]->bySplitScreen == 0x80);
            /* Everything else zero, the name's 128 bytes and the padding included. */
            for (j = 0; j < 156; ++j)
                CHECK(j == 136 || bytes[j] == 0);
        }
        release(list, 3);
    } else if (strcmp(mode, "moderator-breaks") == 0) {
        CHECK(Init(s_host, true) == 0);
        CHECK(GetModeratorInfo(&info) == -6528002);
        CHECK(info.nModeratorId == 256 && info.byModeratorFlag == 0);
    } else if (strcmp(mode, "endless-name") == 0) {
        CHECK(Init(s_host, true) == 0);
        CHECK(GetNonLocalSenderList(&list) == 1);
        CHECK(strlen(list[0]->szUserName) == 120);
        CHECK(strspn(list[0]->szUserName, "N") == 120);
        release(list, 1);
    } else {
        return 2;
    }
    return 0;
}
