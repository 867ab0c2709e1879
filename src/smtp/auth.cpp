// SMTP AUTH: which mechanisms both sides allow, the order they are tried in
// (CRAM-MD5, PLAIN, LOGIN), and the exchange of each. Passwords never reach
// the mail log; the log gets "******" in their place.
#include "kemail.h"
#include "log/trace_record.h"
#include "smtp/auth_codec.h"
#include "smtp/smtp.h"
#include "smtp/smtp_buffers.h"
#include "util/util.h"

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

// Every line of an exchange gets a fresh phase clock; a refusal (a reply
// without the expected digit) gives 3 and the next mechanism is tried.
// Kept: CRAM-MD5 traces its two replies under the PLAIN codes INPLAN0012 and
// INPLAN0030 (dialogue auth-only-cram-md5-is-tried-when-it-succeeds).
constexpr ExchangeCodes kCramStart{.restarts_clock = true,
                                   .not_sent = "INCRAM0005",
                                   .no_reply = "INCRAM0010",
                                   .reply = "INPLAN0012",
                                   .expect = '3',
                                   .refused = "INCRAM0015",
                                   .refused_result = kRefused};
// Kept: the response's not-sent trace reuses INCRAM0020, the code that
// traced the response itself at level 2 (test
// AuthDialogue.CramResponseNotSentReusesItsTraceCode).
constexpr ExchangeCodes kCramResponse{.restarts_clock = true,
                                      .not_sent = "INCRAM0020",
                                      .no_reply = "INCRAM0025",
                                      .reply = "INPLAN0030",
                                      .expect = '2',
                                      .accepted = "INCRAMFFFF",
                                      .refused = "INCRAM0040",
                                      .refused_result = kRefused};
constexpr ExchangeCodes kPlain{.restarts_clock = true,
                               .not_sent = "INPLAN0010",
                               .no_reply = "INPLAN0015",
                               .reply = "INPLAN0020",
                               .expect = '2',
                               .accepted = "INPLANFFFF",
                               .refused = "INPLAN0025",
                               .refused_result = kRefused};
constexpr ExchangeCodes kLoginStart{.restarts_clock = true,
                                    .not_sent = "INLGIN0005",
                                    .no_reply = "INLGIN0010",
                                    .reply = "INLGIN0015",
                                    .expect = '3',
                                    .refused = "INLGIN0020",
                                    .refused_result = kRefused};
constexpr ExchangeCodes kLoginUser{.restarts_clock = true,
                                   .not_sent = "INLGIN0035",
                                   .no_reply = "INLGIN0040",
                                   .reply = "INLGIN0045",
                                   .expect = '3',
                                   .refused = "INLGIN0050",
                                   .refused_result = kRefused};
constexpr ExchangeCodes kLoginPassword{.restarts_clock = true,
                                       .not_sent = "INLGIN0055",
                                       .no_reply = "INLGIN0060",
                                       .reply = "INLGIN0065",
                                       .expect = '2',
                                       .accepted = "INLGINFFFF",
                                       .refused = "INLGIN0070",
                                       .refused_result = kRefused};

// The credentials as NUL-terminated texts of at most 64 characters, whatever
// the caller left in the record's fixed fields.
struct Credentials {
    explicit Credentials(const AuthCertInfo* cert) {
        kemail::copy_cut(user, sizeof user, cert ? cert->szUser : "");
        kemail::copy_cut(password, sizeof password, cert ? cert->szPassword : "");
    }
    ~Credentials() { explicit_bzero(password, sizeof password); }
    char user[KEMAIL_MAX_USER + 1];
    char password[KEMAIL_MAX_PASSWORD + 1];
};

// An encoded AUTH string on the stack, cleared when it goes.
template <size_t N>
struct SecretText {
    SecretText() = default;
    SecretText(const SecretText&) = delete;
    SecretText& operator=(const SecretText&) = delete;
    ~SecretText() { explicit_bzero(text, sizeof text); }
    char text[N] = {};
};

// A response line "%s\r\n"; the encoded texts always fit the command buffer.
int format_response(const char* encoded) { return format_command("%s\r\n", encoded); }

}  // namespace

extern "C" {

KEMAIL_API void SMTP_getAuthMechanisms(const char* pszLine, unsigned int* pulMask) noexcept {
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
                                 unsigned int* pulErr) noexcept {
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

KEMAIL_API int SMTP_authCramMd5(int lSock, const AuthCertInfo* pstCert,
                                unsigned int* pulErr) noexcept {
    unsigned int scratch = 0;
    if (!pulErr) pulErr = &scratch;
    trace(g_trace, 1, "INCRAM0000");
    const int result = exchange(lSock, format_command("AUTH CRAM-MD5\r\n"), kCramStart, pulErr);
    if (result != 0) return result;

    // The challenge follows "334 "; a shorter line carries none.
    const ReplyText reply(s_szRecvBuf);
    const char* challenge = reply.length > 4 ? reply.text + 4 : "";
    const Credentials credentials(pstCert);
    SecretText<kemail::auth::kCramOutputSize> response;
    Auth_GetCertCramString(credentials.user, credentials.password, challenge, response.text);
    // Kept: the response, a function of the password, is traced at level 2
    // (test AuthDialogue.TheTraceCarriesTheAuthStrings).
    trace_text(g_trace, 2, "INCRAM0020", response.text);
    return exchange(lSock, format_response(response.text), kCramResponse, pulErr, kHiddenPassword);
}

// The initial response travels in the command itself.
KEMAIL_API int SMTP_authPlain(int lSock, const AuthCertInfo* pstCert,
                              unsigned int* pulErr) noexcept {
    unsigned int scratch = 0;
    if (!pulErr) pulErr = &scratch;
    trace(g_trace, 1, "INPLAN0000");
    const Credentials credentials(pstCert);
    SecretText<kemail::auth::kPlainOutputSize> encoded;
    Auth_GetCertPlainString(credentials.user, credentials.password, encoded.text);
    // Kept: the PLAIN string carries the password in base64 and is traced at
    // level 2 (test AuthDialogue.TheTraceCarriesTheAuthStrings).
    trace_text(g_trace, 2, "INPLAN0005", encoded.text);
    return exchange(lSock, format_command("AUTH PLAIN %s\r\n", encoded.text), kPlain, pulErr,
                    "AUTH PLAIN ******");
}

// The server's prompts are not read; only their codes count.
KEMAIL_API int SMTP_authLogin(int lSock, const AuthCertInfo* pstCert,
                              unsigned int* pulErr) noexcept {
    unsigned int scratch = 0;
    if (!pulErr) pulErr = &scratch;
    trace(g_trace, 1, "INLGIN0000");
    int result = exchange(lSock, format_command("AUTH LOGIN\r\n"), kLoginStart, pulErr);
    if (result != 0) return result;

    const Credentials credentials(pstCert);
    char user[kemail::auth::kLoginOutputSize];
    SecretText<kemail::auth::kLoginOutputSize> password;
    Auth_GetCertLoginString(credentials.user, credentials.password, user, password.text);
    // Kept: the encoded user and password are traced at level 2 (test
    // AuthDialogue.TheTraceCarriesTheAuthStrings).
    trace_text(g_trace, 2, "INLGIN0025", user);
    trace_text(g_trace, 2, "INLGIN0030", password.text);

    result = exchange(lSock, format_response(user), kLoginUser, pulErr);
    if (result != 0) return result;
    return exchange(lSock, format_response(password.text), kLoginPassword, pulErr, kHiddenPassword);
}

}  // extern "C"
