// The composition's encoders on arbitrary text: SMTP_sjistojis,
// SMTP_toISO2022, SMTP_toBase64 and SMTP_makeSubject. Besides memory safety
// (exactly sized heap buffers under AddressSanitizer) each result is checked
// by decoding it again with the plain code below. The base64 engines are
// also compared with each other, as strings and as attachment lines.
#include "kemail.h"
#include "compose/compose.h"

#include "fuzz_support.h"

#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

bool is_lead(unsigned char b) { return (b >= 0x81 && b <= 0x9F) || (b >= 0xE0 && b <= 0xEF); }
bool is_trail(unsigned char b) { return (b >= 0x40 && b <= 0x7E) || (b >= 0x80 && b <= 0xFC); }
bool is_jis(unsigned char b) { return b >= 0x21 && b <= 0x7E; }

// JIS X 0208 row and cell back to the Shift_JIS pair.
std::string jis_to_sjis(unsigned char j1, unsigned char j2) {
    unsigned s1 = ((j1 - 0x21u) >> 1) + 0x81u;
    if (s1 > 0x9F) s1 += 0x40;
    unsigned s2;
    if (j1 & 1) {
        s2 = j2 + 0x1Fu;
        if (s2 >= 0x7F) ++s2;
    } else {
        s2 = j2 + 0x7Eu;
    }
    return {static_cast<char>(s1), static_cast<char>(s2)};
}

// Text whose conversion can be reversed: no ESC of its own, every lead byte
// followed by a valid trail byte.
bool clean_sjis(const std::string& text) {
    for (size_t i = 0; i < text.size(); ++i) {
        const unsigned char b = static_cast<unsigned char>(text[i]);
        if (b == 0x1B) return false;
        if (is_lead(b)) {
            if (i + 1 >= text.size() || !is_trail(static_cast<unsigned char>(text[i + 1])))
                return false;
            ++i;
        }
    }
    return true;
}

// ISO-2022-JP (ESC $ B and ESC ( J only) back to Shift_JIS; false when the
// text breaks the form the converter writes.
bool iso_to_sjis(const std::string& iso, std::string* out, size_t* pairs) {
    bool double_byte = false;
    *pairs = 0;
    for (size_t i = 0; i < iso.size();) {
        if (iso.compare(i, 3, "\x1b$B") == 0) {
            if (double_byte) return false;
            double_byte = true;
            i += 3;
        } else if (iso.compare(i, 3, "\x1b(J") == 0) {
            if (!double_byte) return false;
            double_byte = false;
            i += 3;
        } else if (double_byte) {
            if (i + 1 >= iso.size()) return false;
            const unsigned char j1 = static_cast<unsigned char>(iso[i]);
            const unsigned char j2 = static_cast<unsigned char>(iso[i + 1]);
            if (!is_jis(j1) || !is_jis(j2)) return false;
            *out += jis_to_sjis(j1, j2);
            ++*pairs;
            i += 2;
        } else {
            *out += iso[i++];
        }
    }
    return !double_byte;
}

int b64_value(char c) {
    static const char kAlphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const char* p = c ? std::strchr(kAlphabet, c) : nullptr;
    return p ? static_cast<int>(p - kAlphabet) : -1;
}

// Strict base64 decoding (padding required, nothing else allowed).
bool b64_decode(const std::string& in, std::string* out) {
    if (in.size() % 4 != 0) return false;
    for (size_t i = 0; i < in.size(); i += 4) {
        const bool last = i + 4 == in.size();
        int v[4];
        for (int k = 0; k < 4; ++k) {
            v[k] = b64_value(in[i + k]);
            if (v[k] < 0 && !(last && k >= 2 && in[i + k] == '=')) return false;
        }
        if (v[2] < 0 && v[3] >= 0) return false;
        out->push_back(static_cast<char>((v[0] << 2) | (v[1] >> 4)));
        if (v[2] >= 0) out->push_back(static_cast<char>(((v[1] & 15) << 4) | (v[2] >> 2)));
        if (v[3] >= 0) out->push_back(static_cast<char>(((v[2] & 3) << 6) | v[3]));
    }
    return true;
}

