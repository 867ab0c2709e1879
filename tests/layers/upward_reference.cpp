// Built into the lowest layer, util, alone: it calls the trace writer of the
// log layer above it, which that layer must not reach, so the link fails.
#include "kemail.h"

extern "C" KEMAIL_API int kemail_layer_probe() {
    return Twrite(nullptr, 0, "PROBE0000", nullptr, 0);
}
