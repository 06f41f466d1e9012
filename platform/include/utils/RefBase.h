#pragma once

#include <cstdint>

#include <utils/StrongPointer.h>

namespace android {

/**
 * Base of every shared object: a strong count that owns the object, and a weak count that owns the
 * block in which both counts live. Resource type, not copied. All operations are thread-safe.
 *
 * The first strong reference runs onFirstRef(), at count 1, before the `sp` that takes it holds its
 * new value; it is never run when that first one comes from a promotion. The last strong release
 * deletes the object on the thread that releases it, weak references or not, unless its lifetime
 * was extended to the last weak reference.
 */
class RefBase {
public:
    void incStrong(const void* id) const;
    void decStrong(const void* id) const;
    /** May be out of date when it returns. */
    int32_t getStrongCount() const;

    class weakref_type {
    public:
        RefBase* refBase() const;
        void incWeak(const void* id);
        void decWeak(const void* id);
        /** True if a strong reference was taken: the caller then owns it. */
        bool attemptIncStrong(const void* id);
    };

    weakref_type* createWeak(const void* id) const;
    weakref_type* getWeakRefs() const;

    RefBase(const RefBase&) = delete;
    RefBase& operator=(const RefBase&) = delete;

protected:
    RefBase();
    virtual ~RefBase();

    enum : int32_t {
        OBJECT_LIFETIME_STRONG = 0x0000,
        OBJECT_LIFETIME_WEAK = 0x0001,
    };
    /** To be called from the constructor, before the object is shared. */
    void extendObjectLifetime(int32_t mode);

    enum : uint32_t { FIRST_INC_STRONG = 0x0001 };

    virtual void onFirstRef();
    virtual void onLastStrongRef(const void* id);
    /** Whether promoting may revive an object whose lifetime was extended. */
    virtual bool onIncStrongAttempted(uint32_t flags, const void* id);
    virtual void onLastWeakRef(const void* id);

private:
    class Counts;
    Counts* const mRefs;
};

/** A weak reference: it does not keep the object alive; promote() gives a strong one or null. */
template <typename T>
class wp {
public:
    wp() = default;
    wp(T* other)  // NOLINT(google-explicit-constructor)
        : mPtr(other), mRefs(other != nullptr ? other->createWeak(this) : nullptr) {}
    wp(const sp<T>& other) : wp(other.get()) {}  // NOLINT(google-explicit-constructor)
    wp(const wp& other) : mPtr(other.mPtr), mRefs(other.mRefs) {
        if (mRefs != nullptr) mRefs->incWeak(this);
    }
    template <typename U>
    wp(const sp<U>& other) : wp(static_cast<T*>(other.get())) {}  // NOLINT
    ~wp() { clear(); }

    wp& operator=(const wp& other) {
        wp copy(other);
        swap(copy);
        return *this;
    }
    wp& operator=(const sp<T>& other) {
        wp copy(other);
        swap(copy);
        return *this;
    }

    void clear() {
        if (mRefs != nullptr) mRefs->decWeak(this);
        mPtr = nullptr;
        mRefs = nullptr;
    }

    sp<T> promote() const {
        sp<T> result;
        if (mRefs != nullptr && mRefs->attemptIncStrong(&result)) result.adopt(mPtr);
        return result;
    }

    /** For comparing only: the object may be gone. */
    T* unsafe_get() const { return mPtr; }

    bool operator==(const wp& other) const { return mPtr == other.mPtr && mRefs == other.mRefs; }
    bool operator!=(const wp& other) const { return !(*this == other); }

private:
    void swap(wp& other) {
        T* const ptr = mPtr;
        RefBase::weakref_type* const refs = mRefs;
        mPtr = other.mPtr;
        mRefs = other.mRefs;
        other.mPtr = ptr;
        other.mRefs = refs;
    }

    T* mPtr = nullptr;
    RefBase::weakref_type* mRefs = nullptr;
};

}  // namespace android
