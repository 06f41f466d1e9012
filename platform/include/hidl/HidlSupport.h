#pragma once

#include <cutils/native_handle.h>
#include <utils/RefBase.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <limits>
#include <string>
#include <utility>
#include <vector>

namespace android {

namespace hidl::base::V1_0 {
struct IBase;
}  // namespace hidl::base::V1_0

namespace hardware {

namespace details {
/** Ends the process: a fault of the caller from which nobody can recover. */
[[noreturn]] void logAlwaysFatal(const char* message);
/** `size` as the 32-bit number that a vector or string holds. */
uint32_t checkedSize(size_t size);
}  // namespace details

/**
 * A native handle in a record. Value type: a copy duplicates the descriptors and owns them, also
 * the copy of a handle that does not own; a move leaves the source empty. One made or assigned from
 * a raw handle does not own it.
 *
 * A copy whose descriptors cannot be duplicated is empty here (on a device the process ends): check
 * for that after copying a client's handle.
 */
struct hidl_handle {
    hidl_handle() = default;
    hidl_handle(const native_handle_t* handle) : mHandle(handle) {}  // NOLINT
    hidl_handle(const hidl_handle& other) { *this = other; }
    hidl_handle(hidl_handle&& other) noexcept { take(other); }
    ~hidl_handle() { release(); }

    hidl_handle& operator=(const hidl_handle& other) {
        if (this == &other) return *this;
        release();
        if (other.mHandle != nullptr) clone(other);
        return *this;
    }
    hidl_handle& operator=(const native_handle_t* handle);
    hidl_handle& operator=(hidl_handle&& other) noexcept {
        if (this == &other) return *this;
        release();
        take(other);
        return *this;
    }

    /** Releases what it owned. With `shouldOwn` it then owns the handle and its descriptors. */
    void setTo(native_handle_t* handle, bool shouldOwn = false);

    const native_handle_t* operator->() const { return mHandle; }
    operator const native_handle_t*() const { return mHandle; }  // NOLINT
    const native_handle_t* getNativeHandle() const { return mHandle; }

private:
    void release() {
        if (mOwnsHandle) closeOwn();
        mHandle = nullptr;
        mOwnsHandle = false;
    }
    void closeOwn();
    void clone(const hidl_handle& other);
    void take(hidl_handle& other) {
        mHandle = std::exchange(other.mHandle, nullptr);
        mOwnsHandle = std::exchange(other.mOwnsHandle, false);
    }

    alignas(8) const native_handle_t* mHandle = nullptr;
    alignas(8) bool mOwnsHandle = false;
};

/** A string in a record. Value type; a copy owns its characters. */
struct hidl_string {
    hidl_string() = default;
    hidl_string(const char* text) : hidl_string(std::string(text)) {}  // NOLINT
    hidl_string(const std::string& text);                              // NOLINT
    hidl_string(const hidl_string& other);
    hidl_string(hidl_string&& other) noexcept;
    ~hidl_string();

    hidl_string& operator=(const hidl_string& other);
    hidl_string& operator=(hidl_string&& other) noexcept;

    const char* c_str() const { return mBuffer != nullptr ? mBuffer : ""; }
    size_t size() const { return mSize; }
    bool empty() const { return mSize == 0; }
    operator std::string() const { return {c_str(), mSize}; }  // NOLINT

private:
    alignas(8) const char* mBuffer = nullptr;
    uint32_t mSize = 0;
    bool mOwnsBuffer = false;
};

inline bool operator==(const hidl_string& a, const char* b) {
    return std::string(a) == b;
}

/**
 * A vector in a record. Value type: a copy owns its elements. Has at most 2^32 - 1 elements.
 * Not to be looked at after a move.
 */
template <typename T>
struct hidl_vec {
    using value_type = T;

