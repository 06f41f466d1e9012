#pragma once

#include <android-base/thread_annotations.h>

#include <mutex>

namespace host {

/** A std::unique_lock, which a condition variable needs, that the compiler knows as a lock.
 * session/ has one of its own, because the platform has none to include. */
class SCOPED_CAPABILITY UniqueLock : public std::unique_lock<std::mutex> {
public:
    explicit UniqueLock(std::mutex& mutex) ACQUIRE(mutex) : std::unique_lock<std::mutex>(mutex) {}
    ~UniqueLock() RELEASE() = default;
    UniqueLock(const UniqueLock&) = delete;
    UniqueLock& operator=(const UniqueLock&) = delete;
    void lock() ACQUIRE() { std::unique_lock<std::mutex>::lock(); }
    void unlock() RELEASE() { std::unique_lock<std::mutex>::unlock(); }
};

}  // namespace host
