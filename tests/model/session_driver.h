#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "FDSession.h"
#include "host/buffer.h"
#include "host/log.h"
#include "host/unique_fd.h"
#include "host/unique_handle.h"
#include "model/operation.h"
#include "model/session_model.h"
#include "support/interposed.h"
#include "support/spy_mapper.h"

namespace testing_support {

/** Handles of each kind that a sequence speaks of, and their names again. Keeps its own. */
class Files {
public:
    Files();

    const native_handle_t* handleOf(File file) const;
    /** '?' for a handle of something else, or one that is no duplicate. */
    File nameOf(const native_handle_t* handle) const;
    const host::Buffer& memory(size_t i) const { return mBuffers[i]; }
    Memories memories() const;

private:
    struct Entry {
        File name;
        uint64_t inode;
        const native_handle_t* handle;
    };

    void add(File name, const native_handle_t* handle);
    const Entry* entryOf(File name) const;

    std::vector<host::Buffer> mBuffers;
    std::vector<host::UniqueHandle> mOthers;
    std::vector<Entry> mEntries;
};

/**
 * Carries operations out on a session of its own, whose thread's start was refused: the passes are
 * made here, on one thread. Says what could be seen. One at a time in a process.
 */
class SessionDriver : private host::LogSink {
public:
    SessionDriver(const Files& files, SpyMapper3& mapper);
    ~SessionDriver() override;
    SessionDriver(const SessionDriver&) = delete;
    SessionDriver& operator=(const SessionDriver&) = delete;

    Events begin();
    Events step(const Operation& operation);
    Events end();

private:
    class Client;
    class Observer;

    void write(const host::LogLine& line) override;

    void carryOut(const Operation& operation);
    void carryOutClients(const Operation& operation);
    void carryOutProviders(const Operation& operation);
    void carryOutScenes(const Operation& operation);
    void carryOutWorlds(const Operation& operation);
    void carryOutNested();
    void summary();
    void say(const std::string& event) { mEvents.push_back(event); }

    void setCallback(int choice);
    void take();
    void lookUp(uint64_t bufferId);
    void answerTaken(uint32_t status);
    void pass();
    // What a mapper that fails has done or left undone is put right at once.
    void imported(void* handle);
    void freed(void* handle);
    void freeRest();

    product::StreamBuffer bufferOf(const PlainBuffer& plain) const;
    android::hardware::hidl_vec<product::StreamBuffer> buffersOf(
        const std::vector<PlainBuffer>& plain) const;
    product::CaptureRequest recordOf(const PlainRequest& plain) const;
    product::CaptureResult recordOf(const PlainResult& plain) const;
    PlainBuffer plainOf(const product::StreamBuffer& buffer) const;
    PlainRequest plainOf(const product::CaptureRequest& request) const;
    PlainResult plainOf(const product::CaptureResult& result) const;

    const Files& mFiles;
    SpyMapper3& mMapper;
    Events mEvents;
    std::string mMapped;       // the mapper's calls in a step
    std::set<void*> mImports;  // what the importer has
    host::MapperCounters mCountersBefore;
    int mDescriptorsBefore;

    WallClock mClock;
    int64_t mNow = kStartUs;
    FewDuplicates mDuplicates;
    host::ScopedLogSink mScope;

    android::sp<product::FDSessionImpl> mSession;
    android::sp<fdstream::IFDSession> mInterface;
    android::wp<Client> mClient;
    std::array<std::unique_ptr<Observer>, 2> mObservers;
    int mCallbacksMade = 0;
    size_t mUndelivered = 0;
    bool mCallsFail = false;
    std::deque<product::CaptureRequest> mTaken;
    std::deque<android::sp<android::GraphicBuffer>> mHeld;
    std::optional<Operation> mNested;
};

}  // namespace testing_support
