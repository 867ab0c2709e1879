// FileCopy: copies one file into a directory (made when missing), keeping
// the previous target as "<target>.bak" and giving the copy the source's
// owner, permission bits and times.
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include "kemail.h"
#include "util/unique_fd.h"
#include "util/util.h"

namespace {

constexpr int kCopied = 0;  // copied, or no source to copy
constexpr int kFailed = -1;

constexpr size_t kCopyBlockSize = 2048;
constexpr size_t kBackupSuffixLength = 4;  // ".bak"

// Copies source to target block by block. False when a read fails or a
// write falls short of the block read.
bool copy_contents(const char* source, const char* target) {
    kemail::UniqueFd in(FileOpenRead(source));
    if (!in.valid()) return false;
    kemail::UniqueFd out(kemail::retry_on_eintr(
        [&] { return ::open(target, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644); }));
    if (!out.valid()) return false;
    char block[kCopyBlockSize];
    for (;;) {
        const long got = FileRead(in.get(), block, sizeof block);
        if (got < 0) return false;
        if (got == 0) return true;
        const long put = kemail::retry_on_eintr(
            [&] { return ::write(out.get(), block, static_cast<size_t>(got)); });
        if (put != got) return false;
    }
}

// Owner, permission bits and times of the source. Each step is best effort:
// a copy that can't take them over is still a copy.
void take_over_attributes(const char* target, const struct stat& source) {
    if (::chown(target, source.st_uid, source.st_gid) != 0) {
        // An unprivileged caller keeps its own ownership.
    }
    if (::chmod(target, source.st_mode & 07777) != 0) {
        // Ignored as above.
    }
    const struct utimbuf times = {source.st_atime, source.st_mtime};
    if (::utime(target, &times) != 0) {
        // Ignored as above.
    }
}

}  // namespace

extern "C" {

KEMAIL_API int FileCopy(const char* pszSrcDir, const char* pszDstDir, const char* pszName,
                        const char* pszNewName, ...) noexcept {
    if (pszSrcDir == nullptr || pszDstDir == nullptr || pszName == nullptr) {
        errno = EINVAL;
        return kFailed;
    }
    const char* target_name = pszNewName != nullptr ? pszNewName : pszName;
    // Every path is built before anything is touched, so a refused path
    // leaves no half-done copy. The target must leave room for its ".bak":
    // a copy that could not keep the old target would destroy it.
    kemail::PathBuffer source;
    kemail::PathBuffer target;
    if (!kemail::format_path(source, "%s/%s", pszSrcDir, pszName) ||
        !kemail::format_path(target, "%s/%s", pszDstDir, target_name)) {
        return kFailed;
    }
    if (std::strlen(target) + kBackupSuffixLength > KEMAIL_PATH_MAX) {
        errno = ENAMETOOLONG;
        return kFailed;
    }

    struct stat source_status;
    if (::stat(source, &source_status) != 0) return errno == ENOENT ? kCopied : kFailed;

    struct stat directory_status;
    if (::stat(pszDstDir, &directory_status) != 0) {
        if (errno != ENOENT) return kFailed;
        // 1 (made, but not given to root:sys) is good enough for a copy.
        if (DirectryMake(pszDstDir) < 0) return kFailed;
    }

    FileBackUp(target);  // there may be no old target: the result does not matter
    if (!copy_contents(source, target)) return kFailed;
    take_over_attributes(target, source_status);
    return kCopied;
}

}  // extern "C"
