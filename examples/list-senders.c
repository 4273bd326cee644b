/* Lists the senders of a receiver: list-senders [ADDRESS] */
#include <stdio.h>
#include <stdlib.h>

#include "ScreenReceiver/ScreenReceiver.h"

int main(int argc, char** argv) {
    ScreenSenderRecord** senders = NULL;
    int count, i;

    if (Init(argc > 1 ? argv[1] : "127.0.0.1", false) < 0 ||
        ((count = GetSenderList(&senders)) == 0 && GetErrorCode() < 0)) {
        fprintf(stderr, "no list: error %d\n", GetErrorCode());
        return 1;
    }
    for (i = 0; i < count; i++) {
        const unsigned ip = senders[i]->nIpAddress;
        printf("%10u  %u.%u.%u.%u  %s\n", senders[i]->nPrimaryKey, ip >> 24, ip >> 16 & 255,
               ip >> 8 & 255, ip & 255, senders[i]->szUserName);
        free(senders[i]);
    }
    free(senders);
    return 0;
}
