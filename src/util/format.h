// The library's one bounded formatter: every line, path and name it builds
// goes through it, so no text is ever written past its buffer.
#pragma once

#include <cstdarg>
#include <cstddef>

namespace kemail {

// What to do with a text that does not fit its buffer whole.
enum class Overflow {
    Cut,     // keep what fits (a log line, a trace note)
    Refuse,  // keep nothing: a cut command line or path would mean something else
};

// Formats into out[size]. Never writes past size bytes and, for size > 0,
// always leaves out NUL-terminated. Returns the length stored. When the
// whole text does not fit (or the format fails): with Overflow::Cut the text
// is cut at size - 1 bytes and that length returned; with Overflow::Refuse
// out is emptied and the result is -1. With size 0 nothing is written and
// the result is 0 (Cut) or -1 (Refuse).
int format_into(char* out, size_t size, Overflow overflow, const char* format, ...)
    __attribute__((format(printf, 4, 5)));
int vformat_into(char* out, size_t size, Overflow overflow, const char* format, va_list args)
    __attribute__((format(printf, 4, 0)));

}  // namespace kemail
