// The composition's base64 encoder (RFC 4648 alphabet, no line breaks).
#include "compose/compose.h"

#include <array>
#include <cstring>

namespace kemail {
namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Two output characters for every 12-bit value: one table look-up per half
// group keeps a 100 MiB attachment well inside a fraction of a second.
struct PairTable {
    std::array<char, 4096 * 2> chars{};
    constexpr PairTable() {
        for (int v = 0; v < 4096; ++v) {
            chars[v * 2] = kAlphabet[v >> 6];
            chars[v * 2 + 1] = kAlphabet[v & 0x3F];
        }
    }
};
constexpr PairTable kPairs;

}  // namespace

size_t base64_encode(const unsigned char* in, size_t length, char* out) {
    char* o = out;
    size_t i = 0;
    for (; i + 3 <= length; i += 3) {
        const unsigned v = (unsigned(in[i]) << 16) | (unsigned(in[i + 1]) << 8) | in[i + 2];
        std::memcpy(o, &kPairs.chars[(v >> 12) * 2], 2);
        std::memcpy(o + 2, &kPairs.chars[(v & 0xFFF) * 2], 2);
        o += 4;
    }
    const size_t rest = length - i;
    if (rest != 0) {
        const unsigned v = (unsigned(in[i]) << 16) | (rest == 2 ? unsigned(in[i + 1]) << 8 : 0u);
        o[0] = kAlphabet[(v >> 18) & 0x3F];
        o[1] = kAlphabet[(v >> 12) & 0x3F];
        o[2] = rest == 2 ? kAlphabet[(v >> 6) & 0x3F] : '=';
        o[3] = '=';
        o += 4;
    }
    *o = '\0';
    return static_cast<size_t>(o - out);
}

}  // namespace kemail

extern "C" KEMAIL_API int SMTP_toBase64(unsigned char* pIn, char* pszOut, int lLength) noexcept {
    if (pszOut == nullptr) return 0;
    if (pIn == nullptr || lLength < 0) {
        pszOut[0] = '\0';
        return 0;
    }
    // Kept: the input is padded in place with three zero bytes, which the
    // caller's buffer must have room for (test Base64.PadsTheInputInPlace).
    pIn[lLength] = 0;
    pIn[lLength + 1] = 0;
    pIn[lLength + 2] = 0;
    return static_cast<int>(kemail::base64_encode(pIn, static_cast<size_t>(lLength), pszOut));
}
