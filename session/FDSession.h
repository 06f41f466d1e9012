#pragma once

#include <android-base/thread_annotations.h>
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
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation {

using ::android::GraphicBuffer;
using ::android::sp;
using ::android::wp;
using ::android::hardware::Return;
using ::android::hardware::camera::common::V1_0::Status;
using ::android::hardware::camera::device::V3_2::BufferStatus;
using ::android::hardware::camera::device::V3_2::CaptureRequest;
using ::android::hardware::camera::device::V3_2::CaptureResult;
using ::android::hardware::camera::device::V3_2::StreamBuffer;
using ::android::hardware::camera::device::V3_2::StreamConfiguration;
using ::vendor::zoru::zoruprovider::zoruprovider::V2_4::Crop;
using ::vendor::zoru::zoruprovider::zoruprovider::V2_4::SceneControl;
using ::vendor::zoru::zoruprovider::zoruprovider::V2_4::TrackControl;
using ::vendor::zoru::zoruprovider::zoruprovider::V2_4::TrackingMode;

/**
 * An observer inside the process: told of every scene, PTZ and tracking control that is stored in
 * the session. The session does not own it. Each operation gets a copy of the control.
 *
 * An operation runs on the thread that stores the control, and with the session locked, except for
 * onTrackControl(). It may call the session. It must not wait for a thread that calls the session,
 * and onTrackControl() must not wait for a thread in setSceneCallback(), which waits for it.
 *
 * Only onTrackControl() may call FDSession::sendNotify(). From the others the client is called with
 * the session locked, and a client that is slow, or that calls the session before it answers,
 * blocks every other user of the session. Such a notification is sent, but logged as an ERROR each
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
 * A reference must not outlive the library: drop all of them before it is unloaded.
 */
class FDSession : public virtual ::android::RefBase {
public:
    /** The session of this process. The first call creates it and starts its thread. */
    [[gnu::visibility("default")]] static sp<FDSession> getInstance();

    /** The object to hand to the client; always the same one. */
    virtual sp<IFDSession> getInterface() = 0;
    /** The buffer that wraps a client's buffer; null when the id is not known. */
    virtual sp<GraphicBuffer> getBufferForId(uint64_t bufferId) = 0;
    /** 0 and a copy of the accepted configuration, or -1 while there is none. */
    virtual int32_t getConfiguration(StreamConfiguration& configuration) = 0;
    /**
     * 0 and the oldest waiting request, now owned by the caller, or -1 and `request` unchanged. Its
     * one output buffer carries a duplicate of the imported handle. The caller answers each request
     * with one sendCaptureResult() of the same frame number and output buffer, however late: the
     * session no longer keeps track of it.
     */
    virtual int32_t getProcessCaptureRequest(CaptureRequest& request) = 0;
    /** Whether a request waits. A hint: getProcessCaptureRequest() may still give -1. */
    virtual bool isCaptureRequestReady() = 0;
    /**
     * Calls the client at once, on this thread, and without a lock, except from inside an
     * observer's operation (see ISceneCallback). A failure is only logged.
     */
    virtual void sendNotify(FDNotifyMsg& msg) = 0;
    /**
     * Queues a copy for the client and returns; the session's own thread delivers it. It is not
     * checked against the requests: the client gets what the provider sends.
     */
    virtual void sendCaptureResult(const CaptureResult& result) = 0;

    /** Stores a copy, then tells the observer, even when nothing has changed. */
    virtual void setSceneControl(const SceneControl& sceneControl) = 0;
    virtual void getSceneControl(SceneControl& sceneControl) = 0;
    /** A change to mode 0 resets the PTZ control. Setting the current mode does nothing. */
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
     * Registers the observer, null for none. Waits until no operation of another observer is
     * running, so that those may be destroyed on return. An operation that waits for this call
     * therefore hangs both. Does not wait when called from inside an observer's operation.
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
 * sLock, by a name that the compiler can check: the lock itself is in the source file, and of a
 * type that the compiler does not know as a lock. Declared only.
 */
class CAPABILITY("mutex") SessionLockName;
extern SessionLockName& sSessionLock;

/** The stream id of an input buffer that is none. */
constexpr int32_t kNoStream = -1;

/**
 * A result that answers a request and holds nothing else: no metadata, no input buffer. Takes the
 * request's output buffers and gives the first one this status. REQUIRES: there is one.
 */
inline CaptureResult answerTo(CaptureRequest&& request, BufferStatus status) {
    CaptureResult result = {};
    result.frameNumber = request.frameNumber;
    result.outputBuffers = std::move(request.outputBuffers);
    result.outputBuffers[0].status = status;
    result.inputBuffer.streamId = kNoStream;
    return result;
}

class ObserverCalls;

/**
 * The session, and the thread "CaptureRequestMonitor" that delivers results and answers requests
 * that nobody took within a second.
 *
 * Locks: sLock, in the source file, guards the members marked so; it is recursive, and held while
 * the mapper and the observer are called. mResultMutex guards the result queue. The two are never
 * held together. Neither is held while the client is called (unless an observer notifies it where
 * it must not), nor while descriptors that the client or the provider sent are closed (except those
 * of imported buffers, which are freed under sLock).
 */
class FDSessionImpl : public FDSession, public ::android::Thread {
public:
    /**
     * Serves the client. Holds the session weakly, so that a client cannot keep it alive.
     *
     * A call of the old callback may still be running when setCallback() returns. Results that were
     * queued before a configure() are delivered after it, and with "vendor.zoru.flipped" the buffer
     * that is turned then is the new one of that id: a client must not reuse an id while results
     * for it are outstanding.
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
    /** 0 when accepted, -1 when refused. */
    int32_t handleConfigure(const StreamConfiguration& configuration);
    /** 0 when queued, -1 when refused. */
    int32_t handleCaptureRequest(const CaptureRequest& request);
    /**
     * Frees one imported buffer; its id then needs a handle again. Takes no lock: only for callers
     * inside the session.
     */
    void freeBuffer(const StreamBuffer& buffer) REQUIRES(sSessionLock);
    /** Installs the default PTZ scene, one crop of 1280 x 720, without telling the observer. */
    void resetPTZScene();

private:
    friend class MonitorStopper;

    using CirculatingBuffers = std::map<uint64_t, buffer_handle_t>;

    sp<IFDSessionCallback> currentCallback();

    /** Whether a request can be queued as far as the configuration goes; the log says why not. */
    [[nodiscard]] bool fitsConfiguration(const CaptureRequest& request) const
        REQUIRES(sSessionLock);
    [[nodiscard]] bool isRegistered(const StreamBuffer& buffer) const REQUIRES(sSessionLock);
    int32_t lookupOrImportBuffer(const StreamBuffer& buffer, buffer_handle_t& handle)
        REQUIRES(sSessionLock);
    /** Takes back what lookupOrImportBuffer() has registered just now. */
    void forgetBuffer(const StreamBuffer& buffer) REQUIRES(sSessionLock);
    void freeAllBuffers() REQUIRES(sSessionLock);
    /** REQUIRES: the queue is not empty. */
    [[nodiscard]] CaptureRequest takeOldestRequest() REQUIRES(sSessionLock);

    // The steps of a pass.
    [[nodiscard]] bool takeResult(CaptureResult& result);
    [[nodiscard]] bool takeStaleRequest(CaptureRequest& request);
    void turnIfFlipped(const CaptureResult& result);
    /** Moves the result to the client. Leaves it alone when there is no callback. */
    void deliver(CaptureResult&& result);

    std::map<int32_t, CirculatingBuffers> mCirculatingBuffers GUARDED_BY(sSessionLock);
    std::map<uint64_t, sp<GraphicBuffer>> mGraphicBuffers GUARDED_BY(sSessionLock);
    bool mConfigSet GUARDED_BY(sSessionLock);
    sp<IFDSessionCallback> mCallback GUARDED_BY(sSessionLock);
    StreamConfiguration mConfiguration GUARDED_BY(sSessionLock);
    std::deque<CaptureRequestItem> mCaptureRequests GUARDED_BY(sSessionLock);

    std::deque<CaptureResult> mCaptureResults GUARDED_BY(mResultMutex);
    std::condition_variable mResultCondition;
    std::mutex mResultMutex;

    sp<IFDSession> mInterface GUARDED_BY(sSessionLock);
    TrackControl mTrackControl GUARDED_BY(sSessionLock);
    SceneControl mSceneControl GUARDED_BY(sSessionLock);
    SceneControl mPTZControl GUARDED_BY(sSessionLock);
    TrackingMode mTrackingMode GUARDED_BY(sSessionLock);
    ISceneCallback* mSceneCallback GUARDED_BY(sSessionLock);

    // The length of mCaptureRequests, read without the lock. Written under sLock.
    std::atomic<size_t> mRequestCount;
    // The monitor thread, from its first pass on.
    std::atomic<std::thread::id> mMonitor{std::thread::id()};
    // Has a lock of its own, and a header that stays inside.
    const std::unique_ptr<ObserverCalls> mObserverCalls;
};

}  // namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation
