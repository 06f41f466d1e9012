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
#include "host/log.h"
#include "model/files.h"
#include "model/operation.h"
#include "model/session_model.h"
#include "support/interposed.h"
#include "support/spy_mapper.h"

namespace testing_support {

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
