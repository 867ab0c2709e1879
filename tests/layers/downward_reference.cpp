// Built into the log layer over the layers below it: it calls the path check
// of util, which log may reach, so the link succeeds. It shows that the link
// check itself works, so that the failing link of upward_reference.cpp can
// only come from its reference upwards.
#include "kemail.h"

extern "C" KEMAIL_API int kemail_layer_probe() {
    return FileSize_Name("/") >= 0 ? Twrite(nullptr, 0, "PROBE0000", nullptr, 0) : -1;
}
