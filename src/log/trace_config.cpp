// Trace configuration from "trc_conf" and the per-process, per-thread trace
// file name.
#include "log/log.h"
#include "util/format.h"

#include <cstdio>

#include <pthread.h>
#include <unistd.h>

extern "C" {

KEMAIL_API int GetTraceInfo(const char* pszSection, unsigned int /*ulUnused*/,
                            unsigned int* pulSize, unsigned int* pulLevel,
                            unsigned int* pulCount) noexcept {
    if (!pszSection || !pulSize || !pulLevel || !pulCount) return -1;
    ProfileHandle* profile = Com_OpenPrivateProfile(KEMAIL_TRACE_CONF, 0);
    if (!profile) return -1;
    const int size = Com_GetPrivateProfileInt(profile, pszSection, "TRACESIZE",
                                              static_cast<int>(*pulSize), KEMAIL_TRACE_CONF);
    const int level = Com_GetPrivateProfileInt(profile, pszSection, "TRACELEVEL",
                                               static_cast<int>(*pulLevel), KEMAIL_TRACE_CONF);
    const int count = Com_GetPrivateProfileInt(profile, pszSection, "TRACENUM",
                                               static_cast<int>(*pulCount), KEMAIL_TRACE_CONF);
    Com_ClosePrivateProfile(profile, KEMAIL_TRACE_CONF);
    // The values are taken only when all three are valid.
    if (size <= 0 || level < 0 || count < 0) return -1;
    *pulSize = static_cast<unsigned int>(size);
    *pulLevel = static_cast<unsigned int>(level);
    *pulCount = static_cast<unsigned int>(count);
    return 0;
}

KEMAIL_API int Trc_GetSizeLevel(const char* pszSection, unsigned int* pulSize,
                                unsigned int* pulLevel) noexcept {
    constexpr int kDefaultSize = 100;
    constexpr int kDefaultLevel = 0;
    unsigned int size = kDefaultSize;
    unsigned int level = kDefaultLevel;
    ProfileHandle* profile = pszSection ? Com_OpenPrivateProfile(KEMAIL_TRACE_CONF, 0) : nullptr;
    if (profile) {
        size = static_cast<unsigned int>(Com_GetPrivateProfileInt(profile, pszSection, "TRACESIZE",
                                                                  kDefaultSize, KEMAIL_TRACE_CONF));
        level = static_cast<unsigned int>(Com_GetPrivateProfileInt(
            profile, pszSection, "TRACELEVEL", kDefaultLevel, KEMAIL_TRACE_CONF));
        Com_ClosePrivateProfile(profile, KEMAIL_TRACE_CONF);
    }
    if (level > 2) level = 2;
    if (pulSize) *pulSize = size;
    if (pulLevel) *pulLevel = level;
    return 0;
}

KEMAIL_API void MakeTraceFileName(char* pszOut, unsigned int /*ulUnused*/, const char* pszPrefix,
                                  unsigned int ulLevel) noexcept {
    if (ulLevel == 0 || !pszOut) return;
    // The thread id is printed as the signed 32-bit number it has always
    // been in these names.
    const int thread_id = static_cast<int>(static_cast<unsigned long>(pthread_self()));
    // A name cut to the buffer would name some other file: leave none, so
    // that Topen fails and the send runs without a trace.
    kemail::format_into(pszOut, KEMAIL_TRACE_NAME_SIZE, kemail::Overflow::Refuse, "%s/%s%d-%d.trc",
                        KEMAIL_TRACE_DIR, pszPrefix ? pszPrefix : "", static_cast<int>(getpid()),
                        thread_id);
}

}  // extern "C"
