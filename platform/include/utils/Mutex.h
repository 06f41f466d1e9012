#pragma once

#include <android-base/thread_annotations.h>
#include <pthread.h>

#include <utils/Errors.h>

namespace android {

/** A non-recursive POSIX mutex with default attributes. Resource type, not copied. */
class CAPABILITY("mutex") Mutex {
public:
    Mutex() = default;
    ~Mutex() { pthread_mutex_destroy(&mMutex); }
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    status_t lock() ACQUIRE() { return -pthread_mutex_lock(&mMutex); }
    void unlock() RELEASE() { pthread_mutex_unlock(&mMutex); }

    /** Holds the mutex for a scope. */
    class SCOPED_CAPABILITY Autolock {
    public:
        explicit Autolock(Mutex& mutex) ACQUIRE(mutex) : mMutex(mutex) { mMutex.lock(); }
        ~Autolock() RELEASE() { mMutex.unlock(); }
        Autolock(const Autolock&) = delete;
        Autolock& operator=(const Autolock&) = delete;

    private:
        Mutex& mMutex;
    };

private:
    pthread_mutex_t mMutex = PTHREAD_MUTEX_INITIALIZER;
};

}  // namespace android
