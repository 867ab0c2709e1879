// Closing a private profile: a writable, modified copy is written back over
// the file in place (no temporary file, no backup, owner and group kept),
// then the copy is freed whatever happened.
#include <cstring>

#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include "kemail.h"
#include "profile/profile.h"
#include "util/unique_fd.h"
#include "util/util.h"

namespace {

constexpr uint32_t kStateModified = 1;

// Writes one line with one writev, retried on EINTR. A short write is
// completed rather than leaving half a line. False with errno on failure.
bool write_line(int fd, iovec* parts, int count) {
    while (count > 0) {
        const ssize_t written = kemail::retry_on_eintr([&] { return ::writev(fd, parts, count); });
        if (written < 0) return false;
        if (written == 0) {
            errno = EIO;
            return false;
        }
        auto rest = static_cast<size_t>(written);
        while (count > 0 && rest >= parts->iov_len) {
            rest -= parts->iov_len;
            ++parts;
            --count;
        }
        if (count > 0) {
            parts->iov_base = static_cast<char*>(parts->iov_base) + rest;
            parts->iov_len -= rest;
        }
    }
    return true;
}

iovec part(const char* text) { return {const_cast<char*>(text), std::strlen(text)}; }

// Every section that has entries, as "[name]" and "key=value" lines.
// Comments, blank lines and empty sections are not part of the copy, so a
// rewrite drops them.
bool write_profile(int fd, const ProfileHandle* handle) {
    const char* line_end = (handle->flags & KEMAIL_PROFILE_CRLF) != 0 ? "\r\n" : "\n";
    for (const ProfileSection* section = handle->sections; section != nullptr;
         section = section->next) {
        if (section->entries == nullptr) continue;
        iovec header[] = {part("["), part(section->name), part("]"), part(line_end)};
        if (!write_line(fd, header, 4)) return false;
        for (const ProfileEntry* entry = section->entries; entry != nullptr; entry = entry->next) {
            iovec line[] = {part(entry->key), part("="), part(entry->value), part(line_end)};
            if (!write_line(fd, line, 4)) return false;
        }
    }
    return true;
}

}  // namespace

extern "C" {

KEMAIL_API int Com_ClosePrivateProfile(ProfileHandle* pHandle, const char* pszPath) noexcept {
    return Com_ClosePrivateProfile2(pHandle, pszPath, nullptr);
}

KEMAIL_API int Com_ClosePrivateProfile2(ProfileHandle* pHandle, const char* pszPath,
                                        int* plErr) noexcept {
    if (pHandle == nullptr) return -1;
    // Kept: a handle whose last change ran out of memory (state 2) is not
    // written back, even though earlier changes succeeded
    // (test OutOfMemoryWhileWriting.FailedChangeKeepsTheFileAsItWas).
    if (pszPath == nullptr || pHandle->flags == 0 || pHandle->state != kStateModified) {
        kemail::free_profile(pHandle);
        return 0;
    }

    kemail::UniqueFd file(kemail::retry_on_eintr(
        [&] { return ::open(pszPath, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644); }));
    if (!file.valid() || !write_profile(file.get(), pHandle)) {
        // The file is left truncated and partly written.
        if (plErr != nullptr) *plErr = errno;
        kemail::free_profile(pHandle);
        return -1;
    }
    kemail::free_profile(pHandle);
    return 0;
}

}  // extern "C"
