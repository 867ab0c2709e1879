// The encodings of SMTP authentication: base64 (its own table and decoder,
// apart from the composition's encoder) and HMAC-MD5 (RFC 2104).
#include "kemail.h"
#include "smtp/auth_codec.h"
#include "util/util.h"

#include <cstring>

namespace {

constexpr char kBase64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Not a base64 digit (the "=" pad, a NUL past the end, anything else).
constexpr int kNoDigit = 64;

int digit_value(unsigned char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return kNoDigit;
}

constexpr int kHmacBlock = 64;

}  // namespace

extern "C" {

KEMAIL_API int Auth_Base64Encode(unsigned char* pIn, char* pszOut, int lLength) noexcept {
    if (lLength < 0) lLength = 0;
    // Three NULs behind the input let the last group read whole.
    pIn[lLength] = pIn[lLength + 1] = pIn[lLength + 2] = 0;
    int out = 0;
    for (int i = 0; i < lLength; i += 3) {
        const unsigned b0 = pIn[i], b1 = pIn[i + 1], b2 = pIn[i + 2];
        pszOut[out++] = kBase64[b0 >> 2];
        pszOut[out++] = kBase64[((b0 & 0x03) << 4) | (b1 >> 4)];
        pszOut[out++] = (i == lLength - 1) ? '=' : kBase64[((b1 & 0x0f) << 2) | (b2 >> 6)];
        pszOut[out++] = (i >= lLength - 2) ? '=' : kBase64[b2 & 0x3f];
    }
    pszOut[out] = '\0';
    return out;
}

// Decoding stops at the first pad or other non-digit in the third or fourth
// place of a group. The text is taken up to its NUL, at most kDecodeInputMax
// characters (a whole reply line), so pOut needs at most kDecodeOutputSize.
KEMAIL_API int Auth_Base64Decode(unsigned char* pOut, const char* pszIn, int lLength) noexcept {
    char text[kemail::auth::kDecodeInputMax + 1];
    size_t length = lLength > 0 && pszIn ? static_cast<size_t>(lLength) : 0;
    if (length > kemail::auth::kDecodeInputMax) length = kemail::auth::kDecodeInputMax;
    if (length > 0) length = strnlen(pszIn, length);
    kemail::copy_cut(text, length + 1, pszIn ? pszIn : "");
    if (length >= 2 && text[length - 2] == '\r' && text[length - 1] == '\n') {
        length -= 2;
        text[length] = '\0';
    }

    auto value_at = [&](size_t i) {
        return i < length ? digit_value(static_cast<unsigned char>(text[i])) : kNoDigit;
    };
    int out = 0;
    for (size_t i = 0; i < length; i += 4) {
        const int c0 = value_at(i), c1 = value_at(i + 1), c2 = value_at(i + 2),
                  c3 = value_at(i + 3);
        pOut[out++] = static_cast<unsigned char>((c0 << 2) | ((c1 & 0x30) >> 4));
        if (c2 == kNoDigit) break;
        pOut[out++] = static_cast<unsigned char>((c1 << 4) | ((c2 & 0x3c) >> 2));
        if (c3 == kNoDigit) break;
        pOut[out++] = static_cast<unsigned char>((c2 << 6) | (c3 & 0x3f));
    }
    pOut[out] = '\0';
    return out;
}

KEMAIL_API void hmac_md5(const unsigned char* pText, int lTextLen, const unsigned char* pKey,
                         int lKeyLen, unsigned char digest[16]) noexcept {
    if (lTextLen < 0) lTextLen = 0;
    if (lKeyLen < 0) lKeyLen = 0;
    unsigned char key_digest[16];
    if (lKeyLen > kHmacBlock) {
        KEMAIL_MD5_CTX context;
        MD5Init(&context);
        MD5Update(&context, pKey, static_cast<unsigned>(lKeyLen));
        MD5Final(key_digest, &context);
        pKey = key_digest;
        lKeyLen = sizeof key_digest;
    }

    unsigned char inner_pad[kHmacBlock + 1] = {};
    unsigned char outer_pad[kHmacBlock + 1] = {};
    if (lKeyLen > 0) {
        std::memcpy(inner_pad, pKey, static_cast<size_t>(lKeyLen));
        std::memcpy(outer_pad, pKey, static_cast<size_t>(lKeyLen));
    }
    for (int i = 0; i < kHmacBlock; ++i) {
        inner_pad[i] ^= 0x36;
        outer_pad[i] ^= 0x5c;
    }

    KEMAIL_MD5_CTX context;
    MD5Init(&context);
    MD5Update(&context, inner_pad, kHmacBlock);
    MD5Update(&context, pText, static_cast<unsigned>(lTextLen));
    MD5Final(digest, &context);

    MD5Init(&context);
    MD5Update(&context, outer_pad, kHmacBlock);
    MD5Update(&context, digest, 16);
    MD5Final(digest, &context);
    // The pads are the key (the password) in light disguise.
    explicit_bzero(inner_pad, sizeof inner_pad);
    explicit_bzero(outer_pad, sizeof outer_pad);
    explicit_bzero(key_digest, sizeof key_digest);
}

}  // extern "C"
