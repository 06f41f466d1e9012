#pragma once

namespace android {

template <typename T>
class wp;

/**
 * A strong reference to a RefBase: one of the owners of the object.
 *
 * Assignment first counts the new object, then releases the old one, and only then stores the new
 * pointer: onFirstRef() of the new object and the destructor of the old one still see the old
 * pointer here. So an object must not own the reference whose release destroys it.
 */
template <typename T>
class sp {
public:
    sp() = default;
    sp(T* other) : mPtr(other) { acquire(); }  // NOLINT(google-explicit-constructor)
    sp(const sp& other) : mPtr(other.mPtr) { acquire(); }
    sp(sp&& other) noexcept : mPtr(other.mPtr) { other.mPtr = nullptr; }
    template <typename U>
    sp(U* other) : mPtr(other) {  // NOLINT(google-explicit-constructor)
        acquire();
    }
    template <typename U>
    sp(const sp<U>& other) : mPtr(other.mPtr) {  // NOLINT(google-explicit-constructor)
        acquire();
    }
    template <typename U>
    sp(sp<U>&& other) noexcept : mPtr(other.mPtr) {  // NOLINT(google-explicit-constructor)
        other.mPtr = nullptr;
    }
    ~sp() {
        if (mPtr != nullptr) mPtr->decStrong(this);
    }

    sp& operator=(T* other) {
        replace(other);
        return *this;
    }
    sp& operator=(const sp& other) {  // NOLINT(bugprone-unhandled-self-assignment): counted first
        replace(other.mPtr);
        return *this;
    }
    sp& operator=(sp&& other) noexcept {
        store(other.take());
        return *this;
    }
    template <typename U>
    sp& operator=(const sp<U>& other) {
        replace(other.mPtr);
        return *this;
    }
    template <typename U>
    sp& operator=(sp<U>&& other) {
        store(other.take());
        return *this;
    }
    template <typename U>
    sp& operator=(U* other) {
        replace(other);
        return *this;
    }

    void clear() { store(nullptr); }

    T& operator*() const { return *mPtr; }
    T* operator->() const { return mPtr; }
    T* get() const { return mPtr; }
    explicit operator bool() const { return mPtr != nullptr; }

    template <typename U>
    bool operator==(const sp<U>& other) const {
        return mPtr == other.get();
    }
    template <typename U>
    bool operator!=(const sp<U>& other) const {
        return mPtr != other.get();
    }
    bool operator==(const T* other) const { return mPtr == other; }
    bool operator!=(const T* other) const { return mPtr != other; }

private:
    template <typename U>
    friend class sp;
    template <typename U>
    friend class wp;

    void acquire() {
        if (mPtr != nullptr) mPtr->incStrong(this);
    }
    void replace(T* other) {
        if (other != nullptr) other->incStrong(this);
        store(other);
    }
    /** Releases the old object, then stores one that is counted already, or null. */
    void store(T* counted) {
        if (mPtr != nullptr) mPtr->decStrong(this);
        mPtr = counted;
    }
    T* take() {
        T* const taken = mPtr;
        mPtr = nullptr;
        return taken;
    }
    /** Takes over a reference that is counted already. */
    void adopt(T* counted) { mPtr = counted; }

    T* mPtr = nullptr;
};

}  // namespace android
