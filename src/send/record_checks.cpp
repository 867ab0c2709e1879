// Checks of the time-out record (TIMEOUT), of MailAuthInfo (CHKCERT) and of
// the SMTP AUTH credentials (CAUTH).
#include "send/send_internal.h"

#include "log/trace_record.h"

#include <cstring>

namespace kemail {

int check_timeouts(const MailTimeoutInfo& timeouts) {
    static const char* const kSlotCodes[6] = {"TIMEOUT0010", "TIMEOUT0020", "TIMEOUT0030",
                                              "TIMEOUT0040", "TIMEOUT0050", "TIMEOUT0060"};
    const int32_t slots[6] = {timeouts.lConnect, timeouts.lMailFrom,  timeouts.lRcptTo,
                              timeouts.lData,    timeouts.lDataBlock, timeouts.lDataEnd};
    trace(g_trace, 1, "TIMEOUT0000");
    for (int k = 0; k < 6; ++k) {
        if (slots[k] < 60 || slots[k] > 3600) {
            trace_word(g_trace, 0, kSlotCodes[k], static_cast<uint32_t>(slots[k]));
            return -1;
        }
    }
    trace(g_trace, 1, "TIMEOUTFFFF");
    return 0;
}

int check_mail_auth(const MailAuthInfo& auth) {
    trace(g_trace, 1, "CHKCERT0000");
    if (auth.SmtpAuthMode == KEMAIL_AUTH_POP_BEFORE_SMTP) {
        trace(g_trace, 2, "CHKCERT0010");
    } else if (auth.SmtpAuthMode == KEMAIL_AUTH_SMTP) {
        trace(g_trace, 2, "CHKCERT0015");
    } else {
        trace_word(g_trace, 0, "CHKCERT0020", auth.SmtpAuthMode);
        return -1;
    }
    if (auth.pSettings == nullptr) {
        trace(g_trace, 0, "CHKCERT0030");
        return -1;
    }
    trace(g_trace, 1, "CHKCERTFFFF");
    return 0;
}

int check_auth_cert(const AuthCertInfo& cert) {
    trace(g_trace, 1, "CAUTH0000");
    // The fields are fixed arrays: never read past them, even unterminated.
    const size_t user = strnlen(cert.szUser, sizeof cert.szUser);
    if (user < 1 || user > KEMAIL_MAX_USER) {
        trace_word(g_trace, 0, "CAUTH0010", static_cast<uint32_t>(user));
        return -1;
    }
    const size_t password = strnlen(cert.szPassword, sizeof cert.szPassword);
    if (password > KEMAIL_MAX_PASSWORD) {
        trace_word(g_trace, 0, "CAUTH0020", static_cast<uint32_t>(password));
        return -1;
    }
    if ((cert.ulMechanisms & (KEMAIL_MECH_LOGIN | KEMAIL_MECH_PLAIN | KEMAIL_MECH_CRAM_MD5)) == 0) {
        trace_word(g_trace, 0, "CAUTH0030", cert.ulMechanisms);
        return -1;
    }
    trace(g_trace, 1, "CAUTHFFFF");
    return 0;
}

}  // namespace kemail
