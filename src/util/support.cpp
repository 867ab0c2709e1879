#include "util/util.h"

#include "util/format.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace kemail {

void* (*util_malloc)(size_t size) = std::malloc;

bool path_acceptable(const char* path) {
    if (path == nullptr) {
        errno = EINVAL;
        return false;
    }
    // strnlen: a runaway path is never scanned further than the bound.
    if (strnlen(path, kPathBufferSize) > KEMAIL_PATH_MAX) {
        errno = ENAMETOOLONG;
        return false;
    }
    return true;
}

bool format_path(PathBuffer& out, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int length = vformat_into(out, sizeof out, Overflow::Refuse, format, args);
    va_end(args);
    if (length < 0) {
        errno = ENAMETOOLONG;
        return false;
    }
    return true;
}

size_t copy_cut(char* out, size_t size, const char* text) {
    if (out == nullptr || size == 0) return 0;
    const size_t length = strnlen(text, size - 1);
    std::memcpy(out, text, length);
    out[length] = '\0';
    return length;
}

}  // namespace kemail
