// Holds a pthread mutex for one scope. The library's few locks are plain
// pthread mutexes with static initialisers, so that nothing can throw and no
// constructor runs at load time.
#pragma once

#include <pthread.h>

namespace kemail {

class MutexLock {
public:
    explicit MutexLock(pthread_mutex_t& mutex) : mutex_(mutex) { pthread_mutex_lock(&mutex_); }
    ~MutexLock() { pthread_mutex_unlock(&mutex_); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

private:
    pthread_mutex_t& mutex_;
};

}  // namespace kemail
