#include "util/util.h"

#include <cstring>

namespace kemail {

bool holds_bytes(const char* data, size_t length, const char* needle, size_t needle_length) {
    if (needle_length == 0 || needle_length > length) return false;
    const char first = needle[0];
    // One past the last place the needle can begin.
    const char* const end = data + (length - needle_length) + 1;
    for (const char* at = data;
         (at = static_cast<const char*>(std::memchr(at, first, static_cast<size_t>(end - at))));
         ++at) {
        if (std::memcmp(at + 1, needle + 1, needle_length - 1) == 0) return true;
    }
    return false;
}

}  // namespace kemail