void check_sjistojis(unsigned char h, unsigned char l) {
    const int jis = SMTP_sjistojis((h << 8) | l);
    if (!is_lead(h)) {
        FUZZ_CHECK(jis == 0);
    } else if (!is_trail(l)) {
        FUZZ_CHECK(jis == (h | l));
    } else {
        FUZZ_CHECK(is_jis(static_cast<unsigned char>(jis >> 8)) && is_jis(jis & 0xFF));
        FUZZ_CHECK(jis_to_sjis(static_cast<unsigned char>(jis >> 8), jis & 0xFF) ==
                   std::string({static_cast<char>(h), static_cast<char>(l)}));
    }
}

void check_iso2022(const std::string& text) {
    // Worst case: a pair and a single byte after it give 3 + 2 + 3 + 1 bytes.
    const size_t size = 4 * text.size() + 16;
    std::unique_ptr<char[]> out(new char[size]);
    SMTP_toISO2022(text.c_str(), out.get());
    const std::string iso(out.get());
    FUZZ_CHECK(iso.size() < size);
    if (!clean_sjis(text)) return;
    std::string back;
    size_t pairs = 0;
    FUZZ_CHECK(iso_to_sjis(iso, &back, &pairs));
    FUZZ_CHECK(back == (text[0] == '.' ? "." + text : text));
}

void check_base64(const uint8_t* data, size_t size) {
    std::unique_ptr<unsigned char[]> in(new unsigned char[size + 3]);
    std::memcpy(in.get(), data, size);
    const size_t expected = 4 * ((size + 2) / 3);
    std::unique_ptr<char[]> out(new char[expected + 1]);
    const int n = SMTP_toBase64(in.get(), out.get(), static_cast<int>(size));
    FUZZ_CHECK(n >= 0 && static_cast<size_t>(n) == expected);
    FUZZ_CHECK(std::strlen(out.get()) == expected);
    std::string back;
    FUZZ_CHECK(b64_decode(out.get(), &back));
    FUZZ_CHECK(back == std::string(reinterpret_cast<const char*>(data), size));
}

// What one engine makes of the input, in exactly sized heap buffers: the
// string and the attachment lines.
std::string engine_string(kemail::Base64Engine engine, const uint8_t* data, size_t size) {
    std::unique_ptr<unsigned char[]> in(new unsigned char[size]);
    if (size != 0) std::memcpy(in.get(), data, size);
    const size_t expected = 4 * ((size + 2) / 3);
    std::unique_ptr<char[]> out(new char[expected + 1]);
    FUZZ_CHECK(kemail::base64_encode(engine, in.get(), size, out.get()) == expected);
    return std::string(out.get(), expected);
}

std::string engine_lines(kemail::Base64Engine engine, const uint8_t* data, size_t size) {
    std::unique_ptr<unsigned char[]> in(new unsigned char[size]);
    if (size != 0) std::memcpy(in.get(), data, size);
    const size_t rest = size % 51;
    const size_t expected = 70 * (size / 51) + (rest == 0 ? 0 : 4 * ((rest + 2) / 3) + 2);
    std::unique_ptr<char[]> out(new char[expected]);
    FUZZ_CHECK(kemail::base64_lines(in.get(), size, out.get(), engine) == expected);
    return std::string(out.get(), expected);
}

