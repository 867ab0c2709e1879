// Trace rings kept mapped between sends. A process traces each send through
// a Topen and a Tclose of its one ring file, and mapping and unmapping that
// file each time (with the page faults of writing to a fresh mapping) cost
// more than all the records of a small send. So Tclose keeps the mapping of
// the file it closes, and the next Topen of the same file (the same device
// and inode, still at least as long) takes it up instead of mapping it anew.
// A mapping is the file's pages whichever call made it: the file holds the
// same bytes either way, and its descriptor is still opened by each Topen
// and closed by each Tclose. At most kKeptRings stay mapped, the oldest going
// first; a kept mapping pins its file (deleted or not) until it goes, and
// all go when the library is unloaded.
#include "log/log.h"

#include "util/mutex_lock.h"

#include <cstdint>

#include <pthread.h>
#include <sys/mman.h>

namespace kemail {

namespace {

struct Ring {
    void* map = nullptr;  // null: a free slot
    size_t length = 0;
    dev_t device = 0;
    ino_t inode = 0;
    uint64_t kept_since = 0;  // 0 while a handle uses the mapping
};

// Room for the rings of a few threads that trace at once, besides the kept.
constexpr size_t kRingSlots = 2 * kKeptRings;

Ring g_rings[kRingSlots];
uint64_t g_keep_count = 0;
pthread_mutex_t g_rings_lock = PTHREAD_MUTEX_INITIALIZER;

// The slot is freed even when munmap fails: the mapping is then lost to
// the process, which is all a retry could make of it.
bool release(Ring& ring) {
    const bool unmapped = ::munmap(ring.map, ring.length) == 0;
    ring = Ring{};
    return unmapped;
}

Ring* oldest_kept_beyond_limit() {
    size_t kept = 0;
    Ring* oldest = nullptr;
    for (Ring& ring : g_rings) {
        if (ring.map == nullptr || ring.kept_since == 0) continue;
        ++kept;
        if (oldest == nullptr || ring.kept_since < oldest->kept_since) oldest = &ring;
    }
    return kept > kKeptRings ? oldest : nullptr;
}

struct ReleaseAtUnload {
    ~ReleaseAtUnload() {
        const MutexLock lock(g_rings_lock);
        for (Ring& ring : g_rings) {
            // Nobody to tell at unloading if munmap fails.
            if (ring.map != nullptr && ring.kept_since != 0) (void)release(ring);
        }
    }
};
ReleaseAtUnload g_release_at_unload;

}  // namespace

void Trc_HoldRingsForFork() { pthread_mutex_lock(&g_rings_lock); }

void Trc_ReleaseRingsAfterFork() { pthread_mutex_unlock(&g_rings_lock); }

void Trc_FollowRing(void* map, size_t length, dev_t device, ino_t inode) {
    const MutexLock lock(g_rings_lock);
    for (Ring& ring : g_rings) {
        if (ring.map == nullptr) {
            ring = Ring{map, length, device, inode, 0};
            return;
        }
    }
}

void* Trc_TakeKeptRing(size_t length, dev_t device, ino_t inode) {
    const MutexLock lock(g_rings_lock);
    for (Ring& ring : g_rings) {
        if (ring.map != nullptr && ring.kept_since != 0 && ring.device == device &&
            ring.inode == inode && ring.length == length) {
            ring.kept_since = 0;
            return ring.map;
        }
    }
    return nullptr;
}

int Trc_KeepRing(void* map, size_t length) {
    const MutexLock lock(g_rings_lock);
    for (Ring& ring : g_rings) {
        if (ring.map != map || ring.length != length || ring.kept_since != 0) continue;
        ring.kept_since = ++g_keep_count;
        Ring* oldest = oldest_kept_beyond_limit();
        return oldest == nullptr || release(*oldest) ? 1 : -1;
    }
    return 0;
}

}  // namespace kemail
