/*
 * The fault injector (see fault_inject.h). Each interposed function asks
 * whether its caller is libkemail; if so it counts the call and, when the
 * call is the armed one, fails it the armed way instead of (or, for close and
 * connect, after) doing it. Every other call goes straight to libc.
 */
#define _GNU_SOURCE
#include "fault_inject.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <link.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

extern void* __libc_malloc(size_t);
extern void* __libc_calloc(size_t, size_t);
extern void* __libc_realloc(void*, size_t);

/* ------------------------------------------------------------------ state */

/* libkemail.so's loaded segments, found by fi_reset. */
#define MAX_SEGMENTS 8
static uintptr_t seg_lo[MAX_SEGMENTS];
static uintptr_t seg_hi[MAX_SEGMENTS];
static int seg_count;

static long counts[FI_CALL_COUNT];
static int armed_call = -1;
static long armed_n;
static int armed_mode;
static int fired;
static char fired_target[256];
/* The clock's offset once a clock fault has fired. */
static time_t clock_offset;

static int in_kemail(const void* address) {
    const uintptr_t a = (uintptr_t)address;
    const int n = __atomic_load_n(&seg_count, __ATOMIC_ACQUIRE);
    for (int i = 0; i < n; ++i) {
        if (a >= seg_lo[i] && a < seg_hi[i]) return 1;
    }
    return 0;
}

enum { PASS = -1 };

/* Counts a libkemail call; returns the mode to inject, or PASS. */
static int decide(int call, const void* caller) {
    if (!in_kemail(caller)) return PASS;
    const long n = __atomic_add_fetch(&counts[call], 1, __ATOMIC_ACQ_REL);
    if (__atomic_load_n(&armed_call, __ATOMIC_ACQUIRE) != call || n != armed_n) return PASS;
    return armed_mode;
}

static void note_target_text(const char* text) {
    snprintf(fired_target, sizeof fired_target, "%s", text ? text : "(null)");
    __atomic_store_n(&fired, 1, __ATOMIC_RELEASE);
}

static void note_target_fd(int fd) {
    char link_path[64];
    char target[sizeof fired_target];
    snprintf(link_path, sizeof link_path, "/proc/self/fd/%d", fd);
    const ssize_t n = readlink(link_path, target, sizeof target - 1);
    if (n < 0) {
        snprintf(target, sizeof target, "fd %d (closed)", fd);
    } else {
        target[n] = '\0';
    }
    note_target_text(target);
}

/* ------------------------------------------------------ real functions */

static ssize_t (*real_send)(int, const void*, size_t, int);
static ssize_t (*real_recv)(int, void*, size_t, int);
static int (*real_select)(int, fd_set*, fd_set*, fd_set*, struct timeval*);
static ssize_t (*real_read)(int, void*, size_t);
static ssize_t (*real_write)(int, const void*, size_t);
static ssize_t (*real_writev)(int, const struct iovec*, int);
static int (*real_open)(const char*, int, ...);
static int (*real_open64)(const char*, int, ...);
static int (*real_openat)(int, const char*, int, ...);
static int (*real_openat64)(int, const char*, int, ...);
static off_t (*real_lseek)(int, off_t, int);
static off_t (*real_lseek64)(int, off_t, int);
static int (*real_stat)(const char*, struct stat*);
static int (*real_fstat)(int, struct stat*);
static int (*real_lstat)(const char*, struct stat*);
static int (*real_unlink)(const char*);
static void* (*real_mmap)(void*, size_t, int, int, int, off_t);
static void* (*real_mmap64)(void*, size_t, int, int, int, off_t);
static int (*real_socket)(int, int, int);
static int (*real_connect)(int, const struct sockaddr*, socklen_t);
static int (*real_close)(int);
static time_t (*real_time)(time_t*);

#define RESOLVE(name) real_##name = (__typeof__(real_##name))dlsym(RTLD_NEXT, #name)

__attribute__((constructor)) static void resolve_all(void) {
    RESOLVE(send);
    RESOLVE(recv);
    RESOLVE(select);
    RESOLVE(read);
    RESOLVE(write);
    RESOLVE(writev);
    RESOLVE(open);
    RESOLVE(open64);
    RESOLVE(openat);
    RESOLVE(openat64);
    RESOLVE(lseek);
    RESOLVE(lseek64);
    RESOLVE(stat);
    RESOLVE(fstat);
    RESOLVE(lstat);
    RESOLVE(unlink);
    RESOLVE(mmap);
    RESOLVE(mmap64);
    RESOLVE(socket);
    RESOLVE(connect);
    RESOLVE(close);
    RESOLVE(time);
}