void check_base64_engines(const uint8_t* data, size_t size) {
    using kemail::Base64Engine;
    const std::string scalar = engine_string(Base64Engine::Scalar, data, size);
    std::string scalar_lines;
    for (size_t done = 0; done < size; done += 51) {
        scalar_lines += scalar.substr(done / 3 * 4, 68);
        scalar_lines += "\r\n";
    }
    FUZZ_CHECK(engine_lines(Base64Engine::Scalar, data, size) == scalar_lines);
    if (!kemail::base64_engine_available(Base64Engine::Avx2)) return;
    FUZZ_CHECK(engine_string(Base64Engine::Avx2, data, size) == scalar);
    FUZZ_CHECK(engine_lines(Base64Engine::Avx2, data, size) == scalar_lines);
}

void check_subject(const std::string& subject) {
    // The caller's buffer: the element size of a header line, or the whole
    // ASCII subject.
    const size_t size = subject.size() + 1 > 1040 ? subject.size() + 1 : 1040;
    std::unique_ptr<char[]> out(new char[size]);
    SMTP_makeSubject(subject.c_str(), out.get());
    const std::string value(out.get());
    FUZZ_CHECK(value.size() < size);
    bool has_lead = false;
    for (unsigned char b : subject) has_lead = has_lead || is_lead(b);
    if (!has_lead) {
        FUZZ_CHECK(value == subject);
        return;
    }
    // No line of the header value may pass the 998 bytes of RFC 5322.
    size_t line_start = 0;
    for (size_t i = 0; i < value.size(); ++i) {
        if (i + 1 < value.size() && value[i] == '\r' && value[i + 1] == '\n') {
            FUZZ_CHECK(i - line_start <= 998);
            line_start = i + 2;
        }
    }
    FUZZ_CHECK(value.size() - line_start <= 998);
    // The decoding below reads every "=?ISO-2022-JP?B?" as a word of the
    // encoder's, so a subject that writes one itself is left out.
    if (!clean_sjis(subject) || subject.size() > KEMAIL_MAX_SUBJECT ||
        subject.find("=?") != std::string::npos) {
        return;
    }
    // Each encoded-word holds one closed run of at most twelve characters;
    // together they hold every character of the subject.
    static const std::string kOpen = "=?ISO-2022-JP?B?";
    size_t total_pairs = 0;
    for (size_t at = value.find(kOpen); at != std::string::npos; at = value.find(kOpen, at)) {
        const size_t end = value.find("?=", at + kOpen.size());
        FUZZ_CHECK(end != std::string::npos);
        std::string word;
        FUZZ_CHECK(b64_decode(value.substr(at + kOpen.size(), end - at - kOpen.size()), &word));
        FUZZ_CHECK(word.compare(0, 3, "\x1b$B") == 0);
        FUZZ_CHECK(word.size() >= 6 && word.compare(word.size() - 3, 3, "\x1b(J") == 0);
        std::string sjis;
        size_t pairs = 0;
        FUZZ_CHECK(iso_to_sjis(word, &sjis, &pairs));
        FUZZ_CHECK(pairs >= 1 && pairs <= 12);
        total_pairs += pairs;
        at = end + 2;
    }
    size_t subject_pairs = 0;
    for (size_t i = 0; i < subject.size(); ++i) {
        if (is_lead(static_cast<unsigned char>(subject[i]))) {
            ++subject_pairs;
            ++i;
        }
    }
    FUZZ_CHECK(total_pairs == subject_pairs);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1 || size > 4096) return 0;
    // Byte 0 picks the function; the rest is its input, as text up to the
    // first NUL where the function takes a string.
    const uint8_t which = data[0] % 4;
    ++data;
    --size;
    const std::string text(reinterpret_cast<const char*>(data),
                           strnlen(reinterpret_cast<const char*>(data), size));
    switch (which) {
        case 0:
            if (size >= 2) check_sjistojis(data[0], data[1]);
            check_iso2022(text);
            break;
        case 1:
            check_base64(data, size);
            check_base64_engines(data, size);
            break;
        case 2: check_subject(text.substr(0, KEMAIL_MAX_SUBJECT)); break;
        default: check_subject(text); break;
    }
    return 0;
}
