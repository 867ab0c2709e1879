// TLS for the POP3 connection of POP before SMTP (key POP_TLS): STLS after
// the greeting (RFC 2595) or TLS from the first byte.
#include "kemail.h"

#include "log/trace_record.h"
#include "net/secure.h"
#include "options/options.h"
#include "pop3/pop3_internal.h"
#include "util/format.h"
#include "util/util.h"

#include <cerrno>
#include <cstdint>
#include <cstring>

namespace kemail {

namespace {

// Every wait of the TLS session is bounded like a reply's silence.
unsigned pop_time_left() { return g_ulPopTimeOut; }

constexpr char kStlsCommand[] = "STLS\r\n";
constexpr Pop3Codes kStls{.before = "Pop3_0d00",
                          .not_sent = "Pop3_0d10",
                          .no_reply = "Pop3_0d20",
                          .refused = "Pop3_0d30",
                          .refused_result = kPop3TlsFailed};

// The reply line without its line end, after "STLS refused: ".
void refused_reason(char* reply) {
    char line[KEMAIL_MESSAGE_SIZE];
    copy_cut(line, sizeof line, reply);
    size_t length = std::strlen(line);
    while (length > 0 && (line[length - 1] == '\r' || line[length - 1] == '\n'))
        line[--length] = '\0';
    format_into(reply, KEMAIL_MESSAGE_SIZE, Overflow::Cut, "STLS refused: %s", line);
    net::log_tls_failure(reply);
}

}  // namespace

int pop3_start_tls(int sock, const char* server, bool stls, char* reply, int* err,
                   TraceHandle* trace) {
    int unused_err = 0;
    if (!err) err = &unused_err;
    char reason[KEMAIL_MESSAGE_SIZE] = "";
    if (!net::tls_loadable(reason, sizeof reason)) {
        trace_text(trace, 0, "Pop3_0d40", reason);
        copy_cut(reply, KEMAIL_MESSAGE_SIZE, reason);
        return kPop3TlsFailed;
    }
    if (stls) {
        const int result =
            pop3_exchange(sock, {kStlsCommand, sizeof kStlsCommand - 1}, kStls, reply, err, trace);
        if (result == kPop3TlsFailed) refused_reason(reply);
        if (result != 0) return result;
    }
    const options::Settings settings = options::current();
    const tls::TlsSettings tls{
        .server_name = settings.tls_server_name[0] != '\0' ? settings.tls_server_name : server,
        .verify = settings.tls_verify,
        .ca_file = settings.tls_ca_file};
    if (net::start_tls(sock, tls, g_ulPopTimeOut, pop_time_left, reason, sizeof reason) != 0) {
        *err = errno;
        trace_text(trace, 0, "Pop3_0d40", reason);
        copy_cut(reply, KEMAIL_MESSAGE_SIZE, reason);
        return kPop3TlsFailed;
    }
    kemail::trace(trace, 1, "Pop3_0dff");
    return 0;
}

}  // namespace kemail
