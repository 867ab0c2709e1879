// Removal of old trace and log files: of the regular files in a directory
// whose names begin with a prefix, the newest keep - 1 stay, so that with
// the file about to be written keep files remain. A directory that has not
// changed since a scan that left fewer than keep such files is not listed
// again, and one whose listing shows fewer than keep is not looked at file by
// file: the scan would delete nothing.
#include "log/log.h"

#include "util/format.h"
#include "util/mutex_lock.h"
#include "util/unique_fd.h"
#include "util/util.h"

#include <cstdlib>
#include <cstring>

#include <dirent.h>
#include <pthread.h>
#include <sys/stat.h>
#include <time.h>

namespace kemail {

int DeleteOldFiles_AddList(OldFile** head, const char* path, time_t mtime) {
    OldFile* node = static_cast<OldFile*>(std::malloc(sizeof(OldFile)));
    if (!node) return -1;
    node->mtime = mtime;
    copy_cut(node->path, sizeof node->path, path);
    // Before the first strictly older node: files of equal age keep the
    // order in which the directory listed them.
    OldFile** link = head;
    while (*link && (*link)->mtime >= mtime) link = &(*link)->next;
    node->next = *link;
    *link = node;
    return 0;
}

uint32_t DeleteOldFiles_DeleteList(const OldFile* head, uint32_t keep) {
    uint32_t position = 1;
    uint32_t left = 0;
    for (const OldFile* node = head; node; node = node->next, ++position) {
        if (position < keep || FileDelete(node->path) != 0) ++left;
    }
    return left;
}

void DeleteOldFiles_FreeList(OldFile* head) {
    while (head) {
        OldFile* next = head->next;
        std::free(head);
        head = next;
    }
}

namespace {

// What the last complete scan of a directory left there, so that the next
// removal can tell without listing the directory again that it would delete
// nothing: when the directory is the same one and its modification time has
// not changed, no entry was added, removed or renamed since, so the files
// that match are those the scan left; if they are fewer than the keep count
// (or none), none stands at a position to be deleted, however their ages
// have changed meanwhile. Each of the send's two directories (the trace
// files and the mail logs) has its own memory.
//
// A directory whose modification time is close to the clock when it is
// looked at is not remembered: a change made within the same tick of the
// file system's clock (two seconds on the coarsest ones) could leave the
// time as it was. A time with digits below the millisecond comes from a file
// system that keeps finer times; those stamp a change with the kernel's
// coarse clock (or a finer one) cut to their own grain, finer than a
// millisecond. So a time more than a millisecond behind the coarse clock read
// before the look can no longer be repeated by a change made after it. (The
// fine clock could run up to a tick ahead of the stamps: it would not do.)
// Nor is a directory remembered where a matching entry is a symbolic link (or
// of unknown type): its target can come or go without the directory changing.
constexpr time_t kSettleSeconds = 2;
constexpr long kMillisecond = 1000L * 1000;
constexpr size_t kRememberedScans = 2;

struct ScanMemory {
    bool valid = false;
    char dir[kOldFilePathSize] = {};
    char prefix[kOldFilePathSize] = {};
    dev_t device = 0;
    ino_t inode = 0;
    struct timespec modified = {};
    uint32_t left = 0;  // matching regular files the scan left
};

ScanMemory g_scans[kRememberedScans];
size_t g_next_slot = 0;
pthread_mutex_t g_scans_lock = PTHREAD_MUTEX_INITIALIZER;

bool same_time(const struct timespec& a, const struct timespec& b) {
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

// True when no change made after started (the coarse clock) can leave the
// directory with the modification time it had.
bool settled(const struct timespec& modified, const struct timespec& started) {
    if (modified.tv_sec + kSettleSeconds < started.tv_sec) return true;
    if (modified.tv_nsec % kMillisecond == 0) return false;
    const long long age_ns =
        (static_cast<long long>(started.tv_sec) - modified.tv_sec) * 1000000000LL +
        (started.tv_nsec - modified.tv_nsec);
    return age_ns > kMillisecond;
}

ScanMemory* find_scan(const char* dir, const char* prefix) {
    for (ScanMemory& scan : g_scans) {
        if (scan.valid && std::strcmp(scan.dir, dir) == 0 && std::strcmp(scan.prefix, prefix) == 0)
            return &scan;
    }
    return nullptr;
}

// True when the last scan of dir for prefix shows that a removal keeping
// keep files would delete nothing now.
bool nothing_to_delete(const char* dir, const char* prefix, const struct stat& status,
                       uint32_t keep) {
    const MutexLock lock(g_scans_lock);
    const ScanMemory* scan = find_scan(dir, prefix);
    return scan != nullptr && scan->device == status.st_dev && scan->inode == status.st_ino &&
           same_time(scan->modified, status.st_mtim) && (scan->left == 0 || scan->left < keep);
}

// Remembers a complete scan; status is the directory as it was before the
// scan began, started the clock time just before that look.
void remember_scan(const char* dir, const char* prefix, const struct stat& status,
                   const struct timespec& started, bool certain, uint32_t left) {
    const MutexLock lock(g_scans_lock);
    ScanMemory* scan = find_scan(dir, prefix);
    if (!certain || !settled(status.st_mtim, started) || std::strlen(dir) >= sizeof scan->dir ||
        std::strlen(prefix) >= sizeof scan->prefix) {
        if (scan != nullptr) scan->valid = false;
        return;
    }
    if (scan == nullptr) {
        scan = &g_scans[g_next_slot];
        g_next_slot = (g_next_slot + 1) % kRememberedScans;
        copy_cut(scan->dir, sizeof scan->dir, dir);
        copy_cut(scan->prefix, sizeof scan->prefix, prefix);
    }
    scan->device = status.st_dev;
    scan->inode = status.st_ino;
    scan->modified = status.st_mtim;
    scan->left = left;
    scan->valid = true;
}

}  // namespace

void DeleteOldFiles_HoldForFork() { pthread_mutex_lock(&g_scans_lock); }

void DeleteOldFiles_ReleaseAfterFork() { pthread_mutex_unlock(&g_scans_lock); }

}  // namespace kemail

using namespace kemail;

extern "C" {

KEMAIL_API int DeleteOldFiles(unsigned int /*ulUnused*/, const char* pszPrefix, unsigned int ulKeep,
                              unsigned int ulLevel) noexcept {
    return DeleteOldFiles_DIR(KEMAIL_TRACE_DIR, pszPrefix, "trc", ulKeep, ulLevel);
}

KEMAIL_API int DeleteOldFiles_DIR(const char* pszDir, const char* pszPrefix, const char* /*pszExt*/,
                                  unsigned int ulKeep, unsigned int ulLevel) noexcept {
    if (ulLevel == 0) return 0;
    if (!pszDir || !pszPrefix) return -1;
    struct timespec started = {};
    const bool clock_read = ::clock_gettime(CLOCK_REALTIME_COARSE, &started) == 0;
    struct stat status;
    if (FileStat(pszDir, &status) != 0 || !S_ISDIR(status.st_mode)) return -1;
    if (nothing_to_delete(pszDir, pszPrefix, status, ulKeep)) return 0;
    const UniqueDir dir(DirectryOpen(pszDir));
    if (!dir) return -2;

    const size_t prefix_length = std::strlen(pszPrefix);
    auto matches = [&](const struct dirent* entry) {
        return entry->d_ino != 0 && std::strlen(entry->d_name) >= prefix_length &&
               std::strncmp(entry->d_name, pszPrefix, prefix_length) == 0;
    };
    struct dirent entry_buffer;

    // Fewer regular files than the keep count are deleted from no position,
    // whatever their ages: when the listing's types show that, the files need
    // not be looked at one by one. A link or an entry of unknown type could be
    // a regular file only stat can tell.
    uint32_t regular = 0;
    bool typed = true;
    while (struct dirent* entry = DirectryRead(dir.get(), &entry_buffer)) {
        if (!matches(entry)) continue;
        if (entry->d_type == DT_REG) ++regular;
        if (entry->d_type == DT_LNK || entry->d_type == DT_UNKNOWN) typed = false;
    }
    if (typed && regular < ulKeep) {
        remember_scan(pszDir, pszPrefix, status, started, clock_read, regular);
        return 0;
    }
    rewinddir(dir.get());

    OldFileList list;
    bool certain = clock_read;
    while (struct dirent* entry = DirectryRead(dir.get(), &entry_buffer)) {
        if (!matches(entry)) continue;
        if (entry->d_type == DT_LNK || entry->d_type == DT_UNKNOWN) certain = false;
        char path[kOldFilePathSize];
        if (format_into(path, sizeof path, Overflow::Refuse, "%s/%s", pszDir, entry->d_name) < 0) {
            certain = false;
            continue;
        }
        struct stat file_status;
        if (FileStat(path, &file_status) != 0) {
            certain = false;
            continue;
        }
        if (!S_ISREG(file_status.st_mode)) continue;
        if (DeleteOldFiles_AddList(&list.head, path, file_status.st_mtime) != 0) return -3;
    }
    const uint32_t left = DeleteOldFiles_DeleteList(list.head, ulKeep);
    remember_scan(pszDir, pszPrefix, status, started, certain, left);
    return 0;
}

}  // extern "C"
