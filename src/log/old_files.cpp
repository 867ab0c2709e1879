// Removal of old trace and log files: of the regular files in a directory
// whose names begin with a prefix, the newest keep - 1 stay, so that with
// the file about to be written keep files remain.
#include "log/log.h"

#include "util/format.h"
#include "util/unique_fd.h"
#include "util/util.h"

#include <cstdlib>
#include <cstring>

#include <sys/stat.h>

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

void DeleteOldFiles_DeleteList(const OldFile* head, uint32_t keep) {
    uint32_t position = 1;
    for (const OldFile* node = head; node; node = node->next, ++position) {
        if (position >= keep) FileDelete(node->path);
    }
}

void DeleteOldFiles_FreeList(OldFile* head) {
    while (head) {
        OldFile* next = head->next;
        std::free(head);
        head = next;
    }
}

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
    struct stat status;
    if (FileStat(pszDir, &status) != 0 || !S_ISDIR(status.st_mode)) return -1;
    const UniqueDir dir(DirectryOpen(pszDir));
    if (!dir) return -2;

    const size_t prefix_length = std::strlen(pszPrefix);
    OldFileList list;
    struct dirent entry_buffer;
    while (struct dirent* entry = DirectryRead(dir.get(), &entry_buffer)) {
        if (entry->d_ino == 0) continue;
        if (std::strlen(entry->d_name) < prefix_length) continue;
        if (std::strncmp(entry->d_name, pszPrefix, prefix_length) != 0) continue;
        char path[kOldFilePathSize];
        if (format_into(path, sizeof path, Overflow::Refuse, "%s/%s", pszDir, entry->d_name) < 0)
            continue;
        struct stat file_status;
        if (FileStat(path, &file_status) != 0 || !S_ISREG(file_status.st_mode)) continue;
        if (DeleteOldFiles_AddList(&list.head, path, file_status.st_mtime) != 0) return -3;
    }
    DeleteOldFiles_DeleteList(list.head, ulKeep);
    return 0;
}

}  // extern "C"
