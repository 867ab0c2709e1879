// EUC-JP <-> Shift_JIS through iconv, and the locale tables that tell which
// of the two the caller's text is in.
#include "compose/compose.h"

#include "util/unique_fd.h"

#include <cstdlib>
#include <cstring>

namespace kemail {
namespace {

const iconv_t kNoConverter = reinterpret_cast<iconv_t>(-1);

bool is_known_code(const char* name) {
    return name != nullptr && (std::strcmp(name, "eucJP") == 0 || std::strcmp(name, "SJIS") == 0);
}

size_t min_size(size_t a, size_t b) { return a < b ? a : b; }

// One iconv call into a zeroed work buffer of work_size bytes. Delivers the
// converted text (cut to the caller's capacity), or after a failure the
// converted prefix, or when nothing converted the hexadecimal form of the
// input from the first byte iconv did not take.
int convert(iconv_t cd, unsigned int in_length, const char* in, unsigned int out_capacity,
            char* out, unsigned int* out_length, size_t work_size) {
    if (in == nullptr || out == nullptr || cd == kNoConverter || cd == nullptr) return -1;
    UniqueMalloc<char> work(static_cast<char*>(std::calloc(work_size, 1)));
    if (!work) return -1;
    unsigned int ignored = 0;
    if (out_length == nullptr) out_length = &ignored;
    *out_length = 0;

    char* in_next = const_cast<char*>(in);
    size_t in_left = in_length;
    char* out_next = work.get();
    // The work buffer holds the worst case of the direction; never let iconv
    // write past it even when the caller claims more room.
    size_t out_left = min_size(out_capacity, work_size - 1);
    const size_t result = iconv(cd, &in_next, &in_left, &out_next, &out_left);
    // What was converted ends where iconv says: a converter may already have
    // stored the first byte of a character it then found no room for.
    *out_next = '\0';

    const char* text = work.get();
    UniqueMalloc<char> hex;
    int status = 0;
    if (result == static_cast<size_t>(-1)) {
        status = -2;
        if (work.get()[0] == '\0') {
            const size_t rest = strnlen(in_next, in_left);
            hex.reset(static_cast<char*>(std::malloc(2 * rest + 1)));
            if (!hex) return -1;
            to_hex(reinterpret_cast<const unsigned char*>(in_next), rest, hex.get());
            text = hex.get();
        }
    }
    const size_t delivered = min_size(std::strlen(text), out_capacity);
    std::memcpy(out, text, delivered);
    *out_length = static_cast<unsigned int>(delivered);
    return status == 0 ? static_cast<int>(delivered) : status;
}

}  // namespace
}  // namespace kemail

using namespace kemail;

// The single-declaration form "extern "C" KEMAIL_API const" keeps the tables
// exported (inside an extern "C" block GCC drops the visibility attribute).
extern "C" KEMAIL_API const LangInfo stEucLangInfo[] = {
    {1, "ja_JP.euc"}, {1, "eucJP"},      {1, "EUC"},         {1, "euc"}, {1, "ja"},
    {1, "ja_JP"},     {1, "ja_JP.ujis"}, {2, "ja_JP.eucJP"}, {0, ""},
};

extern "C" KEMAIL_API const LangInfo stSjisLangInfo[] = {
    {1, "ja_JP.PCK"}, {1, "SJIS"}, {1, "PCK"}, {1, "ja_JP.SJIS"}, {0, ""},
};

extern "C" {

KEMAIL_API iconv_t Cnv_open(const char* pszFrom, const char* pszTo) noexcept {
    // Only the two spellings the library itself uses are accepted.
    if (!is_known_code(pszFrom) || !is_known_code(pszTo)) return kNoConverter;
    return iconv_open(pszTo, pszFrom);
}

KEMAIL_API int Cnv_euctosjis(iconv_t cd, unsigned int ulInLen, const char* pIn,
                             unsigned int ulOutCap, char* pOut, unsigned int* pulOutLen) noexcept {
    // Shift_JIS never takes more bytes than the EUC-JP it comes from.
    return convert(cd, ulInLen, pIn, ulOutCap, pOut, pulOutLen, static_cast<size_t>(ulInLen) + 1);
}

KEMAIL_API int Cnv_sjistoeuc(iconv_t cd, unsigned int ulInLen, const char* pIn,
                             unsigned int ulOutCap, char* pOut, unsigned int* pulOutLen) noexcept {
    // A one-byte half-width katakana becomes two bytes, some codes three.
    return convert(cd, ulInLen, pIn, ulOutCap, pOut, pulOutLen,
                   3 * static_cast<size_t>(ulInLen) + 1);
}

KEMAIL_API void Cnv_close(iconv_t cd) noexcept {
    if (cd != kNoConverter && cd != nullptr) iconv_close(cd);
}

KEMAIL_API void Cnv_tocode(const char* pszSrc, char* pszDst) noexcept {
    if (pszDst == nullptr) return;
    const char* src = pszSrc ? pszSrc : "";
    to_hex(reinterpret_cast<const unsigned char*>(src), std::strlen(src), pszDst);
}

}  // extern "C"
