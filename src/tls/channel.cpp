#include "tls/channel.h"

#include "util/mutex_lock.h"

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

void drop(Entry& entry) {
    delete entry.session;
    entry = Entry{};
}

// The entry of fd when it still names the socket it was made for; a stale
// entry for the number is dropped.
Entry* find(int fd) {
    for (Entry& entry : g_entries) {
        if (entry.fd != fd || entry.session == nullptr) continue;
        ino_t inode;
        dev_t device;
        if (identify(fd, inode, device) && inode == entry.inode && device == entry.device) {
            return &entry;
        }
        drop(entry);
        return nullptr;
    }
    return nullptr;
}

}  // namespace

TlsSession* session_for(int fd) noexcept {
    const MutexLock guard(g_lock);
    Entry* entry = find(fd);
    return entry != nullptr ? entry->session : nullptr;
}

bool attach(int fd, TlsSession* session) noexcept {
    const MutexLock guard(g_lock);
    ino_t inode;
    dev_t device;
    if (!identify(fd, inode, device)) {
        delete session;
        return false;
    }
    if (Entry* old = find(fd)) drop(*old);
    for (Entry& entry : g_entries) {
        if (entry.session == nullptr) {
            entry = Entry{fd, inode, device, session};
            return true;
        }
    }
    delete session;
    return false;
}

void release(int fd) noexcept {
    const MutexLock guard(g_lock);
    if (Entry* entry = find(fd)) {
        entry->session->finish();
        drop(*entry);
    }
}

}  // namespace kemail::tls
