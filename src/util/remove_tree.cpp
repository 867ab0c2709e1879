// ExecDelDir: removes a directory and its contents down to a maximum depth.
//
// Depth 1 is the directory itself: with a maximum of 1 its files and its
// empty subdirectories are removed; each further level removes one more
// level of contents. A subdirectory below the maximum is only rmdir'ed, so a
// non-empty one stops the removal with -1.
//
// Entries are examined with lstat, not stat: a symbolic link to a directory
// is removed as a link, and the removal never follows one out of the tree.
#include <cerrno>
#include <cstring>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include "kemail.h"
#include "util/unique_fd.h"
#include "util/util.h"

namespace {

constexpr int kRemoved = 0;      // removed, or already missing
constexpr int kTooDeep = -1;     // a too-deep directory could not be removed
constexpr int kNotRemoved = -2;  // an entry or the directory could not be removed or opened

// One path buffer serves the whole walk: each level appends "/name" for a
// child and cuts it off again, so the recursion keeps no path copies.
class TreeRemover {
public:
    TreeRemover(const char* path, int max_depth) : max_depth_(max_depth) {
        length_ = kemail::copy_cut(path_, sizeof path_, path);
    }

    int remove(int depth) {
        if (max_depth_ < depth) return kTooDeep;
        const int result = remove_contents(depth + 1);
        if (result != kRemoved) return result == kMissing ? kRemoved : result;
        return ::rmdir(path_) == 0 ? kRemoved : kNotRemoved;
    }

private:
    static constexpr int kMissing = 1;  // internal: the directory does not exist

    int remove_contents(int child_depth) {
        kemail::UniqueDir dir(::opendir(path_));
        if (!dir) return errno == ENOENT ? kMissing : kNotRemoved;
        while (const dirent* entry = ::readdir(dir.get())) {
            if (entry->d_ino == 0 || std::strcmp(entry->d_name, ".") == 0 ||
                std::strcmp(entry->d_name, "..") == 0) {
                continue;
            }
            const size_t parent_length = length_;
            if (!append(entry->d_name)) return kNotRemoved;
            const int result = remove_entry(child_depth);
            cut(parent_length);
            if (result != kRemoved) return result;
        }
        return kRemoved;
    }

    int remove_entry(int depth) {
        struct stat status;
        if (::lstat(path_, &status) == 0 && S_ISDIR(status.st_mode)) {
            const int result = remove(depth);
            if (result == kTooDeep) return ::rmdir(path_) == 0 ? kRemoved : kTooDeep;
            return result;
        }
        return FileDelete(path_) == 0 ? kRemoved : kNotRemoved;
    }

    // Appends "/name"; false (errno ENAMETOOLONG) past KEMAIL_PATH_MAX.
    bool append(const char* name) {
        const size_t name_length = std::strlen(name);
        if (length_ + 1 + name_length > KEMAIL_PATH_MAX) {
            errno = ENAMETOOLONG;
            return false;
        }
        path_[length_] = '/';
        std::memcpy(path_ + length_ + 1, name, name_length + 1);
        length_ += 1 + name_length;
        return true;
    }

    void cut(size_t length) {
        length_ = length;
        path_[length_] = '\0';
    }

    int max_depth_;
    kemail::PathBuffer path_;
    size_t length_;
};

}  // namespace

extern "C" {

KEMAIL_API int ExecDelDir(const char* pszPath, int lMaxDepth) noexcept {
    if (!kemail::path_acceptable(pszPath)) return kNotRemoved;
    TreeRemover remover(pszPath, lMaxDepth);
    return remover.remove(1);
}

}  // extern "C"
