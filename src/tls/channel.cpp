#include "tls/channel.h"

#include "util/mutex_lock.h"

#include <memory>

#include <pthread.h>
#include <sys/stat.h>

namespace kemail::tls {
namespace {

// Sockets with TLS at once: one SMTP and one POP3 connection of a send,
// with room to spare for callers of the exported functions.
constexpr int kSlots = 8;

struct Entry {
    int fd = -1;
    ino_t inode = 0;
    dev_t device = 0;
    TlsSession* session = nullptr;
};

Entry g_entries[kSlots];
pthread_mutex_t g_lock = PTHREAD_MUTEX_INITIALIZER;

bool identify(int fd, ino_t& inode, dev_t& device) {
    struct stat st;
    if (fd < 0 || fstat(fd, &st) != 0 || !S_ISSOCK(st.st_mode)) return false;
    inode = st.st_ino;
    device = st.st_dev;
    return true;
}

// Sessions leave the table under the lock and are said goodbye to and freed
// after it, so that no OpenSSL call runs under the lock (a fork holds it).
std::unique_ptr<TlsSession> take(Entry& entry) {
    std::unique_ptr<TlsSession> session(entry.session);
    entry = Entry{};
    return session;
}

// The entry of fd when it still names the socket it was made for; a stale
// entry for the number is taken out into stale.
Entry* find(int fd, std::unique_ptr<TlsSession>& stale) {
    for (Entry& entry : g_entries) {
        if (entry.fd != fd || entry.session == nullptr) continue;
        ino_t inode;
        dev_t device;
        if (identify(fd, inode, device) && inode == entry.inode && device == entry.device) {
            return &entry;
        }
        stale = take(entry);
        return nullptr;
    }
    return nullptr;
}

}  // namespace

TlsSession* session_for(int fd) noexcept {
    std::unique_ptr<TlsSession> stale;  // freed after the lock is let go
    const MutexLock guard(g_lock);
    Entry* entry = find(fd, stale);
    return entry != nullptr ? entry->session : nullptr;
}

bool attach(int fd, TlsSession* session) noexcept {
    std::unique_ptr<TlsSession> owned(session), stale, old;  // freed after the lock
    const MutexLock guard(g_lock);
    ino_t inode;
    dev_t device;
    if (!identify(fd, inode, device)) return false;
    if (Entry* previous = find(fd, stale)) old = take(*previous);
    for (Entry& entry : g_entries) {
        if (entry.session == nullptr) {
            entry = Entry{fd, inode, device, owned.release()};
            return true;
        }
    }
    return false;
}

void hold_for_fork() noexcept { pthread_mutex_lock(&g_lock); }

void release_after_fork() noexcept { pthread_mutex_unlock(&g_lock); }

void release(int fd) noexcept {
    std::unique_ptr<TlsSession> stale, session;
    {
        const MutexLock guard(g_lock);
        if (Entry* entry = find(fd, stale)) session = take(*entry);
    }
    if (session) session->finish();
}

}  // namespace kemail::tls
