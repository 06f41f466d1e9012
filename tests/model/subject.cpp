#include "model/subject.h"

#include <poll.h>

#include <algorithm>
#include <string_view>

#include "host/mapper.h"
#include "host/properties.h"
#include "model/words.h"
#include "support/spy_mapper.h"

namespace testing_support {

namespace {

using android::hardware::hidl_vec;
using android::hardware::Return;

constexpr const char* kFlipped = "vendor.zoru.flipped";

/** Of the first numbers, those that are open. One system call, for it is made around each step. */
int openDescriptors() {
    std::array<pollfd, 512> entries = {};
    for (size_t i = 0; i < entries.size(); ++i)
        entries[i].fd = static_cast<int>(i);
    return 512 - poll(entries.data(), entries.size(), 0);
}

}  // namespace

/** A client's callback, which says what it is told and when it goes. */
class Subject::Client : public fdstream::IFDSessionCallback {
public:
    Client(Subject& subject, int number) : mSubject(subject), mNumber(number) {}
    ~Client() override { mSubject.say(words("callback", mNumber, "is gone")); }

    Return<void> processCaptureResult(const hidl_vec<product::CaptureResult>& results) override {
        return answer("gets", inWords(mSubject.mFiles, results));
    }
    Return<void> notify(const hidl_vec<fdstream::FDNotifyMsg>& messages) override {
        return answer("is notified of", inWords(mSubject.mFiles, messages));
    }

private:
    Return<void> answer(const char* what, const std::string& records) {
        mSubject.say(words("callback", mNumber, what, records));
        mSubject.carryOutNested();
        if (mSubject.mLuck[CALLS] == 0) return {};
        return android::hardware::Status::fromStatusT(android::DEAD_OBJECT, "gone");
    }

    Subject& mSubject;
    const int mNumber;
};

/** An observer, which says what it is told, and what is stored by then. */
class Subject::Observer : public product::ISceneCallback {
public:
    Observer(Subject& subject, size_t number) : mSubject(subject), mNumber(number) {}

    void onSceneControl(product::SceneControl control) override { hear("scene", control); }
    void onPTZControl(product::SceneControl control) override { hear("PTZ", control); }
    void onTrackControl(product::TrackControl control) override { hear("track", control); }
    void onTrackingMode(product::TrackingMode mode) override { hear("mode", mode); }

private:
    template <typename Record>
    void hear(const char* what, const Record& record) {
        mSubject.say(words("observer", mNumber, what, inWords(mSubject.mFiles, record)));
        mSubject.read();
        mSubject.carryOutNested();
    }

    Subject& mSubject;
    const size_t mNumber;
};

Subject::Subject(const FileSet& files) : mFiles(files) {
    for (const host::Buffer& memory : mFiles.memories)
        std::fill_n(memory.bytes(), memory.size(), uint8_t{0});
    for (const size_t i : {1U, 2U})
        mObservers[i] = std::make_unique<Observer>(*this, i);
}

std::vector<std::string> Subject::play(const Sequence& sequence) {
    std::vector<std::string> all = {seen([this] { make(); })};
    for (const Operation& operation : sequence)
        all.push_back(seen([&] { kKinds[operation.kind].carryOut(*this, operation.args); }));
    all.push_back(seen([this] {
        mNested.reset();
        mTaken.clear();
        mHeld.clear();
        read();
        kKinds[1].carryOut(*this, {});  // frees the buffers
        mIsOver = true;
        drop();
        for (const size_t kind : {0U, 1U, 2U})
            kKinds[kind].carryOut(*this, {});
    }));
    mLuck = {};
    enterWorld();
    static_cast<Spied&>(sessionMapper()) = {};
    return all;
}

std::string Subject::seen(const std::function<void()>& operation) {
    const host::ScopedLogSink scope(*this);
    enterWorld();
    mFewDuplicates.limitTo(std::exchange(mDuplicates, -1));
    const int descriptors = openDescriptors();
    const host::MapperCounters before = host::mapperCounters();
    operation();
    const host::MapperCounters now = host::mapperCounters();
    size_t bytes = 0;
    for (const host::Buffer& memory : mFiles.memories) {
        const auto* const all = reinterpret_cast<const char*>(memory.bytes());
        bytes = bytes * 31 + std::hash<std::string_view>()({all, memory.size()});
    }
    say(words("ready", !mIsOver && session().isCaptureRequestReady(), "descriptors",
              openDescriptors() - descriptors, "imports", now.imports - before.imports, "frees",
              now.frees - before.frees, "locks", now.locks - before.locks, "unlocks",
              now.unlocks - before.unlocks, "refusals", now.refusals - before.refusals, "maps",
              now.maps - before.maps, "mappings", now.mappings - before.mappings, "mapper",
              std::exchange(mMapped, {}), "bytes", bytes));
    return std::exchange(mSeen, {});
}

void Subject::enterWorld() {
    mClock.stopAt(mNow);
    if (mLuck[FLIP] != 0) host::setProperty(kFlipped, mLuck[FLIP] > 0 ? "true" : "false");
    if (mLuck[FLIP] == 0) host::clearProperty(kFlipped);
    host::failLock(mLuck[LOCK]);
    host::failNextUnlock(mLuck[UNLOCK]);
    SpyMapper3& mapper = sessionMapper();
    mapper.fault = [this] { return mLuck[MAPPER]; };
    const auto nameOf = [this](void* handle) {
        return mFiles.nameOf(static_cast<const native_handle_t*>(handle));
    };
    mapper.onImport = [this, nameOf](void* handle) { mMapped += cat('+', nameOf(handle)); };
    mapper.onFree = [this, nameOf](void* handle) { mMapped += cat('-', nameOf(handle)); };
}

void Subject::write(const host::LogLine& line) {
    const bool isSessions = line.tag == "vendor.zoru.zoruprovider.fdstream@1.0-impl";
    say(cat("??VDIWEF"[line.priority], ' ', isSessions ? "" : line.tag + ": ", line.text));
}

void Subject::carryOutNested() {
    const std::optional<Operation> nested = std::exchange(mNested, std::nullopt);
    if (nested) kKinds[nested->kind].carryOut(*this, nested->args);
}

void Subject::setCallback(int choice) {
    android::sp<fdstream::IFDSessionCallback> callback;
    if (choice == 3) callback = mClient.promote();
    if (callback == nullptr && choice != 0) callback = new Client(*this, ++mCallbacksMade);
    mClient = callback;
    say(words("setCallback", product::Status(client().setCallback(callback))));
}

}  // namespace testing_support
