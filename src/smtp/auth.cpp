// SMTP AUTH: which mechanisms both sides allow, the order they are tried in
// (CRAM-MD5, PLAIN, LOGIN), and the exchange of each. Passwords never reach
// the mail log; the log gets "******" in their place.
#include "kemail.h"
#include "log/trace_record.h"
#include "smtp/auth_codec.h"
#include "smtp/smtp.h"
#include "smtp/smtp_buffers.h"

#include <cstring>

using kemail::trace;
using kemail::trace_text;
using kemail::trace_word;
using namespace kemail::smtp;

namespace {

// Result of an exchange the server refused; the next mechanism is tried.
constexpr int kRefused = 3;
// Result when no mechanism is allowed by both sides.
constexpr int kNoCommonMechanism = 2;

constexpr char kHiddenPassword[] = "******";

// The credentials as NUL-terminated texts of at most 64 characters, whatever
// the caller left in the record's fixed fields.
struct Credentials {
    explicit Credentials(const AuthCertInfo* cert) {
        copy(user, cert ? cert->szUser : "");
        copy(password, cert ? cert->szPassword : "");
    }
    ~Credentials() { std::memset(password, 0, sizeof password); }
    char user[KEMAIL_MAX_USER + 1];
    char password[KEMAIL_MAX_PASSWORD + 1];

private:
    template <size_t N>
    static void copy(char (&dst)[N], const char* src) {
        const size_t length = strnlen(src, N - 1);
        std::memcpy(dst, src, length);
        dst[length] = '\0';
    }
};

// Sends one line of an exchange with a fresh phase clock; the mail log gets
// `logged` (the line itself, or a text that hides the password).
int send_auth_line(int sock, int length, const char* logged, const char* not_sent_code,
                   unsigned int* pulErr) {
    SMTP_SetStartTime();
    const int result = send_command(sock, length, not_sent_code, pulErr);
    if (result != 0) return result;
    MailLogWrite(g_pLogHandle, KEMAIL_LOG_SENT, logged ? logged : s_szSendBuf);
    return 0;
}

// A response line "%s\r\n"; the encoded texts always fit the command buffer.
int format_response(const char* encoded) { return format_command("%s\r\n", encoded); }

}  // namespace

