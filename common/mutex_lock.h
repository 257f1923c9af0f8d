// Holds a POSIX mutex for the length of a scope.
#pragma once

#include <pthread.h>

namespace quil::common {

class MutexLock {
  public:
    explicit MutexLock(pthread_mutex_t& mutex) : mMutex(mutex) { pthread_mutex_lock(&mMutex); }
    ~MutexLock() { pthread_mutex_unlock(&mMutex); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

  private:
    pthread_mutex_t& mMutex;
};

}  // namespace quil::common