    hidl_vec() = default;
    hidl_vec(const hidl_vec& other) : hidl_vec() { *this = other; }
    hidl_vec(hidl_vec&& other) noexcept : hidl_vec() { *this = std::move(other); }
    hidl_vec(std::initializer_list<T> list) : hidl_vec(list.begin(), list.end()) {}
    hidl_vec(const std::vector<T>& other) : hidl_vec(other.begin(), other.end()) {}  // NOLINT
    template <typename Iterator,
              typename = typename std::iterator_traits<Iterator>::iterator_category>
    hidl_vec(Iterator first, Iterator last) {
        assign(first, static_cast<size_t>(std::distance(first, last)));
    }
    ~hidl_vec() { release(); }

    hidl_vec& operator=(const hidl_vec& other) {
        if (this != &other) assign(other.begin(), other.size());
        return *this;
    }
    hidl_vec& operator=(hidl_vec&& other) noexcept {
        if (this == &other) return *this;
        release();
        mBuffer = std::exchange(other.mBuffer, nullptr);
        mSize = std::exchange(other.mSize, 0);
        mOwnsBuffer = std::exchange(other.mOwnsBuffer, false);
        return *this;
    }
    hidl_vec& operator=(std::initializer_list<T> list) { return *this = hidl_vec(list); }
    hidl_vec& operator=(const std::vector<T>& other) { return *this = hidl_vec(other); }

    operator std::vector<T>() const { return {begin(), end()}; }  // NOLINT

    size_t size() const { return mSize; }
    T* data() { return mBuffer; }
    const T* data() const { return mBuffer; }
    T& operator[](size_t index) { return mBuffer[index]; }
    const T& operator[](size_t index) const { return mBuffer[index]; }
    T* begin() { return mBuffer; }
    T* end() { return mBuffer + mSize; }
    const T* begin() const { return mBuffer; }
    const T* end() const { return mBuffer + mSize; }

    /** Allocates new memory. Elements that stay are moved, or copied when this does not own them;
     * new ones are value-initialised. */
    void resize(size_t size) {
        const uint32_t count = details::checkedSize(size);
        T* const elements = count > 0 ? new T[count]() : nullptr;
        const uint32_t kept = std::min(mSize, count);
        if (mOwnsBuffer) {
            std::move(begin(), begin() + kept, elements);
        } else {
            std::copy(begin(), begin() + kept, elements);
        }
        release();
        own(elements, count);
    }

    /** Points at elements elsewhere, which must outlive this; copies nothing. */
    void setToExternal(T* data, size_t size, bool shouldOwn = false) {
        release();
        mBuffer = data;
        mSize = details::checkedSize(size);
        mOwnsBuffer = shouldOwn;
    }

private:
    template <typename Iterator>
    void assign(Iterator first, size_t size) {
        const uint32_t count = details::checkedSize(size);
        T* const elements = count > 0 ? new T[count]() : nullptr;
        std::copy_n(first, count, elements);
        release();
        own(elements, count);
    }
    void own(T* elements, uint32_t count) {
        mBuffer = elements;
        mSize = count;
        mOwnsBuffer = true;
    }
    void release() {
        if (mOwnsBuffer) delete[] mBuffer;
        mBuffer = nullptr;
        mSize = 0;
        mOwnsBuffer = false;
    }

    alignas(8) T* mBuffer = nullptr;
    uint32_t mSize = 0;
    bool mOwnsBuffer = false;
};

template <typename T>
bool operator==(const hidl_vec<T>& a, const hidl_vec<T>& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end());
}

/** Told when the process that serves an object is gone. */
struct hidl_death_recipient : public virtual RefBase {
    virtual void serviceDied(uint64_t cookie, const wp<hidl::base::V1_0::IBase>& who) = 0;
};

static_assert(sizeof(hidl_handle) == 16, "part of the contract between processes");
static_assert(sizeof(hidl_string) == 16, "part of the contract between processes");
static_assert(sizeof(hidl_vec<char>) == 16, "part of the contract between processes");

}  // namespace hardware
}  // namespace android