/* ---------------------------------------------------------------- control */

static int find_segments(struct dl_phdr_info* info, size_t size, void* data) {
    (void)size;
    (void)data;
    const char* name = info->dlpi_name;
    if (name == NULL || strstr(name, "libkemail.so") == NULL) return 0;
    int n = 0;
    for (int i = 0; i < info->dlpi_phnum && n < MAX_SEGMENTS; ++i) {
        const ElfW(Phdr)* ph = &info->dlpi_phdr[i];
        if (ph->p_type != PT_LOAD) continue;
        seg_lo[n] = info->dlpi_addr + ph->p_vaddr;
        seg_hi[n] = seg_lo[n] + ph->p_memsz;
        ++n;
    }
    __atomic_store_n(&seg_count, n, __ATOMIC_RELEASE);
    return 1;
}

int fi_reset(void) {
    __atomic_store_n(&armed_call, -1, __ATOMIC_RELEASE);
    for (int i = 0; i < FI_CALL_COUNT; ++i) __atomic_store_n(&counts[i], 0, __ATOMIC_RELEASE);
    fired = 0;
    fired_target[0] = '\0';
    clock_offset = 0;
    if (__atomic_load_n(&seg_count, __ATOMIC_ACQUIRE) == 0) dl_iterate_phdr(find_segments, NULL);
    return seg_count > 0 ? 0 : -1;
}

void fi_arm(int call, long n, int mode) {
    armed_n = n;
    armed_mode = mode;
    fired = 0;
    fired_target[0] = '\0';
    __atomic_store_n(&armed_call, call, __ATOMIC_RELEASE);
}

void fi_disarm(void) { __atomic_store_n(&armed_call, -1, __ATOMIC_RELEASE); }

long fi_count(int call) {
    return call >= 0 && call < FI_CALL_COUNT ? __atomic_load_n(&counts[call], __ATOMIC_ACQUIRE)
                                             : -1;
}

int fi_fired(char* target, size_t size) {
    const int was = __atomic_load_n(&fired, __ATOMIC_ACQUIRE);
    if (target != NULL && size > 0) snprintf(target, size, "%s", was ? fired_target : "");
    return was;
}

int fi_errno_of(int call) {
    switch (call) {
        case FI_SEND: return EPIPE;
        case FI_RECV: return ECONNRESET;
        case FI_SELECT: return ENOMEM;
        case FI_READ: return EIO;
        case FI_WRITE: return EIO;
        case FI_OPEN: return EACCES;
        case FI_LSEEK: return EINVAL;
        case FI_STAT: return EACCES;
        case FI_UNLINK: return EBUSY;
        case FI_MMAP: return ENOMEM;
        case FI_MALLOC: return ENOMEM;
        case FI_SOCKET: return EMFILE;
        case FI_CONNECT: return ENETUNREACH;
        case FI_CLOSE: return EIO;
        default: return EIO;
    }
}

static size_t half(size_t n) { return n > 1 ? n / 2 : n; }

/* ----------------------------------------------------------- interposers */

#define CALLER __builtin_return_address(0)

/* Fails a call of a kind that only knows the errno, EINTR and (for the byte
   calls) a short count. Returns 1 when the call was failed with -1. */
static int fail_plain(int mode, int call) {
    if (mode == FI_ERRNO) {
        errno = fi_errno_of(call);
        return 1;
    }
    if (mode == FI_EINTR) {
        errno = EINTR;
        return 1;
    }
    if (mode == FI_ENOSPC) {
        errno = ENOSPC;
        return 1;
    }
    return 0;
}

__attribute__((noinline)) ssize_t send(int fd, const void* buf, size_t len, int flags) {
    const int mode = decide(FI_SEND, CALLER);
    if (mode != PASS) {
        note_target_fd(fd);
        if (mode == FI_SHORT) return real_send(fd, buf, half(len), flags);
        if (fail_plain(mode, FI_SEND)) return -1;
    }
    return real_send(fd, buf, len, flags);
}

__attribute__((noinline)) ssize_t recv(int fd, void* buf, size_t len, int flags) {
    const int mode = decide(FI_RECV, CALLER);
    if (mode != PASS) {
        note_target_fd(fd);
        if (mode == FI_SHORT) return real_recv(fd, buf, half(len), flags);
        if (fail_plain(mode, FI_RECV)) return -1;
    }
    return real_recv(fd, buf, len, flags);
}

