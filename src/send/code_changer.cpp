// The one place where the internal codes of the SMTP and composition layers
// become the public results of a send.
#include "send/send_internal.h"

#include "log/trace_record.h"
#include "smtp/smtp.h"
#include "util/format.h"

namespace kemail {

// Kept: CHANGE0010 and CHANGE0020 are also records of the line converter,
// with other meanings (test SendTrace.CodeChangerAndLineConverterShareChange0010And0020).
int change_code(int internal) {
    trace_word(g_trace, 1, "CHANGE0000", static_cast<uint32_t>(internal));
    int result;
    const char* record;
    if (internal >= -33 && internal <= -31) {
        result = KEMAIL_E_WORK_FILE, record = "CHANGE0050";
    } else if (internal == smtp::kTlsFailed) {
        result = KEMAIL_E_TLS, record = "CHANGE0070";
    } else if (internal >= -27 && internal <= -21) {
        result = KEMAIL_E_REFUSED, record = "CHANGE0030";
    } else if (internal == -11) {
        result = KEMAIL_E_NO_MEMORY, record = "CHANGE0040";
    } else if (internal == -6) {
        result = KEMAIL_E_TIMEOUT, record = "CHANGE0020";
    } else if (internal == -5 || internal == -2) {
        result = KEMAIL_E_UNREACHABLE, record = "CHANGE0005";
    } else if (internal == -4 || internal == -3 || internal == -1) {
        result = KEMAIL_E_SOCKET, record = "CHANGE0010";
    } else {
        trace_word(g_trace, 0, "CHANGE0060", static_cast<uint32_t>(internal));
        return KEMAIL_E_INTERNAL;
    }
    trace(g_trace, 2, record);
    trace_word(g_trace, 1, "CHANGEFFFF", static_cast<uint32_t>(result));
    return result;
}

void put_number(char* message, unsigned value) {
    format_into(message, KEMAIL_MESSAGE_SIZE, Overflow::Cut, "%d", static_cast<int>(value));
}

}  // namespace kemail
