// Shift_JIS to JIS X 0208 codes, and Shift_JIS text to ISO-2022-JP.
#include "compose/compose.h"

#include <cstdint>

namespace kemail {
namespace {

constexpr char kToJis0208[] = "\x1b$B";
constexpr char kToRoman[] = "\x1b(J";
constexpr size_t kEscapeLength = 3;

}  // namespace

size_t to_iso2022(const char* src, char* out, size_t size) {
    if (size == 0) return 0;
    const unsigned char* s = reinterpret_cast<const unsigned char*>(src ? src : "");
    size_t n = 0;
    bool double_byte = false;
    // Room left for the bytes of one step plus what always has to follow
    // them: the closing ESC ( J in double-byte mode, and the NUL.
    auto fits = [&](size_t step, bool ends_double) {
        size_t need = step + (ends_double ? kEscapeLength : 0) + 1;
        return need <= size - n;
    };
    auto put = [&](const char* bytes, size_t count) {
        for (size_t k = 0; k < count; ++k) out[n++] = bytes[k];
    };

    // A line that begins with "." is dot-stuffed for the SMTP data phase.
    if (s[0] == '.' && fits(1, false)) out[n++] = '.';

    while (*s != 0) {
        if (is_sjis_lead(*s)) {
            // Kept: a lone lead byte at the end pairs with the terminating
            // NUL (the fallback gives the lead byte itself); conversion then
            // stops at the terminator (test Iso2022.LoneLeadByteStopsAtTheEnd).
            const unsigned char trail = s[1];
            const int jis = SMTP_sjistojis((s[0] << 8) | trail);
            const size_t step = (double_byte ? 0 : kEscapeLength) + 2;
            if (!fits(step, true)) break;
            if (!double_byte) {
                put(kToJis0208, kEscapeLength);
                double_byte = true;
            }
            out[n++] = static_cast<char>((jis >> 8) & 0xFF);
            out[n++] = static_cast<char>(jis & 0xFF);
            s += trail != 0 ? 2 : 1;
        } else {
            const size_t step = (double_byte ? kEscapeLength : 0) + 1;
            if (!fits(step, false)) break;
            if (double_byte) {
                put(kToRoman, kEscapeLength);
                double_byte = false;
            }
            out[n++] = static_cast<char>(*s);
            ++s;
        }
    }
    if (double_byte) put(kToRoman, kEscapeLength);
    out[n] = '\0';
    return n;
}

}  // namespace kemail

extern "C" {

KEMAIL_API int SMTP_sjistojis(int lCode) noexcept {
    const int h = (lCode >> 8) & 0xFF;
    const int l = lCode & 0xFF;
    const int v = h * 512 + l;
    int base;
    if (h >= 0x81 && h <= 0x9F) {
        base = 0;
    } else if (h >= 0xE0 && h <= 0xEF) {
        base = 0x16120 - 0xE120;  // the second lead-byte block sits 0x8000 rows higher
    } else {
        return 0;
    }
    if (l >= 0x40 && l <= 0x7E) return v - 0xE11F - base;
    if (l >= 0x80 && l <= 0x9E) return v - 0xE120 - base;
    if (l >= 0x9F && l <= 0xFC) return v - 0xE07E - base;
    // Kept: an invalid trail byte gives the OR of both bytes, a value below
    // 256 (test SjisToJis.InvalidTrailGivesTheOrOfBothBytes).
    return h | l;
}

KEMAIL_API void SMTP_toISO2022(const char* pszSrc, char* pszDst) noexcept {
    if (pszDst == nullptr) return;
    // The caller's buffer has no stated size; its callers size it for the
    // worst case of their own input.
    kemail::to_iso2022(pszSrc, pszDst, SIZE_MAX);
}

}  // extern "C"
