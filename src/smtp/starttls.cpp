// TLS for the SMTP session when the key TLS asks for it: SMTPS right after
// connect, or STARTTLS after the first EHLO with the capabilities taken again
// from the second. Without the key none of this runs.
#include "kemail.h"
#include "log/trace_record.h"
#include "net/secure.h"
#include "options/options.h"
#include "smtp/smtp.h"
#include "smtp/smtp_buffers.h"
#include "util/format.h"
#include "util/util.h"

#include <cerrno>
#include <cstring>
#include <ctime>

using kemail::trace;
using kemail::trace_text;
using kemail::trace_word;
using namespace kemail::smtp;

namespace {

constexpr size_t kReasonSize = 256;
char s_server[KEMAIL_MAX_HOST + 1] = "";
char s_reason[kReasonSize] = "";

// What is left of the current phase, the bound of every wait of the TLS
// session (read without the phase clock's own trace records).
unsigned phase_time_left() {
    const long long left =
        static_cast<long long>(g_ulTimeOut) - static_cast<long long>(time(nullptr) - g_tStartTime);
    if (left <= 0) return 0;
    return left > static_cast<long long>(g_ulTimeOut) ? g_ulTimeOut : static_cast<unsigned>(left);
}

// Handshakes with the configured verification; on failure the reason is
// kept for the caller's message buffer.
int handshake(int sock, unsigned int* pulErr) {
    const kemail::options::Settings settings = kemail::options::current();
    const char* name = settings.tls_server_name[0] != '\0' ? settings.tls_server_name : s_server;
    const kemail::tls::TlsSettings tls{
        .server_name = name, .verify = settings.tls_verify, .ca_file = settings.tls_ca_file};
    if (kemail::net::start_tls(sock, tls, phase_time_left(), phase_time_left, s_reason,
                               sizeof s_reason) != 0) {
        *pulErr = static_cast<unsigned int>(errno);
        return kTlsFailed;
    }
    return 0;
}

void fail(const char* reason) {
    kemail::copy_cut(s_reason, sizeof s_reason, reason);
    kemail::net::log_tls_failure(s_reason);
}

constexpr ExchangeCodes kStartTls{.restarts_clock = true,
                                  .not_sent = "smtp0122C",
                                  .sent = "smtp0122A",
                                  .no_reply = "smtp0122D",
                                  .reply = "smtp0122E",
                                  .expect = '2',
                                  .refused = "smtp0122F",
                                  .refused_result = kTlsFailed};
// The second EHLO's reply is read line by line, as the first one's.
constexpr ExchangeCodes kSecondEhlo{.restarts_clock = true, .not_sent = "smtp0122J"};

}  // namespace

void kemail::smtp::remember_server(const char* name) noexcept {
    copy_cut(s_server, sizeof s_server, name ? name : "");
    s_reason[0] = '\0';
}

bool kemail::smtp::smtps_wanted() noexcept {
    return options::current().tls == options::SmtpTls::Smtps;
}

bool kemail::smtp::starttls_wanted() noexcept {
    return options::current().tls == options::SmtpTls::StartTls;
}

const char* kemail::smtp::tls_failure_reason() noexcept { return s_reason; }

int kemail::smtp::smtps_handshake(int sock, unsigned int* pulErr) noexcept {
    trace_text(g_trace, 2, "smtp0051", s_server);
    if (handshake(sock, pulErr) != 0) {
        trace_text(g_trace, 0, "smtp0052", s_reason);
        return kTlsFailed;
    }
    trace(g_trace, 1, "smtp0053");
    return 0;
}

int kemail::smtp::starttls(int sock, const char* host, int ehlo_result, char* capability,
                           unsigned int* pulErr) noexcept {
    if (ehlo_result != 0 || (ehlo_extensions() & kExtStartTls) == 0) {
        fail("STARTTLS not offered");
        trace(g_trace, 0, "smtp0122B");
        return kTlsFailed;
    }
    // Asking for TLS that cannot be spoken would leave a session that can
    // neither go on in clear nor encrypt.
    if (!net::tls_loadable(s_reason, sizeof s_reason)) {
        trace_text(g_trace, 0, "smtp0122G", s_reason);
        return kTlsFailed;
    }
    int result = exchange(sock, format_command("STARTTLS\r\n"), kStartTls, pulErr);
    if (result == kTlsFailed) {
        const ReplyText reply(s_szRecvBuf);
        size_t length = reply.length;
        while (length > 0 && (reply.text[length - 1] == '\r' || reply.text[length - 1] == '\n'))
            --length;
        char reason[kReasonSize];
        format_into(reason, sizeof reason, Overflow::Cut, "STARTTLS refused: %.*s",
                    static_cast<int>(length), reply.text);
        fail(reason);
        return kTlsFailed;
    }
    if (result != 0) return result;
    result = handshake(sock, pulErr);
    if (result != 0) {
        trace_text(g_trace, 0, "smtp0122G", s_reason);
        return result;
    }
    trace(g_trace, 1, "smtp0122H");

    // Only what the server says inside TLS counts: AUTH offered in clear is
    // forgotten.
    std::memset(capability, 0, KEMAIL_RECV_BUF_SIZE);
    result = exchange(sock, format_command("EHLO %s\r\n", host), kSecondEhlo, pulErr);
    if (result != 0) return result;
    result = SMTP_readEhloReply(sock, capability, pulErr);
    if (result < 0) trace_word(g_trace, 0, "smtp0122K", *pulErr);
    return result;
}
