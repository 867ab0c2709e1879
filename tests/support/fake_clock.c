/* A test clock for the time-out tests, preloaded (LD_PRELOAD) into the test
 * programs so the library's waits of a minute take milliseconds.
 *
 * It stays out of the way until a test thread calls kemail_fake_clock_start();
 * from then on, for that thread only:
 * - time(), gettimeofday() and clock_gettime() (realtime and monotonic
 *   clocks) answer the real time plus an offset;
 * - sleep(), usleep() and nanosleep() add their time to the offset and return
 *   at once;
 * - select() with a time-out first waits for real, in short slices, for the
 *   descriptors it watches. When they are still not ready and the peer has
 *   been declared silent (kemail_fake_clock_silence(), which the scripted
 *   server calls while it sleeps), or the wait has lasted kGraceMs for real,
 *   the rest of the time-out is added to the offset and select() answers 0,
 *   as after a real time-out. A select() without descriptors is a sleep.
 * Other threads (the scripted servers) and every call while no test thread
 * has started the clock see the real time and really wait. The offset only
 * grows, so time never runs backwards for the library.
 *
 * Everything else is passed to the next definition (libc, or a sanitizer's
 * interceptor) found with dlsym(RTLD_NEXT). */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <pthread.h>
#include <stdatomic.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/select.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#define EXPORT __attribute__((visibility("default")))

/* A wait on descriptors is checked this often for real, so a reply that is on
 * its way is still seen. */
static const long kSliceMs = 5;
/* A wait whose peer was not declared silent turns into a time-out only after
 * this much real time: long enough for a scripted server on a loaded machine
 * to answer, short next to the library's time-outs of a minute. */
static const long kGraceMs = 1000;

static _Atomic long long g_offset_ns;
static atomic_int g_silent_peers;
static __thread int t_active;

typedef time_t (*time_fn)(time_t*);
typedef int (*gettimeofday_fn)(struct timeval*, void*);
typedef int (*clock_gettime_fn)(clockid_t, struct timespec*);
typedef int (*select_fn)(int, fd_set*, fd_set*, fd_set*, struct timeval*);
typedef int (*nanosleep_fn)(const struct timespec*, struct timespec*);
typedef unsigned (*sleep_fn)(unsigned);
typedef int (*usleep_fn)(useconds_t);

static time_fn next_time;
static gettimeofday_fn next_gettimeofday;
static clock_gettime_fn next_clock_gettime;
static select_fn next_select;
static nanosleep_fn next_nanosleep;
static sleep_fn next_sleep;
static usleep_fn next_usleep;

static void* next_symbol(const char* name) {
    void* fn = dlsym(RTLD_NEXT, name);
    if (fn == NULL) {
        fprintf(stderr, "fake_clock: no next definition of %s\n", name);
        abort();
    }
    return fn;
}

/* Resolved once, before main: later calls never go through the dynamic
 * linker (a test may make allocation fail at any point). */
__attribute__((constructor)) static void resolve_next(void) {
    next_time = (time_fn)next_symbol("time");
    next_gettimeofday = (gettimeofday_fn)next_symbol("gettimeofday");
    next_clock_gettime = (clock_gettime_fn)next_symbol("clock_gettime");
    next_select = (select_fn)next_symbol("select");
    next_nanosleep = (nanosleep_fn)next_symbol("nanosleep");
    next_sleep = (sleep_fn)next_symbol("sleep");
    next_usleep = (usleep_fn)next_symbol("usleep");
}

/* A call that comes before the constructor ran (from another library's
 * constructor) resolves its own function. */
#define NEXT_GETTER(type, name)                                          \
    static type get_##name(void) {                                       \
        if (next_##name == NULL) next_##name = (type)next_symbol(#name); \
        return next_##name;                                              \
    }
NEXT_GETTER(time_fn, time)
NEXT_GETTER(gettimeofday_fn, gettimeofday)
NEXT_GETTER(clock_gettime_fn, clock_gettime)
NEXT_GETTER(select_fn, select)
NEXT_GETTER(nanosleep_fn, nanosleep)
NEXT_GETTER(sleep_fn, sleep)
NEXT_GETTER(usleep_fn, usleep)
#define NEXT(type, name) get_##name()

static long long real_monotonic_ns(void) {
    struct timespec now;
    if (NEXT(clock_gettime_fn, clock_gettime)(CLOCK_MONOTONIC, &now) != 0) abort();
    return (long long)now.tv_sec * 1000000000LL + now.tv_nsec;
}

static void advance_ns(long long ns) {
    if (ns > 0) atomic_fetch_add(&g_offset_ns, ns);
}

/* ------------------------------------------------------------ control */

EXPORT void kemail_fake_clock_start(void) {
    atomic_store(&g_offset_ns, 0);
    t_active = 1;
}

EXPORT void kemail_fake_clock_stop(void) { t_active = 0; }

/* Milliseconds the fake clock has run ahead of the real one. */
EXPORT long long kemail_fake_clock_advanced_ms(void) {
    return atomic_load(&g_offset_ns) / 1000000LL;
}

/* +1 when a peer falls silent (it will not send before the waiting side
 * gives up), -1 when it speaks again. */
EXPORT void kemail_fake_clock_silence(int delta) { atomic_fetch_add(&g_silent_peers, delta); }

/* ------------------------------------------------------------ clocks */

