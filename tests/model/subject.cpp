#include "model/subject.h"

#include <poll.h>

#include <algorithm>

#include "host/mapper.h"
#include "host/properties.h"
#include "model/words.h"
#include "support/spy_mapper.h"

namespace testing_support {

namespace {

using android::hardware::hidl_vec;
using android::hardware::Return;
using product::FDSession;
using product::TrackingMode;

constexpr const char* kFlipped = "vendor.zoru.flipped";

uint64_t hashOf(const std::vector<host::Buffer>& memories) {
    uint64_t hash = 0xcbf29ce484222325;
    for (const host::Buffer& memory : memories) {
        for (size_t i = 0; i < memory.size(); ++i)
            hash = (hash ^ memory.bytes()[i]) * 0x100000001b3;
    }
    return hash;
}

/** How many of the first numbers are open. One system call, for it is made around each step. */
int openDescriptors() {
    constexpr size_t kMost = 512;
    std::array<pollfd, kMost> entries;
    for (size_t i = 0; i < kMost; ++i)
        entries[i] = {static_cast<int>(i), 0, 0};
    poll(entries.data(), kMost, 0);
    return static_cast<int>(std::count_if(entries.begin(), entries.end(), [](const pollfd& entry) {
        return (entry.revents & POLLNVAL) == 0;
    }));
}

}  // namespace

/** A client's callback, which says what it is told and when it goes. */
class Subject::Client : public fdstream::IFDSessionCallback {
public:
    Client(Subject& subject, int number) : mSubject(subject), mNumber(number) {}
    ~Client() override { mSubject.say(words("callback", mNumber, "is gone")); }

    Return<void> processCaptureResult(const hidl_vec<product::CaptureResult>& results) override {
        return answer("gets", results.size(), inWords(mSubject.mFiles, results[0]));
    }
    Return<void> notify(const hidl_vec<fdstream::FDNotifyMsg>& messages) override {
        return answer("is notified of", messages.size(), inWords(messages[0]));
    }

private:
    Return<void> answer(const char* what, size_t count, const std::string& record) {
        mSubject.say(words("callback", mNumber, what, count, record));
        mSubject.carryOutNested();
        if (!mSubject.mCallsFail) return {};
        return android::hardware::Status::fromStatusT(android::DEAD_OBJECT,
                                                      "the peer has closed the connection");
    }

    Subject& mSubject;
    const int mNumber;
};

/** An observer, which says what it is told, and what is stored by then. */
class Subject::Observer : public product::ISceneCallback {
public:
    Observer(Subject& subject, int number) : mSubject(subject), mNumber(number) {}

    void onSceneControl(product::SceneControl control) override {
        tell("scene", inWords(control), inWords(mSubject.read(&FDSession::getSceneControl)));
    }
    void onPTZControl(product::SceneControl control) override {
        tell("PTZ", inWords(control), inWords(mSubject.read(&FDSession::getPTZControl)));
    }
    void onTrackControl(product::TrackControl control) override {
        tell("track", inWords(control), inWords(mSubject.read(&FDSession::getTrackControl)));
    }
    void onTrackingMode(TrackingMode mode) override {
        tell("mode", cat(mode), cat(mSubject.session().getTrackingMode()));
    }

private:
    void tell(const char* what, const std::string& given, const std::string& stored) {
        mSubject.say(words("observer", mNumber, what, given, "stored", stored));
        mSubject.carryOutNested();
    }

    Subject& mSubject;
    const int mNumber;
};

Subject::Subject(const Files& files, const FileSet& own) : mFiles(files), mOwn(own) {
    for (size_t i = 0; i < mObservers.size(); ++i)
        mObservers[i] = std::make_unique<Observer>(*this, static_cast<int>(i) + 1);
}

Events Subject::begin() {
    return seen([this] {
        for (const host::Buffer& memory : mOwn.memories)
            std::fill_n(memory.bytes(), memory.size(), uint8_t{0});
        make();
    });
}

Events Subject::step(const Operation& operation) {
    return seen([&] { carryOut(operation); });
}

Events Subject::end() {
    return seen([this] {
        mNested.reset();
        letGoOfHeld();
        product::StreamConfiguration any = {};
        any.streams.resize(1);
        sayAnswer("configure", product::Status(client().configure(any)));  // frees the buffers
        mIsOver = true;
        drop();
        setCallback(0);
        sayAnswer("configure", product::Status(client().configure({})));
        submit({});
    });
}

Events Subject::seen(const std::function<void()>& operation) {
    const host::ScopedLogSink scope(*this);
    enterWorld();
    mFewDuplicates.limitTo(std::exchange(mDuplicates, INT_MAX));
    const int descriptors = openDescriptors();
    const host::MapperCounters before = host::mapperCounters();
    operation();
    const host::MapperCounters now = host::mapperCounters();
    say(words("ready", !mIsOver && session().isCaptureRequestReady(), "descriptors",
              openDescriptors() - descriptors, "imports", now.imports - before.imports, "frees",
              now.frees - before.frees, "locks", now.locks - before.locks, "unlocks",
              now.unlocks - before.unlocks, "refusals", now.refusals - before.refusals, "maps",
              now.maps - before.maps, "mappings", now.mappings - before.mappings, "mapper", mMapped,
              "bytes", hashOf(mOwn.memories)));
    mMapped.clear();
    leaveWorld();
    return std::exchange(mEvents, {});
}

void Subject::enterWorld() {
    mClock.stopAt(mNow);
    if (mIsFlipped) host::setProperty(kFlipped, *mIsFlipped ? "true" : "false");
    host::failLock(mLockError);
    host::failNextUnlock(mUnlockError);
    SpyMapper3& mapper = sessionMapper();
    mapper.fault = [this] { return mMapperFault; };
    const auto record = [this](char what, void* handle) {
        mMapped += cat(what, mFiles.nameOf(static_cast<const native_handle_t*>(handle)));
    };
    mapper.onImport = [record](void* handle) { record('+', handle); };
    mapper.onFree = [record](void* handle) { record('-', handle); };
}

void Subject::leaveWorld() {
    mFewDuplicates.lift();
    host::clearProperty(kFlipped);
    host::failLock(0);
    host::failNextUnlock(0);
    SpyMapper3& mapper = sessionMapper();
    mapper.fault = nullptr;
    mapper.onImport = nullptr;
    mapper.onFree = nullptr;
}

void Subject::write(const host::LogLine& line) {
    const bool isSessions = line.tag == "vendor.zoru.zoruprovider.fdstream@1.0-impl";
    say(cat("??VDIWEF"[line.priority], ' ', isSessions ? "" : line.tag + ": ", line.text));
}

void Subject::carryOutNested() {
    if (const std::optional<Operation> nested = std::exchange(mNested, std::nullopt)) {
        carryOut(*nested);
    }
}

void Subject::setCallback(int choice) {
    android::sp<Client> callback;
    if (choice == 3) callback = mClient.promote();
    if (callback == nullptr && choice != 0) callback = new Client(*this, ++mCallbacksMade);
    mClient = callback;
    sayAnswer("setCallback", product::Status(client().setCallback(callback)));
}

}  // namespace testing_support
