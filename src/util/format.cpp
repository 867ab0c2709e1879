#include "util/format.h"

#include <cstdio>

namespace kemail {

int vformat_into(char* out, size_t size, Overflow overflow, const char* format, va_list args) {
    if (out == nullptr || size == 0) return overflow == Overflow::Cut ? 0 : -1;
    const int needed = std::vsnprintf(out, size, format, args);
    if (needed >= 0 && static_cast<size_t>(needed) < size) return needed;
    if (needed < 0 || overflow == Overflow::Refuse) {
        out[0] = '\0';
        return needed < 0 && overflow == Overflow::Cut ? 0 : -1;
    }
    return static_cast<int>(size - 1);
}

int format_into(char* out, size_t size, Overflow overflow, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int length = vformat_into(out, size, overflow, format, args);
    va_end(args);
    return length;
}

}  // namespace kemail
