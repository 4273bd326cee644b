/* clang-format off: first, so that it has to bring everything that it needs. */
#include "ScreenReceiver/ScreenReceiver.h"
#include <stddef.h>
/* clang-format on */

#define HOLDS(name, condition) typedef char name[(condition) ? 1 : -1]

/* Callers are compiled against this layout. */
HOLDS(record_is_156_bytes, sizeof(ScreenSenderRecord) == 156);
HOLDS(primary_key_at_0, offsetof(ScreenSenderRecord, nPrimaryKey) == 0);
HOLDS(user_name_at_4, offsetof(ScreenSenderRecord, szUserName) == 4);
HOLDS(ip_address_at_132, offsetof(ScreenSenderRecord, nIpAddress) == 132);
HOLDS(split_screen_at_136, offsetof(ScreenSenderRecord, bySplitScreen) == 136);
HOLDS(status_at_140, offsetof(ScreenSenderRecord, nStatus) == 140);
HOLDS(os_type_at_144, offsetof(ScreenSenderRecord, nOSType) == 144);
HOLDS(app_type_at_148, offsetof(ScreenSenderRecord, nAppType) == 148);
HOLDS(point_input_type_at_152, offsetof(ScreenSenderRecord, nPointInputType) == 152);
HOLDS(moderator_is_8_bytes, sizeof(ModeratorInfo) == 8);
HOLDS(moderator_id_at_0, offsetof(ModeratorInfo, nModeratorId) == 0);
HOLDS(moderator_flag_at_4, offsetof(ModeratorInfo, byModeratorFlag) == 4);

int uses_every_declaration(void);

int uses_every_declaration(void) {
    int (*init)(const char*, bool) = Init;
    int (*lists[3])(ScreenSenderRecord***) = {GetSenderList, GetNonLocalSenderList,
                                              GetValidSenderList};
    int (*get_moderator)(ModeratorInfo*) = GetModeratorInfo;
    int (*set_moderator)(const ModeratorInfo*) = SetModeratorInfo;
    int (*start)(int, unsigned char) = StartPlayImage;
    int (*ids[2])(int) = {StopPlayImage, ForceSenderLogout};
    int (*plain[3])(void) = {RefreshConfCtrlTimer, QuitConfCtrl, GetErrorCode};
    void (*set_callback)(int (*)(int, int, int)) = SetScrRcvNotifyCB;

    ScreenSenderRecord record;
    uint32_t* key = &record.nPrimaryKey;
    char(*name)[128] = &record.szUserName;
    uint32_t* address = &record.nIpAddress;
    uint8_t* split_screen = &record.bySplitScreen;
    int32_t* numbers[4];
    numbers[0] = &record.nStatus;
    numbers[1] = &record.nOSType;
    numbers[2] = &record.nAppType;
    numbers[3] = &record.nPointInputType;
    return init && lists[0] && get_moderator && set_moderator && start && ids[0] && plain[0] &&
           set_callback && key && name && address && split_screen && numbers[0];
}