EXPORT time_t time(time_t* out) {
    time_t now;
    if (t_active) {
        /* From the same clock as gettimeofday(), so the two never disagree
         * about the second. */
        struct timespec real;
        if (NEXT(clock_gettime_fn, clock_gettime)(CLOCK_REALTIME, &real) != 0) return (time_t)-1;
        now = (time_t)(((long long)real.tv_sec * 1000000000LL + real.tv_nsec +
                        atomic_load(&g_offset_ns)) /
                       1000000000LL);
    } else {
        now = NEXT(time_fn, time)(NULL);
    }
    if (out != NULL) *out = now;
    return now;
}

EXPORT int gettimeofday(struct timeval* tv, void* tz) {
    const int rc = NEXT(gettimeofday_fn, gettimeofday)(tv, tz);
    if (rc == 0 && t_active) {
        long long us =
            (long long)tv->tv_sec * 1000000LL + tv->tv_usec + atomic_load(&g_offset_ns) / 1000LL;
        tv->tv_sec = (time_t)(us / 1000000LL);
        tv->tv_usec = (suseconds_t)(us % 1000000LL);
    }
    return rc;
}

EXPORT int clock_gettime(clockid_t id, struct timespec* ts) {
    const int rc = NEXT(clock_gettime_fn, clock_gettime)(id, ts);
    if (rc == 0 && t_active &&
        (id == CLOCK_REALTIME || id == CLOCK_MONOTONIC || id == CLOCK_BOOTTIME)) {
        long long ns =
            (long long)ts->tv_sec * 1000000000LL + ts->tv_nsec + atomic_load(&g_offset_ns);
        ts->tv_sec = (time_t)(ns / 1000000000LL);
        ts->tv_nsec = (long)(ns % 1000000000LL);
    }
    return rc;
}

/* ------------------------------------------------------------ waits */

EXPORT int nanosleep(const struct timespec* want, struct timespec* left) {
    if (!t_active || want == NULL || want->tv_sec < 0 || want->tv_nsec < 0 ||
        want->tv_nsec > 999999999L)
        return NEXT(nanosleep_fn, nanosleep)(want, left);
    advance_ns((long long)want->tv_sec * 1000000000LL + want->tv_nsec);
    if (left != NULL) {
        left->tv_sec = 0;
        left->tv_nsec = 0;
    }
    return 0;
}

EXPORT unsigned sleep(unsigned seconds) {
    if (!t_active) return NEXT(sleep_fn, sleep)(seconds);
    advance_ns((long long)seconds * 1000000000LL);
    return 0;
}

EXPORT int usleep(useconds_t us) {
    if (!t_active) return NEXT(usleep_fn, usleep)(us);
    advance_ns((long long)us * 1000LL);
    return 0;
}

static int any_set(int n, const fd_set* set) {
    if (set == NULL) return 0;
    for (int fd = 0; fd < n && fd < FD_SETSIZE; ++fd) {
        if (FD_ISSET(fd, set)) return 1;
    }
    return 0;
}

/* One real select over copies of the sets, waiting at most ms; the sets are
 * updated only when something is ready (or on an error). */
static int real_select_for(int n, fd_set* r, fd_set* w, fd_set* e, long ms) {
    fd_set rc, wc, ec;
    if (r) rc = *r;
    if (w) wc = *w;
    if (e) ec = *e;
    struct timeval wait = {ms / 1000, (ms % 1000) * 1000};
    const int ready =
        NEXT(select_fn, select)(n, r ? &rc : NULL, w ? &wc : NULL, e ? &ec : NULL, &wait);
    if (ready != 0) {
        if (r) *r = rc;
        if (w) *w = wc;
        if (e) *e = ec;
    }
    return ready;
}

EXPORT int select(int n, fd_set* r, fd_set* w, fd_set* e, struct timeval* tv) {
    /* Unusual time-outs (negative, or more microseconds than the C library
     * accepts) keep their real behaviour. */
    if (!t_active || tv == NULL || tv->tv_sec < 0 || tv->tv_usec < 0 || tv->tv_usec > 2147483647L)
        return NEXT(select_fn, select)(n, r, w, e, tv);
    const long long want_ns =
        (long long)tv->tv_sec * 1000000000LL + (long long)tv->tv_usec * 1000LL;
    if (want_ns == 0) return NEXT(select_fn, select)(n, r, w, e, tv); /* a poll */
    if (!any_set(n, r) && !any_set(n, w) && !any_set(n, e)) {
        advance_ns(want_ns);
        tv->tv_sec = 0;
        tv->tv_usec = 0;
        return 0;
    }
    const long long began = real_monotonic_ns();
    for (;;) {
        const long long spent = real_monotonic_ns() - began;
        const long long left = want_ns - spent;
        if (left <= 0) break;
        long slice = kSliceMs;
        if (left / 1000000LL < slice) slice = (long)(left / 1000000LL);
        const int ready = real_select_for(n, r, w, e, slice);
        if (ready != 0) return ready;
        /* Checked after the slice: a peer declares silence only after what
         * it sent was written, so the poll below still sees those bytes. */
        if (atomic_load(&g_silent_peers) > 0 || spent >= kGraceMs * 1000000LL) {
            const int last = real_select_for(n, r, w, e, 0);
            if (last != 0) return last;
            advance_ns(want_ns - (real_monotonic_ns() - began));
            break;
        }
    }
    if (r) FD_ZERO(r);
    if (w) FD_ZERO(w);
    if (e) FD_ZERO(e);
    tv->tv_sec = 0;
    tv->tv_usec = 0;
    return 0;
}
