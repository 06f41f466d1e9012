#include <utils/RefBase.h>

#include <atomic>

namespace android {

namespace {
// The strong count before the first reference; after the last one it is 0.
constexpr int32_t kNeverHeld = 1 << 28;
}  // namespace

/**
 * The two counts. The object holds one weak count for all its strong references together; an object
 * that never had one gives the block back in its destructor.
 */
class RefBase::Counts : public RefBase::weakref_type {
public:
    explicit Counts(RefBase* base) : mBase(base) {}

    std::atomic<int32_t> mStrong{kNeverHeld};
    std::atomic<int32_t> mWeak{0};
    std::atomic<int32_t> mLifetime{OBJECT_LIFETIME_STRONG};
    RefBase* const mBase;

    bool livesWithWeak() const { return mLifetime.load() == OBJECT_LIFETIME_WEAK; }
};

namespace {
/** Counts one more, unless `refused` says no to the count as it is; `before` is that count. */
template <typename Refused>
bool incrementUnless(std::atomic<int32_t>& count, int32_t& before, Refused refused) {
    before = count.load();
    do {
        if (refused(before)) return false;
    } while (!count.compare_exchange_weak(before, before + 1));
    return true;
}
}  // namespace

RefBase::RefBase() : mRefs(new Counts(this)) {}

RefBase::~RefBase() {
    const bool neverHeld = mRefs->mStrong.load() == kNeverHeld;
    // An object on the stack, or one that lived as long as its weak references, frees the block
    // itself; for all others the last weak reference does.
    if ((neverHeld || mRefs->livesWithWeak()) && mRefs->mWeak.load() == 0) delete mRefs;
}

void RefBase::incStrong(const void* id) const {
    mRefs->incWeak(id);
    if (mRefs->mStrong.fetch_add(1) != kNeverHeld) return;
    mRefs->mStrong.fetch_sub(kNeverHeld);
    mRefs->mBase->onFirstRef();
}

void RefBase::decStrong(const void* id) const {
    Counts* const refs = mRefs;
    if (refs->mStrong.fetch_sub(1) == 1) {
        refs->mBase->onLastStrongRef(id);
        if (!refs->livesWithWeak()) delete this;
    }
    refs->decWeak(id);  // NOLINT(clang-analyzer-cplusplus.NewDelete): the block outlives the object
}

int32_t RefBase::getStrongCount() const {
    const int32_t count = mRefs->mStrong.load();
    return count >= kNeverHeld ? count - kNeverHeld : count;
}

RefBase::weakref_type* RefBase::createWeak(const void* id) const {
    mRefs->incWeak(id);
    return mRefs;
}

RefBase::weakref_type* RefBase::getWeakRefs() const {
    return mRefs;
}

void RefBase::extendObjectLifetime(int32_t mode) {
    mRefs->mLifetime.fetch_or(mode);
}

void RefBase::onFirstRef() {}

void RefBase::onLastStrongRef(const void* /*id*/) {}

bool RefBase::onIncStrongAttempted(uint32_t flags, const void* /*id*/) {
    return (flags & FIRST_INC_STRONG) != 0;
}

void RefBase::onLastWeakRef(const void* /*id*/) {}

RefBase* RefBase::weakref_type::refBase() const {
    return static_cast<const Counts*>(this)->mBase;
}

void RefBase::weakref_type::incWeak(const void* /*id*/) {
    static_cast<Counts*>(this)->mWeak.fetch_add(1);
}

void RefBase::weakref_type::decWeak(const void* id) {
    auto* const refs = static_cast<Counts*>(this);
    if (refs->mWeak.fetch_sub(1) != 1) return;
    if (refs->livesWithWeak()) {
        refs->mBase->onLastWeakRef(id);
        delete refs->mBase;
    } else if (refs->mStrong.load() != kNeverHeld) {
        delete refs;
    }
    // Never held and not extended: the object is still there and frees the block itself.
}

bool RefBase::weakref_type::attemptIncStrong(const void* id) {
    auto* const refs = static_cast<Counts*>(this);
    incWeak(id);
    int32_t before = 0;
    bool taken = incrementUnless(refs->mStrong, before, [](int32_t count) { return count <= 0; });
    if (!taken && refs->livesWithWeak() &&
        refs->mBase->onIncStrongAttempted(FIRST_INC_STRONG, id)) {
        refs->mStrong.fetch_add(1);
        taken = true;
    }
    if (!taken) {
        decWeak(id);
        return false;
    }
    if (before == kNeverHeld) refs->mStrong.fetch_sub(kNeverHeld);
    return true;
}

}  // namespace android
