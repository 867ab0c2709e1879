// The base64 responses of the three authentication mechanisms. Inputs beyond
// the bounds of auth_codec.h are cut, so the outputs never outgrow the
// buffers their callers give.
#include "kemail.h"
#include "log/trace_record.h"
#include "smtp/auth_codec.h"
#include "util/format.h"
#include "util/util.h"

#include <cstring>

using kemail::trace;
using kemail::trace_data;
using kemail::trace_text;
using namespace kemail::auth;

namespace {

const char* or_empty(const char* text) { return text ? text : ""; }

// Copies at most `max` bytes of text to dst, NUL behind them, and returns
// how many; dst has room for max + 1 bytes.
size_t copy_bounded(unsigned char* dst, const char* text, size_t max) {
    return kemail::copy_cut(reinterpret_cast<char*>(dst), max + 1, text);
}

}  // namespace

extern "C" {

// user NUL user NUL password: the authorisation identity is the user itself.
// Kept: the password is traced at level 2 (AHPLA0010, like AHLGIN0010 and
// AHCRAM0010), and the exit AHPLAFFFF at level 2 rather than 1 (test
// AuthBuilders.TracesCarryTheDiagnosticTexts).
KEMAIL_API int Auth_GetCertPlainString(const char* pszUser, const char* pszPassword,
                                       char* pszOut) noexcept {
    pszUser = or_empty(pszUser);
    pszPassword = or_empty(pszPassword);
    trace(g_trace, 1, "AHPLA0000");
    trace_text(g_trace, 2, "AHPLA0005", pszUser);
    trace_text(g_trace, 2, "AHPLA0010", pszPassword);

    unsigned char work[kPlainWorkSize];
    size_t length = copy_bounded(work, pszUser, kPlainUserMax);
    const size_t user_length = length;
    work[length++] = '\0';
    std::memcpy(work + length, work, user_length);
    length += user_length;
    work[length++] = '\0';
    length += copy_bounded(work + length, pszPassword, kPlainPasswordMax);
    Auth_Base64Encode(work, pszOut, static_cast<int>(length));
    explicit_bzero(work, sizeof work);

    trace(g_trace, 2, "AHPLAFFFF");
    return 0;
}

KEMAIL_API int Auth_GetCertLoginString(const char* pszUser, const char* pszPassword,
                                       char* pszOutUser, char* pszOutPassword) noexcept {
    pszUser = or_empty(pszUser);
    pszPassword = or_empty(pszPassword);
    trace(g_trace, 1, "AHLGIN0000");
    trace_text(g_trace, 2, "AHLGIN0005", pszUser);
    trace_text(g_trace, 2, "AHLGIN0010", pszPassword);

    unsigned char user[kLoginOutputSize];
    unsigned char password[kLoginOutputSize];
    const size_t user_length = copy_bounded(user, pszUser, kLoginInputMax);
    const size_t password_length = copy_bounded(password, pszPassword, kLoginInputMax);
    Auth_Base64Encode(user, pszOutUser, static_cast<int>(user_length));
    Auth_Base64Encode(password, pszOutPassword, static_cast<int>(password_length));
    explicit_bzero(password, sizeof password);

    trace(g_trace, 2, "AHLGIN0015");
    trace(g_trace, 1, "AHLGINFFFF");
    return 0;
}

// RFC 2195: base64 of "user hexdigest", the digest being HMAC-MD5 of the
// decoded challenge keyed with the password.
KEMAIL_API int Auth_GetCertCramString(const char* pszUser, const char* pszPassword,
                                      const char* pszChallenge, char* pszOut) noexcept {
    pszUser = or_empty(pszUser);
    pszPassword = or_empty(pszPassword);
    pszChallenge = or_empty(pszChallenge);
    trace(g_trace, 1, "AHCRAM0000");
    trace_text(g_trace, 2, "AHCRAM0005", pszUser);
    trace_text(g_trace, 2, "AHCRAM0010", pszPassword);
    trace_data(g_trace, 2, "AHCRAM0015", pszChallenge, strnlen(pszChallenge, kDecodeInputMax));

    unsigned char challenge[kDecodeOutputSize];
    Auth_Base64Decode(challenge, pszChallenge,
                      static_cast<int>(strnlen(pszChallenge, kDecodeInputMax)));

    // The decoded challenge and the password are taken up to their NULs.
    unsigned char digest[16];
    hmac_md5(challenge, static_cast<int>(std::strlen(reinterpret_cast<char*>(challenge))),
             reinterpret_cast<const unsigned char*>(pszPassword),
             static_cast<int>(std::strlen(pszPassword)), digest);
    if (digest[0] == 0) trace(g_trace, 2, "AHCRAM0020");

    static constexpr char kHex[] = "0123456789abcdef";
    char hex[33];
    for (int i = 0; i < 16; ++i) {
        hex[2 * i] = kHex[digest[i] >> 4];
        hex[2 * i + 1] = kHex[digest[i] & 0x0f];
    }
    hex[32] = '\0';

    // Three spare bytes behind the text for the encoder.
    unsigned char response[kCramTextMax + 1 + 3];
    const int length = kemail::format_into(reinterpret_cast<char*>(response), kCramTextMax + 1,
                                           kemail::Overflow::Cut, "%s %s", pszUser, hex);
    Auth_Base64Encode(response, pszOut, length);

    trace(g_trace, 1, "AHCRAMFFFF");
    return 0;
}

}  // extern "C"