__attribute__((noinline)) int select(int nfds, fd_set* r, fd_set* w, fd_set* e, struct timeval* t) {
    const int mode = decide(FI_SELECT, CALLER);
    if (mode != PASS) {
        if (nfds > 0) {
            note_target_fd(nfds - 1);
        } else {
            note_target_text("select without descriptors");
        }
        if (fail_plain(mode, FI_SELECT)) return -1;
    }
    return real_select(nfds, r, w, e, t);
}

__attribute__((noinline)) ssize_t read(int fd, void* buf, size_t len) {
    const int mode = decide(FI_READ, CALLER);
    if (mode != PASS) {
        note_target_fd(fd);
        if (mode == FI_SHORT) return real_read(fd, buf, half(len));
        if (fail_plain(mode, FI_READ)) return -1;
    }
    return real_read(fd, buf, len);
}

__attribute__((noinline)) ssize_t write(int fd, const void* buf, size_t len) {
    const int mode = decide(FI_WRITE, CALLER);
    if (mode != PASS) {
        note_target_fd(fd);
        if (mode == FI_SHORT) return real_write(fd, buf, half(len));
        if (fail_plain(mode, FI_WRITE)) return -1;
    }
    return real_write(fd, buf, len);
}

__attribute__((noinline)) ssize_t writev(int fd, const struct iovec* iov, int count) {
    const int mode = decide(FI_WRITE, CALLER);
    if (mode != PASS) {
        note_target_fd(fd);
        if (mode == FI_SHORT) {
            size_t total = 0;
            for (int i = 0; i < count; ++i) total += iov[i].iov_len;
            size_t left = half(total);
            struct iovec cut[64];
            int n = 0;
            for (int i = 0; i < count && n < 64 && left > 0; ++i, ++n) {
                cut[n] = iov[i];
                if (cut[n].iov_len > left) cut[n].iov_len = left;
                left -= cut[n].iov_len;
            }
            return real_writev(fd, cut, n);
        }
        if (fail_plain(mode, FI_WRITE)) return -1;
    }
    return real_writev(fd, iov, count);
}

static int open_mode_arg(int flags, va_list args) {
    return (flags & O_CREAT) || (flags & O_TMPFILE) == O_TMPFILE ? va_arg(args, int) : 0;
}

__attribute__((noinline)) int open(const char* path, int flags, ...) {
    va_list args;
    va_start(args, flags);
    const int perm = open_mode_arg(flags, args);
    va_end(args);
    const int mode = decide(FI_OPEN, CALLER);
    if (mode != PASS) {
        note_target_text(path);
        if (fail_plain(mode, FI_OPEN)) return -1;
    }
    return real_open(path, flags, perm);
}

__attribute__((noinline)) int open64(const char* path, int flags, ...) {
    va_list args;
    va_start(args, flags);
    const int perm = open_mode_arg(flags, args);
    va_end(args);
    const int mode = decide(FI_OPEN, CALLER);
    if (mode != PASS) {
        note_target_text(path);
        if (fail_plain(mode, FI_OPEN)) return -1;
    }
    return real_open64(path, flags, perm);
}

__attribute__((noinline)) int openat(int dir, const char* path, int flags, ...) {
    va_list args;
    va_start(args, flags);
    const int perm = open_mode_arg(flags, args);
    va_end(args);
    const int mode = decide(FI_OPEN, CALLER);
    if (mode != PASS) {
        note_target_text(path);
        if (fail_plain(mode, FI_OPEN)) return -1;
    }
    return real_openat(dir, path, flags, perm);
}

__attribute__((noinline)) int openat64(int dir, const char* path, int flags, ...) {
    va_list args;
    va_start(args, flags);
    const int perm = open_mode_arg(flags, args);
    va_end(args);
    const int mode = decide(FI_OPEN, CALLER);
    if (mode != PASS) {
        note_target_text(path);
        if (fail_plain(mode, FI_OPEN)) return -1;
    }
    return real_openat64(dir, path, flags, perm);
}

__attribute__((noinline)) off_t lseek(int fd, off_t offset, int whence) {
    const int mode = decide(FI_LSEEK, CALLER);
    if (mode != PASS) {
        note_target_fd(fd);
        if (fail_plain(mode, FI_LSEEK)) return -1;
    }
    return real_lseek(fd, offset, whence);
}

__attribute__((noinline)) off_t lseek64(int fd, off_t offset, int whence) {
    const int mode = decide(FI_LSEEK, CALLER);
    if (mode != PASS) {
        note_target_fd(fd);
        if (fail_plain(mode, FI_LSEEK)) return -1;
    }
    return real_lseek64(fd, offset, whence);
}

