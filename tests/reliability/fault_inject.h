/*
 * A system-call and allocation fault injector, preloaded (LD_PRELOAD) into a
 * test program. It counts, and on request fails, the calls that libkemail.so
 * itself makes: a call is libkemail's when its return address lies in one of
 * the library's loaded segments. Calls made by the test, by GoogleTest, by the
 * scripted server or by libc on its own behalf pass through untouched.
 *
 * Allocations: libkemail allocates with malloc and calloc only (it makes no
 * operator-new allocation and no realloc call), so only direct calls are
 * judged; an allocation libc or libstdc++ makes on the library's behalf is
 * not counted.
 *
 * The test finds these functions with dlsym(RTLD_DEFAULT, ...): a program
 * that runs without the injector preloaded re-executes itself with it.
 */
#ifndef KEMAIL_FAULT_INJECT_H
#define KEMAIL_FAULT_INJECT_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The call kinds counted. Several functions share a kind. */
enum fi_call {
    FI_SEND,    /* send */
    FI_RECV,    /* recv */
    FI_SELECT,  /* select */
    FI_READ,    /* read */
    FI_WRITE,   /* write, writev */
    FI_OPEN,    /* open, open64, openat, openat64 */
    FI_LSEEK,   /* lseek, lseek64 */
    FI_STAT,    /* stat, fstat, lstat */
    FI_UNLINK,  /* unlink */
    FI_MMAP,    /* mmap, mmap64 */
    FI_MALLOC,  /* malloc, calloc, realloc */
    FI_SOCKET,  /* socket */
    FI_CONNECT, /* connect */
    FI_CLOSE,   /* close */
    FI_TIME,    /* time */
    FI_CALL_COUNT
};

/* What happens to the armed call. */
enum fi_mode {
    FI_ERRNO,         /* fails with the call kind's usual error number */
    FI_EINTR,         /* interrupted before it did anything (close and
                         connect: after, as Linux does) */
    FI_SHORT,         /* send, recv, write: half the bytes (at least one) */
    FI_ENOSPC,        /* write: the disk is full */
    FI_CLOCK_BACK,    /* time: from this call on the clock reads an hour back */
    FI_CLOCK_FORWARD, /* time: from this call on the clock reads 4000 s ahead,
                         past every phase time-out */
    FI_MODE_COUNT
};

/* Finds libkemail.so's segments, zeroes every counter and disarms. Returns 0,
   or -1 when the library is not loaded. */
int fi_reset(void);
/* From now on, the n-th call (counted from 1 since fi_reset) of the kind is
   made to fail in the given way. */
void fi_arm(int call, long n, int mode);
/* Stops injecting (the counters keep counting). */
void fi_disarm(void);
/* Calls of the kind made by libkemail since fi_reset. */
long fi_count(int call);
/* 1 when the armed call was reached; its target (a path, "socket:[..]",
   "clock", an allocation size) is copied into target. */
int fi_fired(char* target, size_t size);
/* The error number the kind fails with in FI_ERRNO mode. */
int fi_errno_of(int call);

#ifdef __cplusplus
}
#endif

#endif
