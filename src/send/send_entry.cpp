// ZvKe_SendEMail: one send at a time per process, bracketed by the "acert"
// trace file and the mail log.
#include "kemail.h"

#include "log/log.h"
#include "log/trace_record.h"
#include "send/send_internal.h"
#include "util/paths.h"
#include "util/format.h"

#include <atomic>

// Nonzero while a send runs in this process.
uint32_t g_ulSendBusy = 0;

namespace {

// Kept: the exported busy word is taken with one atomic exchange rather than
// tested and set as a plain word, so that a caller racing another one is
// answered -9 instead of slipping in beside it
// (test SendResults.RacingThreadsEitherSendOrAreToldBusy).
bool take_busy_flag() {
    uint32_t idle = 0;
    return std::atomic_ref<uint32_t>(g_ulSendBusy)
        .compare_exchange_strong(idle, 1, std::memory_order_acquire);
}

}  // namespace

void kemail::release_busy_flag() {
    std::atomic_ref<uint32_t>(g_ulSendBusy).store(0, std::memory_order_release);
}

extern "C" {

KEMAIL_API int ZvKe_SendEMail(MailAddressInfo* pstAddress, int lAddressCount,
                              MailContentInfo* pstContent, int lContentCount, const char* pszFrom,
                              const char* pszSubject, const char* pszServer, unsigned int ulSplit,
                              SendOptionInfo* pstOption, MailTimeoutInfo* pstTimeout,
                              MailAuthInfo* pstAuth, char* pszMessage) noexcept {
    if (!take_busy_flag()) return KEMAIL_E_BUSY;
    g_trace = nullptr;
    g_pLogHandle = nullptr;

    // "trc_conf" is read once, for the trace settings and the mail log's.
    ProfileHandle* trace_conf = Com_OpenPrivateProfile(KEMAIL_TRACE_CONF, 0);
    unsigned int size_kb = 5, level = 1, keep = 5;
    kemail::trace_info_from(trace_conf, "ACERT", &size_kb, &level, &keep);
    DeleteOldFiles(0, "acert", keep, level);
    char trace_name[KEMAIL_TRACE_NAME_SIZE] = {};
    MakeTraceFileName(trace_name, 0, "acert", level);
    g_trace = Topen(trace_name, size_kb, level);
    kemail::trace(g_trace, 1, "SNDEMAIL0000");

    char temp_dir[KEMAIL_TRACE_NAME_SIZE] = {};
    kemail::format_into(temp_dir, sizeof temp_dir, kemail::Overflow::Cut, "%s/tmp", KEMAIL_VAR_DIR);
    g_pLogHandle = kemail::mail_log_open_from(trace_conf);
    if (trace_conf) Com_ClosePrivateProfile(trace_conf, KEMAIL_TRACE_CONF);

    const int result = ZvKe_SendEMailPartial_parts(
        0, pstAddress, lAddressCount, pstContent, lContentCount, pszFrom, pszSubject, pszServer,
        ulSplit, pstOption, pstTimeout, pstAuth, pszMessage, temp_dir);

    kemail::trace_word(g_trace, 1, "ACERTFFFF", static_cast<uint32_t>(result));
    Tclose(g_trace);
    MailLogClose(g_pLogHandle);
    // The handles are freed: nothing may trace or log through them any more.
    g_trace = nullptr;
    g_pLogHandle = nullptr;
    kemail::release_busy_flag();
    return result;
}

}  // extern "C"