__attribute__((noinline)) int stat(const char* path, struct stat* st) {
    const int mode = decide(FI_STAT, CALLER);
    if (mode != PASS) {
        note_target_text(path);
        if (fail_plain(mode, FI_STAT)) return -1;
    }
    return real_stat(path, st);
}

__attribute__((noinline)) int lstat(const char* path, struct stat* st) {
    const int mode = decide(FI_STAT, CALLER);
    if (mode != PASS) {
        note_target_text(path);
        if (fail_plain(mode, FI_STAT)) return -1;
    }
    return real_lstat(path, st);
}

__attribute__((noinline)) int fstat(int fd, struct stat* st) {
    const int mode = decide(FI_STAT, CALLER);
    if (mode != PASS) {
        note_target_fd(fd);
        if (fail_plain(mode, FI_STAT)) return -1;
    }
    return real_fstat(fd, st);
}

__attribute__((noinline)) int unlink(const char* path) {
    const int mode = decide(FI_UNLINK, CALLER);
    if (mode != PASS) {
        note_target_text(path);
        if (fail_plain(mode, FI_UNLINK)) return -1;
    }
    return real_unlink(path);
}

__attribute__((noinline)) void* mmap(void* addr, size_t len, int prot, int flags, int fd,
                                     off_t off) {
    const int mode = decide(FI_MMAP, CALLER);
    if (mode != PASS) {
        note_target_fd(fd);
        if (fail_plain(mode, FI_MMAP)) return MAP_FAILED;
    }
    return real_mmap(addr, len, prot, flags, fd, off);
}

__attribute__((noinline)) void* mmap64(void* addr, size_t len, int prot, int flags, int fd,
                                       off_t off) {
    const int mode = decide(FI_MMAP, CALLER);
    if (mode != PASS) {
        note_target_fd(fd);
        if (fail_plain(mode, FI_MMAP)) return MAP_FAILED;
    }
    return real_mmap64(addr, len, prot, flags, fd, off);
}

static void note_size(size_t size) {
    char text[64];
    snprintf(text, sizeof text, "allocation of %zu bytes", size);
    note_target_text(text);
}

__attribute__((noinline)) void* malloc(size_t size) {
    if (decide(FI_MALLOC, CALLER) != PASS) {
        note_size(size);
        errno = ENOMEM;
        return NULL;
    }
    return __libc_malloc(size);
}

__attribute__((noinline)) void* calloc(size_t count, size_t size) {
    if (decide(FI_MALLOC, CALLER) != PASS) {
        note_size(count * size);
        errno = ENOMEM;
        return NULL;
    }
    return __libc_calloc(count, size);
}

__attribute__((noinline)) void* realloc(void* block, size_t size) {
    if (decide(FI_MALLOC, CALLER) != PASS) {
        note_size(size);
        errno = ENOMEM;
        return NULL;
    }
    return __libc_realloc(block, size);
}

__attribute__((noinline)) int socket(int domain, int type, int protocol) {
    const int mode = decide(FI_SOCKET, CALLER);
    if (mode != PASS) {
        note_target_text("socket");
        if (fail_plain(mode, FI_SOCKET)) return -1;
    }
    return real_socket(domain, type, protocol);
}

__attribute__((noinline)) int connect(int fd, const struct sockaddr* addr, socklen_t len) {
    const int mode = decide(FI_CONNECT, CALLER);
    if (mode != PASS) {
        note_target_fd(fd);
        if (mode == FI_EINTR) {
            /* The connection goes on in the background, as after a signal. */
            real_connect(fd, addr, len);
            errno = EINTR;
            return -1;
        }
        if (fail_plain(mode, FI_CONNECT)) return -1;
    }
    return real_connect(fd, addr, len);
}

__attribute__((noinline)) int close(int fd) {
    const int mode = decide(FI_CLOSE, CALLER);
    if (mode != PASS) {
        note_target_fd(fd);
        if (mode == FI_ERRNO || mode == FI_EINTR) {
            /* Linux releases the descriptor whatever close reports. */
            real_close(fd);
            errno = mode == FI_EINTR ? EINTR : fi_errno_of(FI_CLOSE);
            return -1;
        }
    }
    return real_close(fd);
}

__attribute__((noinline)) time_t time(time_t* out) {
    const int mode = decide(FI_TIME, CALLER);
    if (mode == FI_CLOCK_BACK || mode == FI_CLOCK_FORWARD) {
        note_target_text("clock");
        clock_offset = mode == FI_CLOCK_BACK ? -3600 : 4000;
    }
    time_t now = real_time(NULL);
    if (in_kemail(CALLER)) now += clock_offset;
    if (out != NULL) *out = now;
    return now;
}
