// The server's greeting, EHLO with the fall-back to HELO, and the hand-over
// to authentication when the caller asked for SMTP AUTH.
#include "kemail.h"
#include "log/trace_record.h"
#include "smtp/smtp.h"
#include "smtp/smtp_buffers.h"
#include "util/util.h"

#include <cerrno>
#include <cstring>
#include <strings.h>

#include <unistd.h>

using kemail::trace;
using kemail::trace_data;
using kemail::trace_text;
using kemail::trace_word;
using namespace kemail::smtp;

namespace {

constexpr int kNoHostName = -5;
// Authentication was asked for but cannot take place.
constexpr int kAuthImpossible = 2;
constexpr size_t kHostNameSize = 256;

bool wants_smtp_auth(const MailAuthInfo* auth) {
    return auth && auth->SmtpAuthMode == KEMAIL_AUTH_SMTP;
}

// Kept: "smtp0150" here means "authentication wanted but only HELO
// accepted", while SMTP_MAIL uses it for "no reply to MAIL" (dialogue
// greeting-authentication-wanted-but-only-helo-gives-2).
constexpr ExchangeCodes kHelo{.restarts_clock = true,
                              .not_sent = "smtp0125",
                              .sent = "smtp0128",
                              .no_reply = "smtp0130",
                              .reply = "smtp0135",
                              .expect = '2',
                              .refused = "smtp0140",
                              .refused_result = kHeloRefused};
// The EHLO reply is read line by line by SMTP_readEhloReply.
constexpr ExchangeCodes kEhlo{.not_sent = "smtp0121A"};

// EHLO refused: introduce the client with HELO instead. Without EHLO there
// is no AUTH, so a caller who demanded it gets 2.
int introduce_with_helo(int sock, const char* host, const MailAuthInfo* auth,
                        unsigned int* pulErr) {
    trace(g_trace, 0, "smtp0121V");
    const int result = exchange(sock, format_command("HELO %s\r\n", host), kHelo, pulErr);
    if (result != 0) return result;
    if (wants_smtp_auth(auth)) {
        trace(g_trace, 0, "smtp0150");
        return kAuthImpossible;
    }
    trace(g_trace, 1, "smtp01FF");
    return 0;
}

unsigned s_ehlo_extensions = 0;

// The extension a reply line names: its keyword, the text after "250-" or
// "250 " up to a space or the line's end, compared without regard to case.
unsigned extension_named(const char* line, size_t length) {
    static constexpr struct {
        const char* keyword;
        unsigned bit;
    } kKnown[] = {{"STARTTLS", kExtStartTls}, {"PIPELINING", kExtPipelining}};
    if (length < 4) return 0;
    const char* keyword = line + 4;
    size_t keyword_length = 0;
    while (4 + keyword_length < length && keyword[keyword_length] != ' ' &&
           keyword[keyword_length] != '\r' && keyword[keyword_length] != '\n')
        ++keyword_length;
    for (const auto& known : kKnown) {
        if (keyword_length == std::strlen(known.keyword) &&
            strncasecmp(keyword, known.keyword, keyword_length) == 0)
            return known.bit;
    }
    return 0;
}

}  // namespace

unsigned kemail::smtp::ehlo_extensions() noexcept { return s_ehlo_extensions; }

