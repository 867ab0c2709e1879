// Trace configuration from "trc_conf" and the per-process, per-thread trace
// file name.
#include "log/log.h"
#include "util/format.h"

#include <cstdio>

#include <pthread.h>
#include <unistd.h>

namespace kemail {

int trace_info_from(ProfileHandle* profile, const char* section, unsigned int* size,
                    unsigned int* level, unsigned int* count) {
    if (!section || !size || !level || !count || !profile) return -1;
    const int new_size = Com_GetPrivateProfileInt(profile, section, "TRACESIZE",
                                                  static_cast<int>(*size), KEMAIL_TRACE_CONF);
    const int new_level = Com_GetPrivateProfileInt(profile, section, "TRACELEVEL",
                                                   static_cast<int>(*level), KEMAIL_TRACE_CONF);
    const int new_count = Com_GetPrivateProfileInt(profile, section, "TRACENUM",
                                                   static_cast<int>(*count), KEMAIL_TRACE_CONF);
    // The values are taken only when all three are valid.
    if (new_size <= 0 || new_level < 0 || new_count < 0) return -1;
    *size = static_cast<unsigned int>(new_size);
    *level = static_cast<unsigned int>(new_level);
    *count = static_cast<unsigned int>(new_count);
    return 0;
}

}  // namespace kemail

extern "C" {

KEMAIL_API int GetTraceInfo(const char* pszSection, unsigned int /*ulUnused*/,
                            unsigned int* pulSize, unsigned int* pulLevel,
                            unsigned int* pulCount) noexcept {
    if (!pszSection || !pulSize || !pulLevel || !pulCount) return -1;
    ProfileHandle* profile = Com_OpenPrivateProfile(KEMAIL_TRACE_CONF, 0);
    if (!profile) return -1;
    const int result = kemail::trace_info_from(profile, pszSection, pulSize, pulLevel, pulCount);
    Com_ClosePrivateProfile(profile, KEMAIL_TRACE_CONF);
    return result;
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
