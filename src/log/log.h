// Internals of the trace ring and of old-file removal, shared by the trace
// and mail-log sources and their internal tests.
#pragma once

#include "kemail.h"
#include "log/trace_record.h"
#include "util/paths.h"

#include <cstddef>
#include <cstdint>
#include <ctime>

#include <sys/types.h>

// The trace directory and the mail-log directory.
#define KEMAIL_TRACE_DIR KEMAIL_VAR_DIR "/tmp2"
#define KEMAIL_LOG_DIR   KEMAIL_VAR_DIR "/log"

namespace kemail {

// ---------------------------------------------------------------------------
// The one lock serialising every trace record of the process.
// ---------------------------------------------------------------------------
int Trc_InitLock();
int Trc_DestroyLock();
int Trc_Lock();
int Trc_Unlock();

// ---------------------------------------------------------------------------
// Around a fork: the trace's locks, the kept rings' and the old-file scans'
// are held while the process forks, so that the child does not start with
// one held by a thread it does not have. Release runs in parent and child.
// ---------------------------------------------------------------------------
void Trc_HoldForFork();
void Trc_ReleaseAfterFork();
void Trc_HoldRingsForFork();
void Trc_ReleaseRingsAfterFork();
void DeleteOldFiles_HoldForFork();
void DeleteOldFiles_ReleaseAfterFork();

// Puts count bytes into the ring at the handle's write offset, wrapping to
// offset 4, and advances the offset. The caller holds the lock and has
// checked that the offset lies in 4..size.
void Trc_PutRing(TraceHandle* handle, const void* bytes, size_t count);

// Copies block_count blocks of 1024 bytes from one descriptor to another,
// from offset 0, padding a short source with zero bytes. 0, or -1 on a read
// error or a short write.
constexpr size_t kTraceBlockSize = 1024;
int Trc_CopyBlocks(int from, int to, uint32_t block_count);

// Closes and unlinks a temporary file; -1 when either fails.
int Trc_RemoveTemp(int fd, const char* path);

// Rounds a trace size in KB up to the next multiple of 8 KB strictly above
// the whole 8 KB units of the request (5 -> 8, 8 -> 16, 100 -> 104).
uint32_t Trc_RoundSizeKb(uint32_t size_kb);

// ---------------------------------------------------------------------------
// Ring mappings kept from a Tclose to the next Topen of the same file.
// ---------------------------------------------------------------------------
// A mapping Topen made of a file (device, inode) that was at least length
// bytes long, so that Tclose may keep it. Not followed when the table is
// full of mappings in use: Tclose then unmaps it.
void Trc_FollowRing(void* map, size_t length, dev_t device, ino_t inode);
// The kept mapping of that file with that length, now in use again, or null.
void* Trc_TakeKeptRing(size_t length, dev_t device, ino_t inode);
// At Tclose: 1 when the mapping is followed and now kept (the oldest kept
// one beyond the limit is unmapped), -1 when unmapping that one failed; 0
// when the mapping is not followed and the caller unmaps it.
int Trc_KeepRing(void* map, size_t length);
// The number of mappings kept at most.
constexpr size_t kKeptRings = 4;

// ---------------------------------------------------------------------------
// The list of old trace or log files, newest first.
// ---------------------------------------------------------------------------
// Room for a directory and a name joined by "/" (up to 1031 bytes).
constexpr size_t kOldFilePathSize = 1032;

struct OldFile {
    OldFile* next;
    time_t mtime;
    char path[kOldFilePathSize];
};

// Inserts a node for path after every node at least as new; -1 without memory.
int DeleteOldFiles_AddList(OldFile** head, const char* path, time_t mtime);
// Deletes every listed file from position keep on (counting from 1).
// Returns the number of listed files still there afterwards.
uint32_t DeleteOldFiles_DeleteList(const OldFile* head, uint32_t keep);
void DeleteOldFiles_FreeList(OldFile* head);

// Owns a list built with DeleteOldFiles_AddList and frees it on every exit.
struct OldFileList {
    OldFile* head = nullptr;
    OldFileList() = default;
    ~OldFileList() { DeleteOldFiles_FreeList(head); }
    OldFileList(const OldFileList&) = delete;
    OldFileList& operator=(const OldFileList&) = delete;
};

// GetTraceInfo and MailLogOpen with "trc_conf" already open as profile
// (null when it could not be opened), so that the send entry reads the file
// once for both.
int trace_info_from(ProfileHandle* profile, const char* section, unsigned int* size,
                    unsigned int* level, unsigned int* count);
MailLogHandle* mail_log_open_from(ProfileHandle* profile);

}  // namespace kemail