extern "C" {

// Reads the EHLO reply line by line: every line must begin with '2', and the
// last line announcing "AUTH " (as "250-AUTH ..." or "250 AUTH ...") is kept
// in the capability buffer, which holds KEMAIL_RECV_BUF_SIZE bytes.
KEMAIL_API int SMTP_readEhloReply(int lSock, char* pszCapability, unsigned int* pulErr) noexcept {
    unsigned int scratch = 0;
    if (!pulErr) pulErr = &scratch;
    trace(g_trace, 1, "AUTHR0000");
    *pulErr = 0;
    s_ehlo_extensions = 0;
    bool refused = false;
    for (;;) {
        const int result = SMTP_recv(lSock, s_szRecvBuf, KEMAIL_RECV_BUF_SIZE, pulErr);
        if (result != 0) {
            trace_word(g_trace, 0, "AUTHR0005", *pulErr);
            return result;
        }
        const ReplyText line(s_szRecvBuf);
        MailLogWrite(g_pLogHandle, KEMAIL_LOG_RECEIVED, line.text);
        // Kept: one line of the reply that does not begin with '2' refuses
        // the whole EHLO, even after 250 lines (dialogue
        // greeting-500-line-after-250-falls-back-to-helo).
        if (s_szRecvBuf[0] != '2') {
            trace_data(g_trace, 0, "AUTHR0010", line.text, line.length);
            refused = true;
        }
        s_ehlo_extensions |= extension_named(line.text, line.length);
        if (std::strncmp(s_szRecvBuf + 4, "AUTH ", 5) == 0) {
            // A line that filled the reply buffer is cut by one byte here to
            // keep the capability text terminated (test
            // Greeting.AnAuthLineThatFillsTheBufferIsCutToStayTerminated).
            kemail::copy_cut(pszCapability, KEMAIL_RECV_BUF_SIZE, line.text);
            trace_data(g_trace, 2, "AUTHR0015", line.text, line.length);
        }
        if (s_szRecvBuf[3] != '-') {
            trace(g_trace, 2, "AUTHR0020");
            if (!refused) {
                trace(g_trace, 1, "AUTHRFFFF");
                return 0;
            }
            trace(g_trace, 0, "AUTHR0025");
            s_ehlo_extensions = 0;  // the session goes on with HELO
            return 1;
        }
        // Kept: every continuation line gets the whole time-out again, and
        // their number is not capped (test
        // Greeting.EveryEhloContinuationLineRestartsThePhaseClock). A server
        // can hold the session as long as it keeps sending lines, as it could
        // with the data of any reply; each line is bounded by the reply
        // buffer and each silence by the phase time-out, so nothing grows.
        SMTP_SetStartTime();
    }
}

KEMAIL_API int SMTP_initialize(int lSock, const MailAuthInfo* pstAuth,
                               unsigned int* pulErr) noexcept {
    unsigned int scratch = 0;
    if (!pulErr) pulErr = &scratch;
    trace(g_trace, 1, "smtp0100");
    char capability[KEMAIL_RECV_BUF_SIZE];
    std::memset(capability, 0, sizeof capability);

    int result = SMTP_returnMessage(lSock, s_szRecvBuf, KEMAIL_RECV_BUF_SIZE, pulErr);
    if (result != 0) {
        trace_word(g_trace, 0, "smtp0105", *pulErr);
        return result;
    }
    log_reply("smtp0110");
    if (s_szRecvBuf[0] != '2') {
        trace(g_trace, 0, "smtp0115");
        return kGreetingRefused;
    }

    SMTP_SetStartTime();
    char host[kHostNameSize];
    std::memset(host, 0, sizeof host);
    const int named = gethostname(host, sizeof host);
    if (named != 0) {
        const int error = errno;
        *pulErr = static_cast<unsigned int>(error);
        MailLogSysErrWrite(g_pLogHandle, "gethostname", named, error, nullptr);
        trace_word(g_trace, 0, "smtp0120", static_cast<uint32_t>(error));
        return kNoHostName;
    }
    host[sizeof host - 1] = '\0';
    if (host[0] == '\0') {
        trace(g_trace, 0, "smtp0121");
        return kNoHostName;
    }

    // The host name goes out exactly as gethostname gives it.
    result = exchange(lSock, format_command("EHLO %s\r\n", host), kEhlo, pulErr);
    if (result != 0) return result;

    result = SMTP_readEhloReply(lSock, capability, pulErr);
    if (result < 0) {
        trace_word(g_trace, 0, "smtp0121D", *pulErr);
        return result;
    }
    if (starttls_wanted()) {
        result = starttls(lSock, host, result, capability, pulErr);
        if (result < 0) return result;
    }
    if (result == 1) return introduce_with_helo(lSock, host, pstAuth, pulErr);

    if (!wants_smtp_auth(pstAuth)) {
        trace(g_trace, 2, "smtp0121G");
        return 0;
    }
    trace(g_trace, 2, "smtp0121J");
    unsigned int server_mechanisms = 0;
    SMTP_getAuthMechanisms(capability, &server_mechanisms);
    result = SMTP_authenticate(lSock, static_cast<const AuthCertInfo*>(pstAuth->pSettings),
                               server_mechanisms, pulErr);
    if (result != 0) {
        trace_word(g_trace, 0, "smtp0121Q", static_cast<uint32_t>(result));
        trace_word(g_trace, 0, "smtp0121S", *pulErr);
        return result;
    }
    trace(g_trace, 2, "smtp0121M");
    return 0;
}

}  // extern "C"
