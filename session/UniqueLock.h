#pragma once

#include <android-base/thread_annotations.h>

#include <mutex>

namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation {

/** A std::unique_lock, which a condition variable needs, that the compiler knows as a lock. */
class SCOPED_CAPABILITY UniqueLock : public std::unique_lock<std::mutex> {
public:
    explicit UniqueLock(std::mutex& mutex) ACQUIRE(mutex) : std::unique_lock<std::mutex>(mutex) {}
    ~UniqueLock() RELEASE() = default;
    UniqueLock(const UniqueLock&) = delete;
    UniqueLock& operator=(const UniqueLock&) = delete;
    void lock() ACQUIRE() { std::unique_lock<std::mutex>::lock(); }
    void unlock() RELEASE() { std::unique_lock<std::mutex>::unlock(); }
};

}  // namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation
