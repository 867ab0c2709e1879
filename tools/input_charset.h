// kemail-send's subject and text come from a terminal or a file in the
// operator's character set; the library takes them in Shift_JIS, or in
// EUC-JP when the process locale is one of its EUC-JP locales. This picks
// how to bridge the two: pass the bytes as given, let the library convert
// UTF-8 itself (INPUT_CHARSET=UTF-8, which counts the limits in Shift_JIS
// bytes), or convert with iconv here.
#pragma once

#include "kemail.h"
#include "util/utf8_sequence.h"

#include <iconv.h>
#include <langinfo.h>
#include <strings.h>

#include <cctype>
#include <cerrno>
#include <clocale>
#include <cstring>
#include <string>

namespace tools {

enum class Family { Ascii, Utf8, ShiftJis, EucJp, Other };

// The family of a charset name, spelled in any of the usual ways.
inline Family charset_family(const std::string& name) {
    std::string key;
    for (char c : name) {
        if (c != '-' && c != '_')
            key += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    if (key == "UTF8") return Family::Utf8;
    if (key == "ANSIX3.41968" || key == "ASCII" || key == "USASCII" || key == "POSIX" || key == "C")
        return Family::Ascii;
    if (key == "SJIS" || key == "SHIFTJIS" || key == "CP932" || key == "WINDOWS31J" ||
        key == "MSKANJI" || key == "PCK")
        return Family::ShiftJis;
    if (key == "EUCJP" || key == "UJIS" || key == "EUCJPMS") return Family::EucJp;
    return Family::Other;
}

inline bool is_ascii(const std::string& text) {
    for (char c : text) {
        if (static_cast<unsigned char>(c) >= 0x80) return false;
    }
    return true;
}

// Well-formed UTF-8, by the library's own rule.
inline bool is_utf8(const std::string& text) {
    const auto* p = reinterpret_cast<const unsigned char*>(text.data());
    for (size_t i = 0, n = text.size(); i < n;) {
        const size_t length = kemail::utf8_sequence_length(p + i, n - i);
        if (length == 0) return false;
        i += length;
    }
    return true;
}

// The library's own rule: EUC-JP when the locale is in its EUC-JP table
// (the kind 2 rows ignoring letter case), else Shift_JIS.
inline bool library_takes_euc() {
    const char* locale = std::setlocale(LC_ALL, nullptr);
    if (locale == nullptr) return false;
    for (const LangInfo* row = stEucLangInfo; row->ulKind != 0; ++row) {
        const bool same = row->ulKind == 2 ? strcasecmp(locale, row->szName) == 0
                                           : std::strcmp(locale, row->szName) == 0;
        if (same) return true;
    }
    return false;
}

// The terminal's character set: the locale's codeset (after setlocale).
inline std::string terminal_charset() {
    const char* codeset = nl_langinfo(CODESET);
    return codeset != nullptr ? codeset : "";
}

struct InputPlan {
    enum class How { AsGiven, LibraryUtf8, Iconv } how = How::AsGiven;
    std::string from;  // for Iconv
    std::string to;    // for Iconv
};

// How text in `charset` reaches the library. ASCII (the C locale) and the
// library's own charset pass as given, so bytes already in Shift_JIS or
// EUC-JP go through untouched as they always have.
inline InputPlan plan_input(const std::string& charset) {
    InputPlan plan;
    const Family source = charset_family(charset);
    const bool euc = library_takes_euc();
    const Family target = euc ? Family::EucJp : Family::ShiftJis;
    if (source == Family::Ascii || source == target) return plan;
    if (source == Family::Utf8 && target == Family::ShiftJis) {
        plan.how = InputPlan::How::LibraryUtf8;
        return plan;
    }
    plan.how = InputPlan::How::Iconv;
    plan.from = charset;
    plan.to = euc ? "EUC-JP" : "CP932";
    return plan;
}

// Bytes of the Shift_JIS form the library gives UTF-8 text: CP932, and 2
// (a GETA MARK) for each character without a form or broken sequence.
inline size_t sjis_length_of_utf8(const std::string& text) {
    const iconv_t cd = iconv_open("CP932", "UTF-8");
    if (cd == reinterpret_cast<iconv_t>(-1)) return text.size();
    size_t length = 0;
    char* in = const_cast<char*>(text.data());
    size_t in_left = text.size();
    while (in_left > 0) {
        char buffer[256];
        char* out = buffer;
        size_t out_left = sizeof buffer;
        const size_t result = iconv(cd, &in, &in_left, &out, &out_left);
        length += sizeof buffer - out_left;
        if (result != static_cast<size_t>(-1) || errno == E2BIG) continue;
        // One replaced character: its whole sequence when well formed.
        const unsigned char lead = static_cast<unsigned char>(*in);
        size_t skip = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 1;
        if (skip > in_left || errno == EINVAL) skip = 1;
        in += skip;
        in_left -= skip;
        length += 2;
        iconv(cd, nullptr, nullptr, nullptr, nullptr);
    }
    iconv_close(cd);
    return length;
}

// Converts text with iconv; false when a byte cannot be converted (or the
// converter cannot be opened), with *why saying so.
inline bool convert_text(const std::string& from, const std::string& to, std::string* text,
                         std::string* why) {
    const iconv_t cd = iconv_open(to.c_str(), from.c_str());
    if (cd == reinterpret_cast<iconv_t>(-1)) {
        *why = "no conversion from " + from + " to " + to;
        return false;
    }
    std::string out(text->size() * 4 + 16, '\0');
    char* in = text->data();
    size_t in_left = text->size();
    char* o = out.data();
    size_t out_left = out.size();
    const size_t result = iconv(cd, &in, &in_left, &o, &out_left);
    if (result != static_cast<size_t>(-1)) iconv(cd, nullptr, nullptr, &o, &out_left);
    iconv_close(cd);
    if (result == static_cast<size_t>(-1)) {
        *why = "byte " + std::to_string(text->size() - in_left + 1) + " has no " + to +
               " form (input read as " + from + ")";
        return false;
    }
    out.resize(out.size() - out_left);
    *text = out;
    return true;
}

}  // namespace tools
