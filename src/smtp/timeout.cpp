// Per-phase time-outs of the SMTP session. A phase is chosen with
// SMTP_SetTimeOut, its clock restarted with SMTP_SetStartTime; the transport
// asks how long is left. Seconds of wall-clock time, signed arithmetic.
#include "kemail.h"
#include "log/trace_record.h"

#include <cstring>

using kemail::trace;
using kemail::trace_data;
using kemail::trace_word;

SmtpTimeOut g_stMailTimeout = {300, 300, 300, 120, 180, 600};
uint32_t g_ulTimeOut = 0;
time_t g_tStartTime = 0;

namespace {

// A clock set back restarts the phase instead of waiting for it to catch up.
time_t now_clamped() {
    time_t now = time(nullptr);
    if (now < g_tStartTime) g_tStartTime = now;
    return now;
}

}  // namespace

extern "C" {

KEMAIL_API void SMTP_SetTimeOutInfo(const SmtpTimeOut* pstTimeOut) noexcept {
    trace(g_trace, 1, "SETTIME0000");
    if (pstTimeOut) g_stMailTimeout = *pstTimeOut;
    trace(g_trace, 1, "SETTIMEFFFF");
}

KEMAIL_API void SMTP_SetTimeOut(unsigned int ulSeconds) noexcept {
    trace(g_trace, 1, "SETIMEO0000");
    g_ulTimeOut = ulSeconds;
    trace(g_trace, 1, "SETIMEOFFFF");
}

KEMAIL_API void SMTP_SetStartTime(void) noexcept {
    trace(g_trace, 1, "SETSTART0000");
    g_tStartTime = time(nullptr);
    trace(g_trace, 1, "SETSTARTFFFF");
}

KEMAIL_API int SMTP_CheckOverTimeOut(void) noexcept {
    trace(g_trace, 1, "CHKOVER0000");
    const long long elapsed = static_cast<long long>(now_clamped() - g_tStartTime);
    // Kept: elapsed equal to the time-out already counts as over (test
    // TimeOut.ElapsedEqualToTheTimeOutCountsAsOver).
    if (elapsed < static_cast<long long>(g_ulTimeOut)) {
        trace(g_trace, 1, "CHKOVERFFFF");
        return 0;
    }
    trace(g_trace, 0, "CHKOVER0010");
    return -6;
}

KEMAIL_API void SMTP_GetSelectTimeOut(struct timeval* pstTimeVal) noexcept {
    trace(g_trace, 1, "GETSLCT0000");
    const time_t now = now_clamped();
    const long long left = static_cast<long long>(g_ulTimeOut) - (now - g_tStartTime);
    if (!pstTimeVal) return;
    if (left < 0) {
        trace_word(g_trace, 0, "GETSLCT0010", static_cast<uint32_t>(now));
        trace_word(g_trace, 0, "GETSLCT0020", static_cast<uint32_t>(g_tStartTime));
        pstTimeVal->tv_sec = 0;
        pstTimeVal->tv_usec = 0;
        return;
    }
    pstTimeVal->tv_sec = static_cast<time_t>(left);
    pstTimeVal->tv_usec = 0;
    trace(g_trace, 1, "GETSLCTFFFF");
}

// Hours east of UTC: the UTC fields read back as local time differ from the
// local fields by the zone offset.
// Kept: whole hours truncated toward zero, so +5:30 gives 5 and -3:30 gives
// -3 (test TimeDifference.WholeHoursEastOfUtcTruncatedTowardZero).
KEMAIL_API int SMTP_GetTimeDifference(void) noexcept {
    trace(g_trace, 1, "GETDIFF0000");
    struct tm split;
    std::memset(&split, 0, sizeof split);
    time_t now = time(nullptr);
    gmtime_r(&now, &split);
    const time_t as_utc = mktime(&split);
    trace_data(g_trace, 2, "GETDIFF0020", &split, sizeof split);

    std::memset(&split, 0, sizeof split);
    now = time(nullptr);
    localtime_r(&now, &split);
    const time_t as_local = mktime(&split);
    trace_data(g_trace, 2, "GETDIFF0050", &split, sizeof split);

    const long long seconds = static_cast<long long>(as_local) - static_cast<long long>(as_utc);
    const int hours = static_cast<int>(seconds / 3600);
    trace_word(g_trace, 1, "GETDIFFFFFF", static_cast<uint32_t>(hours));
    return hours;
}

}  // extern "C"
