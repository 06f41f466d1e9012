#pragma once

#include <android/hardware/camera/common/1.0/types.h>
#include <android/hardware/camera/device/3.2/types.h>
#include <cutils/native_handle.h>
#include <hidl/Status.h>
#include <ui/GraphicBuffer.h>
#include <utils/RefBase.h>
#include <utils/Thread.h>
#include <vendor/zoru/zoruprovider/fdstream/1.0/IFDSession.h>
#include <vendor/zoru/zoruprovider/fdstream/1.0/IFDSessionCallback.h>
#include <vendor/zoru/zoruprovider/fdstream/1.0/types.h>
#include <vendor/zoru/zoruprovider/zoruprovider/2.4/types.h>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <thread>

#include "ObserverCalls.h"

namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation {

using ::android::GraphicBuffer;
using ::android::sp;
using ::android::wp;
using ::android::hardware::Return;
using ::android::hardware::camera::common::V1_0::Status;
using ::android::hardware::camera::device::V3_2::CaptureRequest;
using ::android::hardware::camera::device::V3_2::CaptureResult;
using ::android::hardware::camera::device::V3_2::StreamBuffer;
using ::android::hardware::camera::device::V3_2::StreamConfiguration;
using ::vendor::zoru::zoruprovider::zoruprovider::V2_4::Crop;
using ::vendor::zoru::zoruprovider::zoruprovider::V2_4::SceneControl;
using ::vendor::zoru::zoruprovider::zoruprovider::V2_4::TrackControl;
using ::vendor::zoru::zoruprovider::zoruprovider::V2_4::TrackingMode;

/**
 * Hears of every scene, PTZ and tracking control that is stored in the session. The session holds a
 * plain pointer and owns nothing; what an operation gets is a copy of its own.
 *
 * The operations run on the thread that stores, all but onTrackControl() with the session locked.
 * They may call the session. They must not wait for another thread that needs it, and none may wait
 * for a thread that replaces the observer: that thread waits for them.
 *
 * Only onTrackControl() may call FDSession::sendNotify(). The others must not: the client would be
 * called with the session locked, and a client that is slow, or that calls the session before it
 * answers, would keep everybody out. Such a call is made all the same, with an ERROR line each
 * time.
 */
class ISceneCallback {
public:
    virtual void onSceneControl(SceneControl sceneControl) = 0;
    virtual void onPTZControl(SceneControl ptzControl) = 0;
    virtual void onTrackControl(TrackControl trackControl) = 0;
    virtual void onTrackingMode(TrackingMode trackingMode) = 0;
    virtual ~ISceneCallback() = default;
};

/**
 * The camera provider's side of the session: take the client's requests, fill its buffers, hand the
 * results back, and store and read the scene, PTZ and tracking controls. One object per process,
 * which lives as long as the library is loaded. Any thread may call any operation.
 *
 * A reference must not outlive the library: who unloads it lets go of all of them first.
 */
class FDSession : public virtual ::android::RefBase {
public:
    /** The session of this process. The first call makes it and starts its thread. */
    [[gnu::visibility("default")]] static sp<FDSession> getInstance();

    /** The object to hand to the client; always the same one. */
    virtual sp<IFDSession> getInterface() = 0;
    /** The buffer that wraps a client's buffer; null when the id is not known. */
    virtual sp<GraphicBuffer> getBufferForId(uint64_t bufferId) = 0;
    /** 0 and a copy of the accepted configuration, or -1 while there is none. */
    virtual int32_t getConfiguration(StreamConfiguration& configuration) = 0;
    /**
     * 0 and the oldest waiting request, now the caller's, or -1 and `request` as it was. Its one
     * output buffer carries a duplicate of the imported handle. Each request taken is the caller's
     * to answer, however late, with one sendCaptureResult() of the same frame number and output
     * buffer: the session does not watch over it any more.
     */
    virtual int32_t getProcessCaptureRequest(CaptureRequest& request) = 0;
    /** Whether a request waits. A hint: getProcessCaptureRequest() may still give -1. */
    virtual bool isCaptureRequestReady() = 0;
    /**
     * Calls the client at once, on this thread, and without a lock; but for a call from inside an
     * observer's operation, as ISceneCallback says. A failure is only logged.
     */
    virtual void sendNotify(FDNotifyMsg& msg) = 0;
    /**
     * Queues a copy for the client and returns; the session's own thread delivers it. Nothing of it
     * is checked against the requests: what the provider says is what the client hears.
     */
    virtual void sendCaptureResult(const CaptureResult& result) = 0;

    /** Stores a copy, then tells the observer; also when nothing changed. */
    virtual void setSceneControl(const SceneControl& sceneControl) = 0;
    virtual void getSceneControl(SceneControl& sceneControl) = 0;
    /** A change to mode 0 resets the PTZ control. Nothing happens when the mode is the same. */
    virtual void setTrackingMode(TrackingMode trackingMode) = 0;
    virtual TrackingMode getTrackingMode() = 0;
    /** As setSceneControl(), for the pan-tilt-zoom view. */
    virtual void setPTZControl(const SceneControl& ptzControl) = 0;
    virtual void getPTZControl(SceneControl& ptzControl) = 0;
    /** The count that the last setSceneControl() carried. */
    virtual int32_t getPeopleCount() = 0;
    /** Stores a copy, then tells the observer, without a lock. */
    virtual void setTrackControl(const TrackControl& trackControl) = 0;
    virtual void getTrackControl(TrackControl& trackControl) = 0;
    /**
     * Registers the observer, null for none. On return no call of any other one is under way,
     * so those may be destroyed; unless this is called from inside an observer's operation, which
     * never waits. So it blocks while another observer's operation runs, also its onTrackControl(),
     * and one that waits for whoever replaces it hangs both.
     */
    virtual void setSceneCallback(ISceneCallback* sceneCallback) = 0;

    ~FDSession() override = default;
};

/** A request that waits for the provider. Owns duplicates of all its handles. */
struct CaptureRequestItem {
    CaptureRequest request;
    int64_t timestampUs;  ///< wall clock at queueing, microseconds since the Unix epoch
};

/**
 * The session, and the thread "CaptureRequestMonitor" that delivers results and answers requests
 * that nobody took within a second.
 *
 * Locks: sLock, of the source file, guards the members marked so; it is recursive, and held while
 * the mapper and the observer are called. mResultMutex guards the result queue. The two are never
 * held together. Neither is held while the client is called, unless an observer notifies it from
 * where it must not, nor while anything that a client or the provider sent is closed, but for the
 * imported buffers, which sLock guards.
 */
class FDSessionImpl : public FDSession, public ::android::Thread {
public:
    /**
     * Serves the client. Holds the session weakly, so that a client cannot keep it alive.
     *
     * One call of the old callback may still be under way when setCallback() returns. A result of
     * before a configure() is still delivered after it, and its buffer id is looked up anew: while
     * results are outstanding, the ids of before must not be used again. With "vendor.zoru.flipped"
     * the old result would turn the new buffer.
     */
    class TrampolineInterface : public IFDSession {
    public:
        explicit TrampolineInterface(sp<FDSessionImpl> session);

        Return<Status> setCallback(const sp<IFDSessionCallback>& callback) override;
        Return<Status> configure(const StreamConfiguration& configuration) override;
        Return<Status> processCaptureRequest(const CaptureRequest& request) override;

    private:
        const wp<FDSessionImpl> mSession;
    };

    FDSessionImpl();

    sp<IFDSession> getInterface() override;
    sp<GraphicBuffer> getBufferForId(uint64_t bufferId) override;
    int32_t getConfiguration(StreamConfiguration& configuration) override;
    int32_t getProcessCaptureRequest(CaptureRequest& request) override;
    bool isCaptureRequestReady() override;
    void sendNotify(FDNotifyMsg& msg) override;
    void sendCaptureResult(const CaptureResult& result) override;
    void setSceneControl(const SceneControl& sceneControl) override;
    void getSceneControl(SceneControl& sceneControl) override;
    void setTrackingMode(TrackingMode trackingMode) override;
    TrackingMode getTrackingMode() override;
    void setPTZControl(const SceneControl& ptzControl) override;
    void getPTZControl(SceneControl& ptzControl) override;
    int32_t getPeopleCount() override;
    void setTrackControl(const TrackControl& trackControl) override;
    void getTrackControl(TrackControl& trackControl) override;
    void setSceneCallback(ISceneCallback* sceneCallback) override;

    ~FDSessionImpl() override;

    void onFirstRef() override;
    /** One pass: at most one result delivered, at most one stale request answered. Always true. */
    bool threadLoop() override;

    void handleSetCallback(const sp<IFDSessionCallback>& callback);
    /** 0 accepted, -1 refused. */
    int32_t handleConfigure(const StreamConfiguration& configuration);
    /** 0 queued, -1 refused. */
    int32_t handleCaptureRequest(const CaptureRequest& request);
    /**
     * Gives one imported buffer back; its id then needs a handle again. Takes no lock: to be called
     * from within the session, with sLock held.
     */
    void freeBuffer(const StreamBuffer& buffer);
    /** Installs the default PTZ scene, one crop of 1280 x 720, without telling the observer. */
    void resetPTZScene();

private:
    friend class MonitorStopper;

    using CirculatingBuffers = std::map<uint64_t, buffer_handle_t>;

    sp<IFDSessionCallback> currentCallback();

    // REQUIRES: sLock is held.
    /** Whether a request can be queued as far as the configuration goes; the log says why not. */
    [[nodiscard]] bool fitsConfiguration(const CaptureRequest& request) const;
    [[nodiscard]] bool isRegistered(const StreamBuffer& buffer) const;
    int32_t lookupOrImportBuffer(const StreamBuffer& buffer, buffer_handle_t& handle);
    /** Takes back what lookupOrImportBuffer() has registered just now. */
    void forgetBuffer(const StreamBuffer& buffer);
    void freeAllBuffers();
    /** REQUIRES: the queue is not empty. */
    [[nodiscard]] CaptureRequest takeOldestRequest();
    void updateRequestCount();

    // The steps of a pass.
    [[nodiscard]] bool takeResult(CaptureResult& result);
    [[nodiscard]] bool takeStaleRequest(CaptureRequest& request);
    void turnIfFlipped(const CaptureResult& result);
    /** Moves the result to the client. Leaves it alone when there is no callback. */
    void deliver(CaptureResult&& result);

    // Guarded by sLock.
    std::map<int32_t, CirculatingBuffers> mCirculatingBuffers;
    std::map<uint64_t, sp<GraphicBuffer>> mGraphicBuffers;
    bool mConfigSet;
    sp<IFDSessionCallback> mCallback;
    StreamConfiguration mConfiguration;
    std::deque<CaptureRequestItem> mCaptureRequests;

    // Guarded by mResultMutex.
    std::deque<CaptureResult> mCaptureResults;
    std::condition_variable mResultCondition;
    std::mutex mResultMutex;

    // Guarded by sLock.
    sp<IFDSession> mInterface;
    TrackControl mTrackControl;
    SceneControl mSceneControl;
    SceneControl mPTZControl;
    TrackingMode mTrackingMode;
    ISceneCallback* mSceneCallback;

    // The length of mCaptureRequests, for a look without the lock. Written under sLock.
    std::atomic<size_t> mRequestCount;
    // The monitor thread, from its first pass on.
    std::atomic<std::thread::id> mMonitor{std::thread::id()};
    // Has a lock of its own.
    ObserverCalls mObserverCalls;
};

}  // namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation
