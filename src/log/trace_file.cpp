// Opening and closing trace files. Opening sizes the file once (through a
// temporary copy, keeping the old ring; a file already of its size needs no
// copy) and maps it shared, so that writes later are plain memory copies
// (a file of its size may still be mapped from its last Tclose: see
// trace_rings.cpp); the ring survives a restart under the same name and
// writing continues where it stopped.
#include "log/log.h"
#include "util/format.h"
#include "util/unique_fd.h"
#include "util/util.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kemail {

namespace {

// O_NOFOLLOW: trace names are predictable, so a symbolic link planted at
// the next one must not turn the ring's sizing and writes onto the file it
// points to (test PlantedLinks.TraceMailLogAndWorkFileNamesNeverWriteThroughALink).
int open_trace_file(const char* path, int flags, mode_t mode = 0) {
    int fd = retry_on_eintr([&] { return ::open(path, flags | O_CLOEXEC | O_NOFOLLOW, mode); });
    // Descriptor 0 means "no file" in a handle: never keep the file there.
    if (fd == 0) {
        const int moved = ::fcntl(fd, F_DUPFD_CLOEXEC, 1);
        ::close(fd);
        fd = moved;
    }
    return fd;
}

// The temporary file is made beside the trace file: the part of the path up
// to its last "/", or "./" for a bare name. Fills name (of name_size bytes)
// and returns the open descriptor, or -1.
int make_temp_beside(const char* path, char* name, size_t name_size) {
    const char* slash = std::strrchr(path, '/');
    const int dir_length = slash ? static_cast<int>(slash - path + 1) : 0;
    const int written =
        slash ? format_into(name, name_size, Overflow::Refuse, "%.*strcXXXXXX", dir_length, path)
              : format_into(name, name_size, Overflow::Refuse, "./trcXXXXXX");
    if (written < 0) {
        errno = ENAMETOOLONG;
        return -1;
    }
    const int fd = ::mkostemp(name, O_CLOEXEC);
    if (fd >= 0) ::fchmod(fd, 0644);
    return fd;
}

// Makes the trace file exactly size_kb KB long (or leaves a longer one as
// it is), keeping its content, by a round trip through a temporary file.
int size_through_temp(int trace_fd, const char* path, uint32_t size_kb) {
    char temp_name[KEMAIL_PATH_MAX + 16];
    const int temp_fd = make_temp_beside(path, temp_name, sizeof temp_name);
    if (temp_fd < 0) return -1;
    if (Trc_CopyBlocks(trace_fd, temp_fd, size_kb) != 0 ||
        Trc_CopyBlocks(temp_fd, trace_fd, size_kb) != 0) {
        Trc_RemoveTemp(temp_fd, temp_name);
        return -1;
    }
    return Trc_RemoveTemp(temp_fd, temp_name);
}

// Sets the file's modification (and change) time to now, as writing to it
// does, leaving its access time.
int mark_rewritten(int fd) {
    const struct timespec times[2] = {{0, UTIME_OMIT}, {0, UTIME_NOW}};
    return ::futimens(fd, times);
}

// The write offset the reopened ring continues from.
void fix_write_offset(TraceHandle* handle, bool is_new, off_t old_length) {
    const size_t size = static_cast<size_t>(handle->size_kb) * 1024;
    uint32_t offset = trace_format::kHeaderSize;
    if (!is_new && static_cast<size_t>(old_length) <= size) {
        std::memcpy(&offset, handle->map, sizeof offset);
        if (offset < trace_format::kHeaderSize || offset > size) offset = trace_format::kHeaderSize;
    }
    std::memcpy(handle->map, &offset, sizeof offset);
}

}  // namespace

uint32_t Trc_RoundSizeKb(uint32_t size_kb) {
    const uint32_t blocks = ((size_kb * 1024u) >> 13) + 1;
    return blocks * 8;
}

int Trc_CopyBlocks(int from, int to, uint32_t block_count) {
    if (::lseek(from, 0, SEEK_SET) < 0 || ::lseek(to, 0, SEEK_SET) < 0) return -1;
    unsigned char block[kTraceBlockSize];
    bool at_end = false;
    for (uint32_t i = 0; i < block_count; ++i) {
        std::memset(block, 0, sizeof block);
        if (!at_end) {
            const ssize_t got = retry_on_eintr([&] { return ::read(from, block, sizeof block); });
            if (got < 0) return -1;
            if (got == 0) at_end = true;
        }
        // A short write goes on with the rest of the block.
        for (size_t done = 0; done < sizeof block;) {
            const ssize_t put =
                retry_on_eintr([&] { return ::write(to, block + done, sizeof block - done); });
            if (put <= 0) return -1;
            done += static_cast<size_t>(put);
        }
    }
    return 0;
}