extern "C" {

KEMAIL_API void SMTP_getAuthMechanisms(const char* pszLine, unsigned int* pulMask) {
    trace(g_trace, 1, "GTAINF0000");
    const char* line = pszLine ? pszLine : "";
    trace_text(g_trace, 2, "GTAINF0005", line);
    unsigned int mask = 0;
    if (std::strstr(line, " LOGIN")) {
        mask += KEMAIL_MECH_LOGIN;
        trace_word(g_trace, 2, "GTAINF0010", mask);
    }
    if (std::strstr(line, " PLAIN")) {
        mask += KEMAIL_MECH_PLAIN;
        trace_word(g_trace, 2, "GTAINF0015", mask);
    }
    if (std::strstr(line, " CRAM-MD5")) {
        mask += KEMAIL_MECH_CRAM_MD5;
        trace_word(g_trace, 2, "GTAINF0020", mask);
    }
    trace_word(g_trace, 1, "GTAINFFFFF", mask);
    if (pulMask) *pulMask = mask;
}

// Tries every mechanism both sides allow, strongest first, on the same
// connection (no RSET between them), until one is accepted.
KEMAIL_API int SMTP_authenticate(int lSock, const AuthCertInfo* pstCert, unsigned int ulServerMask,
                                 unsigned int* pulErr) {
    unsigned int scratch = 0;
    if (!pulErr) pulErr = &scratch;
    trace(g_trace, 1, "INIAH0000");
    *pulErr = 0;
    const unsigned int allowed = pstCert ? pstCert->ulMechanisms : 0;
    const unsigned int usable = allowed & ulServerMask;
    trace_word(g_trace, 2, "INIAH0005", usable);
    trace_word(g_trace, 2, "INIAH0010", allowed);
    if (usable == 0) {
        trace(g_trace, 0, "INIAH0015");
        return kNoCommonMechanism;
    }

    struct Attempt {
        unsigned int mechanism;
        int (*run)(int, const AuthCertInfo*, unsigned int*);
        const char* start_code;
        const char* accepted_code;
        const char* failed_code;
    };
    static constexpr Attempt kOrder[] = {
        {KEMAIL_MECH_CRAM_MD5, SMTP_authCramMd5, "INIAH0020", "INIAH0025", "INIAH0030"},
        {KEMAIL_MECH_PLAIN, SMTP_authPlain, "INIAH0035", "INIAH0040", "INIAH0045"},
        {KEMAIL_MECH_LOGIN, SMTP_authLogin, "INIAH0050", "INIAH0055", "INIAH0060"},
    };
    for (const Attempt& attempt : kOrder) {
        if ((usable & attempt.mechanism) == 0) continue;
        trace(g_trace, 0, attempt.start_code);
        const int result = attempt.run(lSock, pstCert, pulErr);
        if (result == 0) {
            trace(g_trace, 2, attempt.accepted_code);
            return 0;
        }
        trace_word(g_trace, 0, attempt.failed_code, static_cast<uint32_t>(result));
        if (result < 0) return result;
    }
    trace(g_trace, 1, "INIAHFFFF");
    return kRefused;
}

KEMAIL_API int SMTP_authCramMd5(int lSock, const AuthCertInfo* pstCert, unsigned int* pulErr) {
    unsigned int scratch = 0;
    if (!pulErr) pulErr = &scratch;
    trace(g_trace, 1, "INCRAM0000");
    int result = send_auth_line(lSock, format_command("AUTH CRAM-MD5\r\n"), nullptr, "INCRAM0005",
                                pulErr);
    if (result != 0) return result;
    if ((result = read_reply(lSock, "INCRAM0010", pulErr)) != 0) return result;
    // This exchange shares two reply codes with PLAIN.
    log_reply("INPLAN0012");
    if (s_szRecvBuf[0] != '3') {
        trace(g_trace, 0, "INCRAM0015");
        return kRefused;
    }

    // The challenge follows "334 "; a shorter line carries none.
    const ReplyText reply(s_szRecvBuf);
    const char* challenge = reply.length > 4 ? reply.text + 4 : "";
    const Credentials credentials(pstCert);
    char response[kemail::auth::kCramOutputSize];
    Auth_GetCertCramString(credentials.user, credentials.password, challenge, response);
    trace_text(g_trace, 2, "INCRAM0020", response);

    result = send_auth_line(lSock, format_response(response), kHiddenPassword, "INCRAM0020",
                            pulErr);
    if (result != 0) return result;
    if ((result = read_reply(lSock, "INCRAM0025", pulErr)) != 0) return result;
    log_reply("INPLAN0030");
    if (s_szRecvBuf[0] == '2') {
        trace(g_trace, 1, "INCRAMFFFF");
        return 0;
    }
    trace(g_trace, 0, "INCRAM0040");
    return kRefused;
}

// The initial response travels in the command itself.
KEMAIL_API int SMTP_authPlain(int lSock, const AuthCertInfo* pstCert, unsigned int* pulErr) {
    unsigned int scratch = 0;
    if (!pulErr) pulErr = &scratch;
    trace(g_trace, 1, "INPLAN0000");
    const Credentials credentials(pstCert);
    char encoded[kemail::auth::kPlainOutputSize];
    Auth_GetCertPlainString(credentials.user, credentials.password, encoded);
    trace_text(g_trace, 2, "INPLAN0005", encoded);

    int result = send_auth_line(lSock, format_command("AUTH PLAIN %s\r\n", encoded),
                                "AUTH PLAIN ******", "INPLAN0010", pulErr);
    if (result != 0) return result;
    if ((result = read_reply(lSock, "INPLAN0015", pulErr)) != 0) return result;
    log_reply("INPLAN0020");
    if (s_szRecvBuf[0] == '2') {
        trace(g_trace, 1, "INPLANFFFF");
        return 0;
    }
    trace(g_trace, 0, "INPLAN0025");
    return kRefused;
}

// The server's prompts are not read; only their codes count.
KEMAIL_API int SMTP_authLogin(int lSock, const AuthCertInfo* pstCert, unsigned int* pulErr) {
    unsigned int scratch = 0;
    if (!pulErr) pulErr = &scratch;
    trace(g_trace, 1, "INLGIN0000");
    int result =
        send_auth_line(lSock, format_command("AUTH LOGIN\r\n"), nullptr, "INLGIN0005", pulErr);
    if (result != 0) return result;
    if ((result = read_reply(lSock, "INLGIN0010", pulErr)) != 0) return result;
    log_reply("INLGIN0015");
    if (s_szRecvBuf[0] != '3') {
        trace(g_trace, 0, "INLGIN0020");
        return kRefused;
    }

    const Credentials credentials(pstCert);
    char user[kemail::auth::kLoginOutputSize];
    char password[kemail::auth::kLoginOutputSize];
    Auth_GetCertLoginString(credentials.user, credentials.password, user, password);
    trace_text(g_trace, 2, "INLGIN0025", user);
    trace_text(g_trace, 2, "INLGIN0030", password);

    result = send_auth_line(lSock, format_response(user), nullptr, "INLGIN0035", pulErr);
    if (result != 0) return result;
    if ((result = read_reply(lSock, "INLGIN0040", pulErr)) != 0) return result;
    log_reply("INLGIN0045");
    if (s_szRecvBuf[0] != '3') {
        trace(g_trace, 0, "INLGIN0050");
        return kRefused;
    }

    result = send_auth_line(lSock, format_response(password), kHiddenPassword, "INLGIN0055",
                            pulErr);
    if (result != 0) return result;
    if ((result = read_reply(lSock, "INLGIN0060", pulErr)) != 0) return result;
    log_reply("INLGIN0065");
    if (s_szRecvBuf[0] == '2') {
        trace(g_trace, 1, "INLGINFFFF");
        return 0;
    }
    trace(g_trace, 0, "INLGIN0070");
    return kRefused;
}

}  // extern "C"
