// CheckString_NotUpLow: equality of two texts ignoring case, byte by byte
// in the current locale.
#include <cctype>
#include <cstdlib>
#include <cstring>

#include "kemail.h"
#include "util/unique_fd.h"
#include "util/util.h"

namespace {

constexpr int kEqual = 0;
constexpr int kDifferent = -1;
constexpr int kOutOfMemory = -2;

// A freshly allocated lower-case copy of text, or null when no memory is left.
char* lower_case_copy(const char* text) {
    const size_t length = std::strlen(text);
    auto* copy = static_cast<char*>(kemail::util_malloc(length + 1));
    if (copy == nullptr) return nullptr;
    for (size_t i = 0; i <= length; ++i) {
        copy[i] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[i])));
    }
    return copy;
}

}  // namespace

extern "C" {

KEMAIL_API int CheckString_NotUpLow(const char* pszA, const char* pszB) noexcept {
    // A missing text equals nothing, not even another missing one.
    if (pszA == nullptr || pszB == nullptr) return kDifferent;
    kemail::UniqueMalloc<char> a(lower_case_copy(pszA));
    if (!a) return kOutOfMemory;
    kemail::UniqueMalloc<char> b(lower_case_copy(pszB));
    if (!b) return kOutOfMemory;
    return std::strcmp(a.get(), b.get()) == 0 ? kEqual : kDifferent;
}

}  // extern "C"
