#include "tests/cabi/cabi_names.h"

#include "tests/cabi/loading.h"

/* usage: cabi_names LIBRARY HOST - an application with functions of its own that are called as the
   library's are. It exports them, as one does that loads plugins. */

#define OWN(name)                              \
    extern "C" int name();                     \
    extern "C" int name() {                    \
        fprintf(stderr, #name " was taken\n"); \
        _Exit(1);                              \
    }

OWN(Init)
OWN(GetSenderList)
OWN(GetNonLocalSenderList)
OWN(GetValidSenderList)
OWN(GetModeratorInfo)
OWN(SetModeratorInfo)
OWN(StartPlayImage)
OWN(StopPlayImage)
OWN(ForceSenderLogout)
OWN(RefreshConfCtrlTimer)
OWN(QuitConfCtrl)
OWN(SetScrRcvNotifyCB)
OWN(GetErrorCode)

int main(int argc, char** argv) {
    CHECK(argc == 3);
    CHECK(PluginHasItsOwnLogger());
    CHECK(DefaultHandlersAreRecognized());
    CHECK(CountSenders(argv[2]) == 3);

    void* library = load(argv[1]);
    int (*init)(const char*, bool);
    int (*refresh)();
    int (*get_error_code)();
    find(library, "Init", &init, sizeof init);
    find(library, "RefreshConfCtrlTimer", &refresh, sizeof refresh);
    find(library, "GetErrorCode", &get_error_code, sizeof get_error_code);
    CHECK(init(argv[2], false) == 0);
    CHECK(refresh() == 0);
    CHECK(get_error_code() == 0);
    return 0;
}
