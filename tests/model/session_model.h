#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "model/operation.h"

namespace testing_support {

/** All that can be seen of a step, in order, each event a sentence. */
using Events = std::vector<std::string>;

uint64_t hashOf(const uint8_t* bytes, size_t size, uint64_t seed);
/** What Kind::Paint makes of the buffer that it chooses. */
size_t paintedBy(const Operation& operation);
uint8_t paintOf(const Operation& operation, size_t offset);

/** How often the mapper did what, as the platform counts it. */
struct MapperCalls {
    int64_t imports = 0;
    int64_t frees = 0;
    int64_t locks = 0;
    int64_t unlocks = 0;
    int64_t maps = 0;
    int64_t refusals = 0;
};

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
    bool isTurnable(const PlainGraphicBuffer& buffer) const;
    int chromaStep(File file) const;
    void paint(const Operation& operation);

    /** How many descriptors the handle, or the imports, have. */
    static int descriptors(File file);
    int descriptors() const;
    int mappings() const;
    uint64_t bytesHash() const;

    std::optional<int> duplicatesLeft;
    int nextLockError = 0;
    int nextUnlockError = 0;
    MapperCalls calls;

private:
    static bool isMemory(File file) { return file >= 'A' && file <= 'D'; }
    const PlainMemory& memoryOf(File file) const {
        return mMemories[static_cast<size_t>(file - 'A')];
    }

    Memories mMemories;
    std::array<int, kMemories> mImports = {};
};

/** What a session should do, told as plainly as can be: no thread, no lock, no handle. */
class SessionModel {
public:
    explicit SessionModel(Memories memories) : mPlatform(std::move(memories)) {}

    Events begin();
    Events step(const Operation& operation);
    /** The session's end, and what a client hears that calls it after that. */
    Events end();

private:
    struct Waiting {
        PlainRequest request;
        int64_t since;
    };

    void carryOut(const Operation& operation);
    void carryOutClients(const Operation& operation);
    void carryOutProviders(const Operation& operation);
    void carryOutScenes(const Operation& operation);
    void carryOutWorlds(const Operation& operation);
    void carryOutNested();
    void summary();

    void say(char priority, const std::string& text) {
        mEvents.push_back(cat(priority, ' ', text));
    }
    void sayBuffer(char priority, const char* operation, const char* event,
                   const PlainBuffer& buffer);
    void sayFailure(const char* operation, const char* call);

    void setCallback(int choice);
    int configure(const product::StreamConfiguration& configuration);
    int submit(const PlainRequest& request);
    bool fits(const PlainRequest& request);
    bool knows(const PlainBuffer& buffer) const;
    /** The imported handle's file. */
    std::optional<File> lookUpOrImport(const PlainBuffer& buffer);
    bool import(File file);
    void release(File imported);
    void freeBuffer(const PlainBuffer& buffer);
    void send(PlainResult result);
    void pass();
    void rotate(const PlainGraphicBuffer& buffer);
    void deliver(const PlainResult& result);
    void notify(const fdstream::FDNotifyMsg& message);
    void endCall(int callback);
    void tellObserver(const std::string& call, bool isLocked);
    void setMode(product::TrackingMode mode);
    void resetPTZ();
    int descriptors() const;

    PlatformModel mPlatform;
    Events mEvents;
    std::string mMapped;  // the mapper's calls in a step

    // The session.
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
    std::optional<Operation> mNested;
    MapperState mMapper = MapperState::Fine;
    bool mCallsFail = false;
    bool mFlipped = false;
    int64_t mNow = 0;
};

/** Where a sequence's clock starts, and what of what is taken or looked at is kept at most. */
constexpr int64_t kStartUs = 1700000000000000;
constexpr size_t kMostTaken = 3;
constexpr size_t kMostHeld = 2;

// What both say of a step.
std::string answered(const char* operation, int64_t value);
std::string summaryOf(bool isReady, int descriptors, const MapperCalls& calls, int64_t mappings,
                      const std::string& mapped, uint64_t bytes);

}  // namespace testing_support
