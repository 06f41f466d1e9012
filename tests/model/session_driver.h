#pragma once

#include <android-base/thread_annotations.h>

#include <array>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "FDSession.h"
#include "host/log.h"
#include "host/mapper.h"
#include "model/files.h"
#include "model/subject.h"
#include "support/interposed.h"
#include "support/spy_mapper.h"

namespace testing_support {

/**
 * The session itself, whose thread's start is refused: the passes are made here, on one thread.
 * There can be one at a time.
 */
class SessionDriver : public Subject, private host::LogSink {
public:
    SessionDriver(const Files& files, SpyMapper3& mapper);
    ~SessionDriver() override;
    SessionDriver(const SessionDriver&) = delete;
    SessionDriver& operator=(const SessionDriver&) = delete;

private:
    class Client;
    class Observer;

    void write(const host::LogLine& line) override;

    void make() override;
    void drop() override;
    Counts counts() override;

    int setCallback(int choice) override;
    int configure(const product::StreamConfiguration& configuration) override;
    int submit(const PlainRequest& request) override;
    std::optional<PlainRequest> take() override;
    bool isReady() override { return mSession->isCaptureRequestReady(); }
    std::optional<product::StreamConfiguration> configuration() override;
    std::optional<PlainGraphicBuffer> lookUp(uint64_t bufferId) override;
    void send(const PlainResult& result) override { sendRecord(mFiles.recordOf(result)); }
    void answerTaken(uint32_t status) override;
    void letGoOfHeld() override;
    /** Without the session's lock: no other thread knows the session. */
    void freeBuffer(int32_t streamId, uint64_t bufferId) override NO_THREAD_SAFETY_ANALYSIS;
    void notify(fdstream::FDNotifyMsg message) override { mSession->sendNotify(message); }
    void paint(size_t memory, const Operation& by) override;
    void pass() override;
    void setObserver(int number) override;
    void setScene(const product::SceneControl& control) override;
    product::SceneControl scene() override;
    void setPTZ(const product::SceneControl& control) override;
    product::SceneControl ptz() override;
    void resetPTZ() override { mSession->resetPTZScene(); }
    void setMode(product::TrackingMode mode) override { mSession->setTrackingMode(mode); }
    product::TrackingMode mode() override { return mSession->getTrackingMode(); }
    int people() override { return mSession->getPeopleCount(); }
    void setTrack(const product::TrackControl& control) override;
    product::TrackControl track() override;
    void setClock(int64_t us) override { mClock.stopAt(us); }
    void flip(bool isFlipped) override;
    void setMapper(MapperState state) override;
    void failLock(int error) override;
    void failUnlock(int error) override;
    void limitDuplicates(std::optional<int> count) override;

    void sendRecord(const product::CaptureResult& result);
    void imported(void* handle);
    void freed(void* handle);
    void freeRest();

    const Files& mFiles;
    SpyMapper3& mMapper;
    std::string mMapped;
    std::set<void*> mImports;  // what the importer has
    const host::MapperCounters mCountersBefore;
    const int mDescriptorsBefore;

    WallClock mClock;
    FewDuplicates mDuplicates;
    host::ScopedLogSink mScope;

    android::sp<product::FDSessionImpl> mSession;
    android::sp<fdstream::IFDSession> mInterface;
    android::wp<Client> mClient;
    std::array<std::unique_ptr<Observer>, 2> mObservers;
    int mCallbacksMade = 0;
    size_t mUndelivered = 0;
    std::deque<product::CaptureRequest> mTaken;
    std::deque<android::sp<android::GraphicBuffer>> mHeld;
};

}  // namespace testing_support
