// Directory helpers: listing, and making a directory owned by root:sys.
#include <cerrno>
#include <cstring>

#include <dirent.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include "kemail.h"
#include "util/util.h"

namespace {

// Work buffer of each user or group look-up.
constexpr size_t kLookupBufferSize = 8192;

constexpr const char* kOwnerUser = "root";
constexpr const char* kOwnerGroup = "sys";

}  // namespace

extern "C" {

KEMAIL_API DIR* DirectryOpen(const char* pszPath) noexcept {
    if (!kemail::path_acceptable(pszPath)) return nullptr;
    return ::opendir(pszPath);
}

KEMAIL_API struct dirent* DirectryRead(DIR* pDir, struct dirent* pstEntry) noexcept {
    if (pDir == nullptr || pstEntry == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    // readdir_r is deprecated; glibc's readdir is safe for one stream per
    // thread, and the entry is copied at once into the caller's buffer. The
    // copy goes field by field: readdir's record may be shorter than a
    // whole struct dirent.
    errno = 0;
    const struct dirent* entry = ::readdir(pDir);
    if (entry == nullptr) return nullptr;  // the end (errno 0) or an error
    pstEntry->d_ino = entry->d_ino;
    pstEntry->d_off = entry->d_off;
    pstEntry->d_reclen = entry->d_reclen;
    pstEntry->d_type = entry->d_type;
    kemail::copy_cut(pstEntry->d_name, sizeof pstEntry->d_name, entry->d_name);
    return pstEntry;
}

KEMAIL_API int DirectryClose(DIR* pDir) noexcept {
    if (pDir == nullptr) {
        errno = EBADF;
        return -1;
    }
    return ::closedir(pDir);
}

KEMAIL_API int DirectryMake(const char* pszPath) noexcept {
    if (!kemail::path_acceptable(pszPath)) return -1;
    // Only the last component is made; an existing directory is a failure too.
    if (::mkdir(pszPath, 0755) != 0) return -1;

    struct passwd user;
    struct passwd* found_user = nullptr;
    char user_buffer[kLookupBufferSize];
    struct group group;
    struct group* found_group = nullptr;
    char group_buffer[kLookupBufferSize];
    if (::getpwnam_r(kOwnerUser, &user, user_buffer, sizeof user_buffer, &found_user) != 0 ||
        found_user == nullptr ||
        ::getgrnam_r(kOwnerGroup, &group, group_buffer, sizeof group_buffer, &found_group) != 0 ||
        found_group == nullptr) {
        return 1;
    }
    if (::chown(pszPath, user.pw_uid, group.gr_gid) != 0) return 1;
    return 0;
}

}  // extern "C"