int Trc_RemoveTemp(int fd, const char* path) {
    // Linux releases the descriptor even when close reports EINTR: the
    // temporary is closed, and retrying could close another thread's file.
    const int closed = ::close(fd) == 0 || errno == EINTR ? 0 : -1;
    const int unlinked = ::unlink(path);
    return (closed != 0 || unlinked != 0) ? -1 : 0;
}

}  // namespace kemail

using namespace kemail;

namespace {

// Opens, sizes and maps the trace file into the handle; -1 on any failure,
// with the file closed again.
int open_ring(TraceHandle* handle, const char* path, uint32_t requested_kb, uint32_t level) {
    bool is_new = false;
    off_t old_length = 0;
    // A file created now has the mode the umask left; an existing one is
    // changed only when it is not 0644 already.
    bool set_mode = true;
    struct stat status = {};
    UniqueFd file(open_trace_file(path, O_RDWR));
    if (!file.valid()) {
        file.reset(open_trace_file(path, O_RDWR | O_CREAT, 0644));
        if (!file.valid()) return -1;
        is_new = true;
    } else {
        if (::fstat(file.get(), &status) != 0) return -1;
        old_length = status.st_size;
        if (old_length < static_cast<off_t>(trace_format::kHeaderSize)) is_new = true;
        set_mode = (status.st_mode & 07777) != 0644;
    }
    if (set_mode) ::fchmod(file.get(), 0644);

    const uint32_t size_kb = Trc_RoundSizeKb(requested_kb);
    const size_t size = static_cast<size_t>(size_kb) * 1024;
    const bool sized = !is_new && static_cast<size_t>(old_length) >= size;
    if (sized) {
        // Already at least the size: the round trip through a temporary copy
        // would write the very bytes it read back, so of it only its mark on
        // the file is made, the modification time that orders the trace
        // files for removal (the copy is what a process pays once per file,
        // not on each send).
        if (mark_rewritten(file.get()) != 0) return -1;
    } else if (size_through_temp(file.get(), path, size_kb) != 0) {
        return -1;
    }
    // A file already of its size may still be mapped from the last Tclose.
    void* map = sized ? Trc_TakeKeptRing(size, status.st_dev, status.st_ino) : nullptr;
    if (map == nullptr) {
        map = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
        if (map == MAP_FAILED) return -1;
        if (sized) Trc_FollowRing(map, size, status.st_dev, status.st_ino);
    }
    handle->map = static_cast<unsigned char*>(map);
    handle->size_kb = size_kb;
    handle->level = level;
    handle->fd = file.release();
    fix_write_offset(handle, is_new, old_length);
    return 0;
}

}  // namespace

extern "C" {

KEMAIL_API TraceHandle* Topen(const char* pszPath, unsigned int ulSizeKb,
                              unsigned int ulLevel) noexcept {
    TraceHandle* handle = static_cast<TraceHandle*>(std::calloc(1, sizeof(TraceHandle)));
    if (!handle) return nullptr;
    if (Trc_InitLock() != 0) {
        std::free(handle);
        return nullptr;
    }
    // Level or size 0: a valid handle through which nothing is ever written.
    if (ulLevel == 0 || ulSizeKb == 0) return handle;
    if (!pszPath || open_ring(handle, pszPath, ulSizeKb, ulLevel) != 0) {
        Trc_DestroyLock();
        std::free(handle);
        return nullptr;
    }
    return handle;
}

KEMAIL_API int Tclose(TraceHandle* pHandle) noexcept {
    if (!pHandle) return -1;
    int result = 0;
    if (pHandle->map) {
        const size_t length = static_cast<size_t>(pHandle->size_kb) * 1024;
        const int kept = Trc_KeepRing(pHandle->map, length);
        if (kept < 0 || (kept == 0 && ::munmap(pHandle->map, length) != 0)) result = -1;
    }
    if (pHandle->fd != 0 && ::close(pHandle->fd) != 0) result = -1;
    Trc_DestroyLock();
    std::free(pHandle);
    return result;
}

}  // extern "C"
