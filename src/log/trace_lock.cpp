// The one mutex that serialises every trace record of the process, so that
// records of different threads never interleave within a file.
//
// Each Topen initialises it and each Tclose destroys it. Several handles may
// be open at once (one per thread), so the mutex is made by the first open
// handle and destroyed with the last: a close never pulls the lock from
// under a handle that is still writing.
#include "log/log.h"

#include <pthread.h>

namespace kemail {

pthread_mutex_t g_cs;

namespace {

// Guards the count of handles using g_cs, not the records themselves.
pthread_mutex_t s_users_guard = PTHREAD_MUTEX_INITIALIZER;
unsigned long s_users = 0;

}  // namespace

int Trc_InitLock() {
    pthread_mutex_lock(&s_users_guard);
    int result = 0;
    if (s_users == 0) result = pthread_mutex_init(&g_cs, nullptr);
    if (result == 0) ++s_users;
    pthread_mutex_unlock(&s_users_guard);
    return result;
}

int Trc_DestroyLock() {
    pthread_mutex_lock(&s_users_guard);
    int result = 0;
    if (s_users > 0 && --s_users == 0) result = pthread_mutex_destroy(&g_cs);
    pthread_mutex_unlock(&s_users_guard);
    return result;
}

int Trc_Lock() { return pthread_mutex_lock(&g_cs); }

int Trc_Unlock() { return pthread_mutex_unlock(&g_cs); }

// g_cs exists only while a handle uses it; the count cannot change while its
// guard is held, so the guard is taken first and let go last.
void Trc_HoldForFork() {
    pthread_mutex_lock(&s_users_guard);
    if (s_users > 0) pthread_mutex_lock(&g_cs);
}

void Trc_ReleaseAfterFork() {
    if (s_users > 0) pthread_mutex_unlock(&g_cs);
    pthread_mutex_unlock(&s_users_guard);
}

}  // namespace kemail
