// The receive time-out of every POP3 reply.
#include "kemail.h"

#include "log/trace_record.h"

uint32_t g_ulPopTimeOut = 60;

extern "C" {

KEMAIL_API int Pop3_SetTimeOut(unsigned int ulSeconds, TraceHandle* pTrace) noexcept {
    kemail::trace(pTrace, 1, "Pop3_Set0000");
    g_ulPopTimeOut = ulSeconds;
    return Twrite(pTrace, 1, "Pop3_SetFFFF", nullptr, 0);
}

}  // extern "C"
