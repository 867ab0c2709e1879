// What well-formed UTF-8 is (RFC 3629: no overlong forms, no surrogates, at
// most U+10FFFF), as one rule for the library's UTF-8 input and for
// kemail-send's choice of input charset. Header-only, no dependencies.
#pragma once

#include <cstddef>

namespace kemail {

// Length of the well-formed UTF-8 sequence at text[0, available), or 0 when
// it is not one (available 0 included).
inline size_t utf8_sequence_length(const unsigned char* text, size_t available) noexcept {
    if (available == 0) return 0;
    const unsigned char lead = text[0];
    if (lead < 0x80) return 1;
    size_t length;
    unsigned char low = 0x80, high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        if (lead == 0xE0) low = 0xA0;
        if (lead == 0xED) high = 0x9F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        if (lead == 0xF0) low = 0x90;
        if (lead == 0xF4) high = 0x8F;
    } else {
        return 0;
    }
    if (available < length) return 0;
    if (text[1] < low || text[1] > high) return 0;
    for (size_t i = 2; i < length; ++i) {
        if (text[i] < 0x80 || text[i] > 0xBF) return 0;
    }
    return length;
}

}  // namespace kemail
