#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "model/subject.h"

namespace testing_support {

/**
 * The platform as the session meets it: handles that are duplicated while the descriptors last, and
 * imported buffers. Plain and slow.
 */
class PlatformModel {
public:
    explicit PlatformModel(Memories memories) : mMemories(std::move(memories)) {}

    /** The duplicate: the same file, or none when it cannot be made. */
    File duplicate(File file);
    /** A duplicate with its fences. */
    void duplicateHandles(PlainBuffer& buffer);
    /** 0, or the mapper's error. */
    int import(File file);
    void free(File file);
    std::shared_ptr<PlainGraphicBuffer> wrap(File file, const PlainGraphicBuffer& wanted);
    /** The errors of locking and unlocking; turns what it can in between. */
    int lock(const PlainGraphicBuffer& buffer);
    int unlock();
    void turn(const PlainGraphicBuffer& buffer);
    int chromaStep(File file) const;
    void paint(size_t memory, const Operation& operation);

    /** How many descriptors the handle, or the imports, have. */
    static int descriptors(File file);
    int descriptors() const;
    MapperCalls calls() const;
    uint64_t bytesHash() const;

    std::optional<int> duplicatesLeft;
    int nextLockError = 0;
    int nextUnlockError = 0;

private:
    static bool isMemory(File file) { return file >= 'A' && file <= 'D'; }
    const PlainMemory& memoryOf(File file) const {
        return mMemories[static_cast<size_t>(file - 'A')];
    }

    Memories mMemories;
    std::array<int, kMemories> mImports = {};
    MapperCalls mCalls;
};

/** What a session should do, told as plainly as can be: no thread, no lock, no handle. */
class SessionModel : public Subject {
public:
    explicit SessionModel(Memories memories) : mPlatform(std::move(memories)) {}

private:
    struct Waiting {
        PlainRequest request;
        int64_t since;
    };

    void make() override { resetPTZ(); }
    void drop() override;
    Counts counts() override;

    int setCallback(int choice) override;
    int configure(const product::StreamConfiguration& configuration) override;
    int submit(const PlainRequest& request) override;
    std::optional<PlainRequest> take() override;
    bool isReady() override { return !mRequests.empty(); }
    std::optional<product::StreamConfiguration> configuration() override { return mConfiguration; }
    std::optional<PlainGraphicBuffer> lookUp(uint64_t bufferId) override;
    void send(const PlainResult& result) override;
    void answerTaken(uint32_t status) override;
    void letGoOfHeld() override;
    void freeBuffer(int32_t streamId, uint64_t bufferId) override;
    void notify(fdstream::FDNotifyMsg message) override;
    void paint(size_t memory, const Operation& by) override { mPlatform.paint(memory, by); }
    void pass() override;
    void setObserver(int number) override { mObserver = number; }
    void setScene(const product::SceneControl& control) override;
    product::SceneControl scene() override { return mScene; }
    void setPTZ(const product::SceneControl& control) override;
    product::SceneControl ptz() override { return mPTZ; }
    void resetPTZ() override;
    void setMode(product::TrackingMode mode) override;
    product::TrackingMode mode() override { return mMode; }
    int people() override { return mScene.peopleCount; }
    void setTrack(const product::TrackControl& control) override;
    product::TrackControl track() override { return mTrack; }
    void setClock(int64_t us) override { mNow = us; }
    void flip(bool isFlipped) override { mFlipped = isFlipped; }
    void setMapper(MapperState state) override { mMapper = state; }
    void failLock(int error) override { mPlatform.nextLockError = error; }
    void failUnlock(int error) override { mPlatform.nextUnlockError = error; }
    void limitDuplicates(std::optional<int> count) override { mPlatform.duplicatesLeft = count; }

    void log(char priority, const std::string& text) { say(cat(priority, ' ', text)); }
    void logBuffer(char priority, const char* operation, const char* event,
                   const PlainBuffer& buffer);
    bool isGone(const char* operation);
    bool enqueue(const PlainRequest& request);
    bool fits(const PlainRequest& request);
    bool knows(const PlainBuffer& buffer) const;
    /** The imported handle's file. */
    std::optional<File> lookUpOrImport(const PlainBuffer& buffer);
    bool import(File file);
    void release(File imported);
    void rotate(const PlainGraphicBuffer& buffer);
    void deliver(const PlainResult& result);
    /** A call of the client's callback, during which it may be replaced. */
    void call(const char* what, const std::string& record, const char* caller, const char* method);
    void endCall(int callback);
    void tellObserver(const std::string& call, const std::string& control, bool isLocked);

    PlatformModel mPlatform;
    std::string mMapped;

    // The session.
    bool mIsGone = false;
    std::optional<product::StreamConfiguration> mConfiguration;
    std::map<int32_t, std::map<uint64_t, File>> mRegistry;
    std::map<uint64_t, std::shared_ptr<PlainGraphicBuffer>> mGraphicBuffers;
    std::deque<Waiting> mRequests;
    std::deque<PlainResult> mResults;
    int mCallback = 0;  // a number for each that was ever set; 0 for none
    int mObserver = 0;
    product::SceneControl mScene = {};
    product::SceneControl mPTZ = {};
    product::TrackControl mTrack = {};
    product::TrackingMode mMode = {};

    // Its users and the world.
    int mCallbacksMade = 0;
    std::vector<int> mCallsUnderWay;
    int mLockedCalls = 0;
    std::deque<PlainRequest> mTaken;
    std::deque<std::shared_ptr<PlainGraphicBuffer>> mHeld;
    MapperState mMapper = MapperState::Fine;
    bool mFlipped = false;
    int64_t mNow = 0;
};

}  // namespace testing_support
