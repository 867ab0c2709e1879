// Mechanics shared by the platform utilities (ini files, file, directory and
// process helpers) and usable by the rest of the library: retrying
// interrupted system calls, building paths that never overrun their buffer,
// and copying text into a caller's buffer.
//
// Failures are reported the way the system calls report them: a false or -1
// result with errno set (EINVAL for a null path, ENAMETOOLONG for a path
// longer than KEMAIL_PATH_MAX).
#pragma once

#include <cerrno>
#include <cstddef>

#include "util/paths.h"

namespace kemail {

// Repeats a system call for as long as it fails with EINTR.
template <typename Call>
auto retry_on_eintr(Call call) -> decltype(call()) {
    decltype(call()) result;
    do {
        result = call();
    } while (result == -1 && errno == EINTR);
    return result;
}

// Room for the longest accepted path and its NUL.
constexpr size_t kPathBufferSize = KEMAIL_PATH_MAX + 1;
using PathBuffer = char[kPathBufferSize];

// True for a non-null path of at most KEMAIL_PATH_MAX bytes; otherwise false
// with errno EINVAL (null) or ENAMETOOLONG.
bool path_acceptable(const char* path);

// Formats a path into out. False, with errno ENAMETOOLONG, when the result
// would be longer than KEMAIL_PATH_MAX; out is then an empty string.
bool format_path(PathBuffer& out, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Fills a caller's buffer of size bytes: copies at most size - 1 bytes of
// text, terminates with NUL and returns the count copied. With size 0 (or a
// null buffer) nothing is written and the result is 0.
size_t copy_cut(char* out, size_t size, const char* text);

// Whether needle (needle_length bytes, not empty) occurs in data[length],
// as memmem would find it. The search moves from one occurrence of the
// needle's first byte to the next with memchr, so a text that seldom holds
// that byte (a MIME boundary's '-' in a base64 body never) is crossed at
// memchr's speed.
bool holds_bytes(const char* data, size_t length, const char* needle, size_t needle_length);

// Writes all length bytes, going on after a short write (each write retried
// on EINTR), so that a failure always comes with the errno of the write that
// could not proceed (EFBIG, ENOSPC ...). False, with that errno in *error
// (when error is not null), on failure.
bool write_all(int fd, const void* data, size_t length, unsigned int* error);

// The allocator behind the utilities' heap blocks (profile sections and
// entries, case-folded copies). It is std::malloc; tests point it at a
// failing allocator to reach the out-of-memory paths. Blocks are released
// with std::free.
extern void* (*util_malloc)(size_t size);

}  // namespace kemail
