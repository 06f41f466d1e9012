#pragma once

namespace android {

template <typename T>
class wp;

/** A strong reference to a RefBase: one of the owners of the object. */
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
        T* const old = mPtr;
        mPtr = other.mPtr;
        if (this != &other) {
            other.mPtr = nullptr;
            if (old != nullptr) old->decStrong(this);
        }
        return *this;
    }
    template <typename U>
    sp& operator=(const sp<U>& other) {
        replace(other.mPtr);
        return *this;
    }
    template <typename U>
    sp& operator=(sp<U>&& other) {
        T* const old = mPtr;
        mPtr = other.mPtr;
        other.mPtr = nullptr;
        if (old != nullptr) old->decStrong(this);
        return *this;
    }
    template <typename U>
    sp& operator=(U* other) {
        replace(other);
        return *this;
    }

    void clear() {
        T* const old = mPtr;
        mPtr = nullptr;
        if (old != nullptr) old->decStrong(this);
    }

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
    /** Counts the new object first: its onFirstRef() runs while this still holds the old value. */
    void replace(T* other) {
        if (other != nullptr) other->incStrong(this);
        T* const old = mPtr;
        mPtr = other;
        if (old != nullptr) old->decStrong(this);
    }
    /** Takes over a reference that was counted already. */
    void adopt(T* counted) { mPtr = counted; }

    T* mPtr = nullptr;
};

}  // namespace android
