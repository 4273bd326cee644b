/* Drives a receiver through a small meeting: meeting [ADDRESS]
 *
 * Lists the senders, shows the first one, waits for the receiver's notification of it, hands the
 * moderator's chair over, and leaves conference control. */
#include <errno.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include "ScreenReceiver/ScreenReceiver.h"

static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t notified = PTHREAD_COND_INITIALIZER;
static int notifications = 0;

/* Runs on a thread of the library. */
static int OnNotify(int first, int second, int third) {
    printf("  notification: %d, %d, %d\n", first, second, third);
    pthread_mutex_lock(&lock);
    notifications++;
    pthread_cond_signal(&notified);
    pthread_mutex_unlock(&lock);
    return 0;
}

/* 0, or ETIMEDOUT when none came within 5 s. */
static int AwaitNotification(void) {
    struct timespec limit;
    int result = 0;
    clock_gettime(CLOCK_REALTIME, &limit);
    limit.tv_sec += 5;
    pthread_mutex_lock(&lock);
    while (notifications == 0 && result != ETIMEDOUT)
        result = pthread_cond_timedwait(&notified, &lock, &limit);
    pthread_mutex_unlock(&lock);
    return result;
}

static void Check(const char* what, int result) {
    printf("%s: %d\n", what, result);
    if (result != 0) {
        fprintf(stderr, "%s failed: %d\n", what, result);
        exit(1);
    }
}

int main(int argc, char** argv) {
    ScreenSenderRecord** senders = NULL;
    ModeratorInfo moderator;
    int count, i, shown;

    setvbuf(stdout, NULL, _IOLBF, 0);
    SetScrRcvNotifyCB(OnNotify);
    Check("Init", Init(argc > 1 ? argv[1] : "127.0.0.1", false));

    count = GetSenderList(&senders);
    printf("GetSenderList: %d senders\n", count);
    if (count == 0) {
        fprintf(stderr, "nobody to show (error %d)\n", GetErrorCode());
        return 1;
    }
    for (i = 0; i < count; i++)
        printf("  %u %s\n", senders[i]->nPrimaryKey, senders[i]->szUserName);
    shown = (int)senders[0]->nPrimaryKey;
    for (i = 0; i < count; i++)
        free(senders[i]);
    free(senders);

    Check("StartPlayImage", StartPlayImage(shown, 1));
    if (AwaitNotification() != 0) {
        fprintf(stderr, "no notification came\n");
        return 1;
    }

    moderator.nModeratorId = shown;
    moderator.byModeratorFlag = 1;
    Check("SetModeratorInfo", SetModeratorInfo(&moderator));
    Check("GetModeratorInfo", GetModeratorInfo(&moderator));
    printf("  moderator %d, flag %d\n", (int)moderator.nModeratorId, moderator.byModeratorFlag);

    Check("RefreshConfCtrlTimer", RefreshConfCtrlTimer());
    Check("StopPlayImage", StopPlayImage(shown));
    Check("QuitConfCtrl", QuitConfCtrl());
    SetScrRcvNotifyCB(NULL);
    return 0;
}
