// UTF-8 input (INPUT_CHARSET=UTF-8): subject and text given in UTF-8 become
// Shift_JIS in the CP932 repertoire (the characters Windows users type, such
// as circled digits, arrive), after which they take the designed path.
#pragma once

#include <cstddef>

namespace kemail {

// Shift_JIS GETA MARK, written for a character without a Shift_JIS form and
// for each invalid UTF-8 sequence.
constexpr char kGetaMark[] = "\x81\xAC";

struct Utf8Conversion {
    size_t length = 0;      // bytes written to dest, its NUL not counted
    bool replaced = false;  // some character became the GETA MARK
    bool too_long = false;  // the Shift_JIS form needs more than dest_size - 1 bytes
    bool failed = false;    // no converter could be opened (dest is empty)
};

// Converts `length` bytes of UTF-8 to Shift_JIS into dest[dest_size],
// always NUL-terminated and never ending in half a double-byte character.
// When the result does not fit, dest holds what fitted and too_long is set.
Utf8Conversion utf8_to_sjis(const char* source, size_t length, char* dest,
                            size_t dest_size) noexcept;

// No character's Shift_JIS form is shorter than a third of its UTF-8 form
// (half-width katakana: 3 bytes to 1), so a text whose Shift_JIS form has at
// most `limit` bytes has at most this many UTF-8 bytes.
constexpr size_t max_utf8_length(size_t limit) { return 3 * limit; }

struct Utf8Measure {
    size_t length = 0;      // bytes of the Shift_JIS form, or limit + 1
    bool too_long = false;  // the form has more than limit bytes
    bool failed = false;    // no converter could be opened
};

// How many bytes the Shift_JIS form of the NUL-terminated UTF-8 text has,
// counted up to limit + 1. Reads no more than max_utf8_length(limit) + 1
// bytes of the text.
Utf8Measure sjis_length(const char* source, size_t limit) noexcept;

}  // namespace kemail
