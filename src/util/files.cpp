// Thin file helpers: one system call each, repeated while it is interrupted
// (EINTR). Results are the call's own; errno is left for the caller
// (GetErrorCode). A path longer than KEMAIL_PATH_MAX is refused with -1 and
// ENAMETOOLONG, a null path with -1 and EINVAL, before any call is made.
#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "kemail.h"
#include "util/util.h"

namespace {

// FileOpen2 gives up after this many interrupted attempts in all.
constexpr int kOpen2Attempts = 10;

}  // namespace

extern "C" {

KEMAIL_API int GetErrorCode(void) noexcept { return errno; }

KEMAIL_API int FileOpen(const char* pszPath) noexcept {
    if (!kemail::path_acceptable(pszPath)) return -1;
    return kemail::retry_on_eintr(
        [&] { return ::open(pszPath, O_RDWR | O_CREAT | O_CLOEXEC, 0644); });
}

KEMAIL_API int FileOpenRead(const char* pszPath) noexcept {
    if (!kemail::path_acceptable(pszPath)) return -1;
    return kemail::retry_on_eintr([&] { return ::open(pszPath, O_RDONLY | O_CLOEXEC); });
}

KEMAIL_API int FileOpen2(const char* pszPath, int lTruncate) noexcept {
    if (!kemail::path_acceptable(pszPath)) return -1;
    const int mode = O_RDWR | O_CREAT | O_CLOEXEC | (lTruncate != 0 ? O_TRUNC : O_APPEND);
    int fd = -1;
    for (int attempt = 0; attempt < kOpen2Attempts; ++attempt) {
        fd = ::open(pszPath, mode, 0644);
        if (fd >= 0 || errno != EINTR) break;
    }
    return fd;
}

KEMAIL_API long FileRead(int lFile, void* pBuf, size_t ulLength) noexcept {
    return kemail::retry_on_eintr([&] { return ::read(lFile, pBuf, ulLength); });
}

KEMAIL_API long FileWrite(int lFile, const void* pBuf, size_t ulLength) noexcept {
    // One write: a short write is returned as it is, for the caller to judge.
    return kemail::retry_on_eintr([&] { return ::write(lFile, pBuf, ulLength); });
}

KEMAIL_API int FileClose(int lFile) noexcept {
    // Linux releases the descriptor even when close fails with EINTR, so the
    // close is not repeated: a second close could hit a descriptor another
    // thread has just opened. The descriptor is gone, which is success.
    if (::close(lFile) == 0 || errno == EINTR) return 0;
    return -1;
}

KEMAIL_API int FileDelete(const char* pszPath) noexcept {
    if (!kemail::path_acceptable(pszPath)) return -1;
    return kemail::retry_on_eintr([&] { return ::unlink(pszPath); });
}

KEMAIL_API long FileSeek(int lFile, long lOffset, int lOrigin) noexcept {
    return kemail::retry_on_eintr([&] { return ::lseek(lFile, lOffset, lOrigin); });
}

KEMAIL_API int FileStat(const char* pszPath, struct stat* pstStat) noexcept {
    if (!kemail::path_acceptable(pszPath)) return -1;
    return ::stat(pszPath, pstStat);
}

KEMAIL_API long FileSize(int lFile) noexcept {
    struct stat status;
    const int result = kemail::retry_on_eintr([&] { return ::fstat(lFile, &status); });
    if (result < 0) return result;
    return static_cast<long>(status.st_size);
}

KEMAIL_API long FileSize_Name(const char* pszPath) noexcept {
    struct stat status;
    if (FileStat(pszPath, &status) != 0 || !S_ISREG(status.st_mode)) return -1;
    return static_cast<long>(status.st_size);
}

KEMAIL_API int FileBackUp(const char* pszPath) noexcept {
    if (!kemail::path_acceptable(pszPath)) return -1;
    kemail::PathBuffer backup;
    if (!kemail::format_path(backup, "%s.bak", pszPath)) return -1;
    return ::rename(pszPath, backup);
}

KEMAIL_API int RenameFile(const char* pszOld, const char* pszNew) noexcept {
    // A refused path refuses the whole call: nothing is renamed or removed.
    if (!kemail::path_acceptable(pszOld) || !kemail::path_acceptable(pszNew)) return -1;
    const int result = ::rename(pszOld, pszNew);
    const int rename_errno = errno;
    // Kept: the old file is removed even when the rename failed
    // (test RenameFile.FailedRenameStillRemovesTheSource).
    FileDelete(pszOld);
    errno = rename_errno;
    return result;
}

}  // extern "C"

namespace kemail {

bool write_all(int fd, const void* data, size_t length, unsigned int* error) {
    const char* p = static_cast<const char*>(data);
    while (length > 0) {
        errno = 0;
        const ssize_t n = retry_on_eintr([&] { return ::write(fd, p, length); });
        if (n <= 0) {
            if (error) *error = static_cast<unsigned int>(errno);
            return false;
        }
        p += n;
        length -= static_cast<size_t>(n);
    }
    return true;
}

}  // namespace kemail
