// The composition's base64 encoder (RFC 4648 alphabet, no line breaks) and
// the line layout of attachment bodies. Two engines give the same bytes: a
// scalar one every build has, and on x86-64 CPUs with AVX2 a vector one that
// turns 24 bytes into 32 characters per step. The vector code is compiled
// for AVX2 alone and chosen at run time, so the library still runs on any
// x86-64 CPU.
#include "compose/compose.h"

#include <array>
#include <cstring>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

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

// One whole group: 3 bytes into 4 characters.
inline void encode_group(const unsigned char* in, char* out) {
    const unsigned v = (unsigned(in[0]) << 16) | (unsigned(in[1]) << 8) | in[2];
    std::memcpy(out, &kPairs.chars[(v >> 12) * 2], 2);
    std::memcpy(out + 2, &kPairs.chars[(v & 0xFFF) * 2], 2);
}

// The groups from in[i] on and the padded last one; returns the end of the
// characters (not NUL-terminated).
char* encode_scalar(const unsigned char* in, size_t i, size_t length, char* o) {
    for (; i + 3 <= length; i += 3) {
        encode_group(in + i, o);
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
    return o;
}

constexpr size_t kLineBytes = kBase64LineBytes;

char* lines_scalar(const unsigned char* in, size_t length, char* o) {
    for (size_t done = 0; done < length; done += kLineBytes) {
        const size_t take = length - done < kLineBytes ? length - done : kLineBytes;
        o = encode_scalar(in + done, 0, take, o);
        *o++ = '\r';
        *o++ = '\n';
    }
    return o;
}

#if defined(__x86_64__)

// 24 bytes into 32 characters. Each 128-bit lane takes 12 bytes: the low
// lane from in[0..16) (bytes 0..11 used), the high one from in[8..24)
// (bytes 4..15 used), so exactly in[0..24) is read and out[0..32) written.
__attribute__((target("avx2"))) inline void encode24_avx2(const unsigned char* in, char* out) {
    const __m128i low = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in));
    const __m128i high = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + 8));
    __m256i v = _mm256_inserti128_si256(_mm256_castsi128_si256(low), high, 1);
    // Each group a b c becomes the 32-bit word with bytes b a c b: its low
    // 16 bits are a:b (sextets 1 and 2 at bits 15..10 and 9..4), its high 16
    // bits b:c (sextets 3 and 4 at bits 11..6 and 5..0).
    const __m256i spread = _mm256_setr_epi8(1, 0, 2, 1, 4, 3, 5, 4, 7, 6, 8, 7, 10, 9, 11, 10,  //
                                            5, 4, 6, 5, 8, 7, 9, 8, 11, 10, 12, 11, 14, 13, 15, 14);
    v = _mm256_shuffle_epi8(v, spread);
    // Sextet 1 to byte 0 (>> 10) and sextet 3 to byte 2 (>> 6 within the
    // high half) by the high half of a 16-bit product; sextet 2 to byte 1
    // (<< 4) and sextet 4 to byte 3 (<< 8) by the low half.
    const __m256i first_third = _mm256_mulhi_epu16(
        _mm256_and_si256(v, _mm256_set1_epi32(0x0FC0FC00)), _mm256_set1_epi32(0x04000040));
    const __m256i second_fourth = _mm256_mullo_epi16(
        _mm256_and_si256(v, _mm256_set1_epi32(0x003F03F0)), _mm256_set1_epi32(0x01000010));
    const __m256i sextets = _mm256_or_si256(first_third, second_fourth);
    // Sextet to character by adding the offset of its range of the alphabet:
    // 0..25 'A', 26..51 'a' - 26, 52..61 '0' - 52, 62 '+' - 62, 63 '/' - 63.
    // The offset's index: 52..63 -> 1..12 by a saturating subtraction, 0..51
    // -> 0, then 13 for 0..25.
    __m256i index = _mm256_subs_epu8(sextets, _mm256_set1_epi8(51));
    const __m256i upper = _mm256_cmpgt_epi8(_mm256_set1_epi8(26), sextets);
    index = _mm256_or_si256(index, _mm256_and_si256(upper, _mm256_set1_epi8(13)));
    const __m256i offsets =
        _mm256_setr_epi8('a' - 26, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52,
                         '0' - 52, '0' - 52, '0' - 52, '0' - 52, '+' - 62, '/' - 63, 'A', 0, 0,  //
                         'a' - 26, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52,
                         '0' - 52, '0' - 52, '0' - 52, '0' - 52, '+' - 62, '/' - 63, 'A', 0, 0);
    const __m256i chars = _mm256_add_epi8(_mm256_shuffle_epi8(offsets, index), sextets);
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), chars);
}

__attribute__((target("avx2"))) char* encode_avx2(const unsigned char* in, size_t length, char* o) {
    size_t i = 0;
    for (; i + 24 <= length; i += 24) {
        encode24_avx2(in + i, o);
        o += 32;
    }
    return encode_scalar(in, i, length, o);
}

// A whole line is 24 + 24 + 3 bytes: two vector steps and one group.
constexpr size_t kLineChars = kBase64LineChars;

__attribute__((target("avx2"))) char* lines_avx2(const unsigned char* in, size_t length, char* o) {
    size_t done = 0;
    for (; done + kLineBytes <= length; done += kLineBytes) {
        encode24_avx2(in + done, o);
        encode24_avx2(in + done + 24, o + 32);
        encode_group(in + done + 48, o + 64);
        o[kLineChars] = '\r';
        o[kLineChars + 1] = '\n';
        o += kLineChars + 2;
    }
    if (done < length) {
        o = encode_avx2(in + done, length - done, o);
        *o++ = '\r';
        *o++ = '\n';
    }
    return o;
}

// Best is AVX2 where the CPU has it; an engine the CPU lacks falls back to
// the scalar one.
bool use_avx2(Base64Engine engine) {
    return engine != Base64Engine::Scalar && __builtin_cpu_supports("avx2");
}

#endif

}  // namespace

bool base64_engine_available(Base64Engine engine) {
#if defined(__x86_64__)
    if (engine == Base64Engine::Avx2) return __builtin_cpu_supports("avx2");
#endif
    return engine != Base64Engine::Avx2;
}

size_t base64_encode(Base64Engine engine, const unsigned char* in, size_t length, char* out) {
    char* o;
#if defined(__x86_64__)
    o = use_avx2(engine) ? encode_avx2(in, length, out) : encode_scalar(in, 0, length, out);
#else
    (void)engine;
    o = encode_scalar(in, 0, length, out);
#endif
    *o = '\0';
    return static_cast<size_t>(o - out);
}

size_t base64_encode(const unsigned char* in, size_t length, char* out) {
    return base64_encode(Base64Engine::Best, in, length, out);
}

size_t base64_lines(const unsigned char* in, size_t length, char* out, Base64Engine engine) {
    char* o;
#if defined(__x86_64__)
    o = use_avx2(engine) ? lines_avx2(in, length, out) : lines_scalar(in, length, out);
#else
    (void)engine;
    o = lines_scalar(in, length, out);
#endif
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
