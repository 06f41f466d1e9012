// The session, in the order in which data flows: its life, the client's calls, the buffers, the
// requests, the results, the notifications; then the scene and tracking controls. The rotation of a
// frame comes right before the monitor's pass, which is its only caller.

#include "FDSession.h"

#include <android/log.h>
#include <cutils/properties.h>
#include <sys/time.h>
#include <system/graphics.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <thread>
#include <utility>

#include "HandleImporter.h"
#include "ObserverCalls.h"
#include "ProcessorClones.h"
#include "Rotate180.h"
#include "UniqueLock.h"

#define LOG_TAG "vendor.zoru.zoruprovider.fdstream@1.0-impl"

namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation {

using ::android::hardware::hidl_handle;
using ::android::hardware::hidl_vec;
using ::android::hardware::camera::common::V1_0::helper::HandleImporter;

namespace {

constexpr int64_t kStaleAfterUs = 1000000;
constexpr std::chrono::microseconds kIdleWait(50000);
constexpr std::chrono::seconds kEndPatience(2);
constexpr Crop kDefaultPTZCrop = {0, 0, 1280, 720};
constexpr const char* kNotDuplicated = "duplicating handles failed,";
constexpr const char* kRequestOperation = "handleCaptureRequest";  // in the lines of its steps

/** The process that has the monitor thread; 0 before there is a session. */
std::atomic<pid_t> sMonitorProcess{0};

int64_t wallClockUs() {
    timeval now = {};
    gettimeofday(&now, nullptr);
    return int64_t{now.tv_sec} * 1000000 + now.tv_usec;
}

bool isSet(const hidl_handle& handle) {
    return handle.getNativeHandle() != nullptr;
}

/** A copy is empty when the descriptors of its original could not be duplicated. */
bool isComplete(const hidl_handle& copy, const hidl_handle& original) {
    return isSet(copy) == isSet(original);
}

bool hasItsFences(const StreamBuffer& copy, const StreamBuffer& original) {
    return isComplete(copy.acquireFence, original.acquireFence) &&
           isComplete(copy.releaseFence, original.releaseFence);
}

bool isComplete(const StreamBuffer& copy, const StreamBuffer& original) {
    return isComplete(copy.buffer, original.buffer) && hasItsFences(copy, original);
}

void logBuffer(int priority, const char* operation, const char* event, const StreamBuffer& buffer) {
    __android_log_print(priority, LOG_TAG, "%s: %s streamId(%d), bufferId(%llu) \n", operation,
                        event, buffer.streamId, static_cast<unsigned long long>(buffer.bufferId));
}

/** A call that did not reach the client is logged and not repeated. */
void logIfFailed(const Return<void>& status, const char* operation, const char* call) {
    if (status.isOk()) return;
    __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "%s: %s transaction failed: %s", operation,
                        call, status.description().c_str());
}

/** A buffer that lost its fence could be read too early, so it is returned as not filled. */
void failUnlessComplete(StreamBuffer& copy, const StreamBuffer& original) {
    if (isComplete(copy, original)) return;
    logBuffer(ANDROID_LOG_ERROR, "sendCaptureResult", kNotDuplicated, copy);
    copy.status = BufferStatus::ERROR;
}

/** A copy without the output buffers' handles: the queue gets the registry's handle instead. */
CaptureRequest copyForQueue(const CaptureRequest& request) {
    CaptureRequest copy = {};
    copy.frameNumber = request.frameNumber;
    copy.fmqSettingsSize = request.fmqSettingsSize;
    copy.settings = request.settings;
    copy.inputBuffer = request.inputBuffer;
    copy.outputBuffers.resize(request.outputBuffers.size());
    for (size_t i = 0; i < request.outputBuffers.size(); ++i) {
        const StreamBuffer& original = request.outputBuffers[i];
        StreamBuffer& buffer = copy.outputBuffers[i];
        buffer.streamId = original.streamId;
        buffer.bufferId = original.bufferId;
        buffer.status = original.status;
        buffer.acquireFence = original.acquireFence;
        buffer.releaseFence = original.releaseFence;
    }
    return copy;
}

/** Gives the copy a duplicate of the registry's handle. False when it lacks one of its handles. */
bool completeCopy(CaptureRequest& copy, const CaptureRequest& original, buffer_handle_t handle) {
    // Assigned from an lvalue, so that the copy gets a duplicate and not the registry's own handle.
    const hidl_handle registered(handle);
    StreamBuffer& buffer = copy.outputBuffers[0];
    buffer.buffer = registered;
    return isComplete(buffer.buffer, registered) &&
           hasItsFences(buffer, original.outputBuffers[0]) &&
           isComplete(copy.inputBuffer, original.inputBuffer);
}

}  // namespace

// Destroyed in the reverse of this order when the library is unloaded.
static std::recursive_mutex sLock;
static sp<FDSession> sInstance;
static HandleImporter sHandleImporter;

using SessionLock = ObserverCalls::SessionLock;
using Clock = std::chrono::steady_clock;

/** Holds sLock, and tells the compiler so. */
class SCOPED_CAPABILITY Lock : public std::unique_lock<std::recursive_mutex> {
public:
    explicit Lock(std::recursive_mutex& mutex) ACQUIRE(sSessionLock)
        : std::unique_lock<std::recursive_mutex>(mutex) {}
    ~Lock() RELEASE() = default;
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;
    void unlock() RELEASE() { std::unique_lock<std::recursive_mutex>::unlock(); }
};

/** Polls once a millisecond; false when the condition does not hold by the deadline. */
template <typename Condition>
static bool waitUntil(Clock::time_point deadline, Condition holds) {
    while (!holds()) {
        if (Clock::now() >= deadline) return false;
        usleep(1000);
    }
    return true;
}

/**
 * Stops the monitor thread at unload, while sInstance still holds the session. Otherwise the thread
 * could be in a pass, hold the last reference, and run the destructor in code that is being
 * unmapped.
 *
 * Does nothing when there is no session, in a forked child (it has no such thread), on the monitor
 * thread itself, and inside an observer's operation that has the session locked (the monitor may be
 * waiting for that lock). Takes no lock, because the pass that it waits for takes them. Waits no
 * longer than kEndPatience, because a client that the monitor is calling may never answer.
 */
class MonitorStopper {
public:
    MonitorStopper() = default;
    MonitorStopper(const MonitorStopper&) = delete;
    MonitorStopper& operator=(const MonitorStopper&) = delete;
    ~MonitorStopper() {
        if (sMonitorProcess != getpid()) return;
        auto* const session = static_cast<FDSessionImpl*>(sInstance.get());
        if (session->mMonitor == std::this_thread::get_id()) return;
        if (session->mObserverCalls->isInsideLocked()) return;

        const auto deadline = Clock::now() + kEndPatience;
        session->requestExit();
        // Notified at every poll: a thread that is about to wait would miss a single notification.
        const bool hasEnded = waitUntil(deadline, [session] {
            session->mResultCondition.notify_one();
            return !session->isRunning();
        });
        if (!hasEnded) {
            __android_log_print(ANDROID_LOG_ERROR, LOG_TAG,
                                "the library goes while the session's thread is still inside a "
                                "pass \n");
            return;
        }
        session->join();
        // The thread may drop its own reference a moment after join() has returned.
        waitUntil(deadline, [session] { return session->getStrongCount() == 1; });
        const int32_t others =
            session->getStrongCount() - 1 + session->mInterface->getStrongCount() - 1;
        if (others == 0) return;
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG,
                            "the library goes while %d references to the session are held \n",
                            others);
    }
};

static MonitorStopper sMonitorStopper;

// ---- Life ----

sp<FDSession> FDSession::getInstance() {
    const Lock lock(sLock);
    if (sInstance == nullptr) {
        sInstance = new FDSessionImpl;
        sMonitorProcess = getpid();
    }
    return sInstance;
}

FDSessionImpl::FDSessionImpl()
    : Thread(true),
      mConfigSet(false),
      mConfiguration(),
      mTrackControl(),
      mSceneControl(),
      mPTZControl(),
      mTrackingMode(),
      mSceneCallback(nullptr),
      mRequestCount(0),
      mObserverCalls(std::make_unique<ObserverCalls>()) {
    resetPTZScene();
}

void FDSessionImpl::onFirstRef() {
    const Lock lock(sLock);
    if (mInterface == nullptr) mInterface = new TrampolineInterface(this);
    run("CaptureRequestMonitor", ::android::PRIORITY_DEFAULT, 0);
}

FDSessionImpl::~FDSessionImpl() {
    mSceneCallback = nullptr;
    requestExit();
    mResultCondition.notify_one();
    join();
    mInterface.clear();
}

sp<IFDSession> FDSessionImpl::getInterface() {
    const Lock lock(sLock);
    return mInterface;
}

// ---- The client's calls ----

/** Calls the session unless it is gone. The call returns 0 for success. */
template <typename Call>
static Status forward(const wp<FDSessionImpl>& weak, const char* operation, Call call) {
    const sp<FDSessionImpl> session = weak.promote();
    if (session == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "%s: FDSessionImpl is gone", operation);
        return Status::INTERNAL_ERROR;
    }
    return call(*session) == 0 ? Status::OK : Status::ILLEGAL_ARGUMENT;
}

FDSessionImpl::TrampolineInterface::TrampolineInterface(sp<FDSessionImpl> session)
    : mSession(session) {}

Return<Status> FDSessionImpl::TrampolineInterface::setCallback(
    const sp<IFDSessionCallback>& callback) {
    return forward(mSession, __func__, [&](FDSessionImpl& session) {
        session.handleSetCallback(callback);
        return 0;
    });
}

Return<Status> FDSessionImpl::TrampolineInterface::configure(
    const StreamConfiguration& configuration) {
    return forward(mSession, __func__,
                   [&](FDSessionImpl& session) { return session.handleConfigure(configuration); });
}

Return<Status> FDSessionImpl::TrampolineInterface::processCaptureRequest(
    const CaptureRequest& request) {
    return forward(mSession, __func__,
                   [&](FDSessionImpl& session) { return session.handleCaptureRequest(request); });
}

void FDSessionImpl::handleSetCallback(const sp<IFDSessionCallback>& callback) {
    __android_log_print(ANDROID_LOG_INFO, LOG_TAG, "%s: \n", __func__);
    // Releasing the old callback may run the client's code, so it happens after the lock.
    sp<IFDSessionCallback> previous = callback;
    const Lock lock(sLock);
    std::swap(mCallback, previous);
}

sp<IFDSessionCallback> FDSessionImpl::currentCallback() {
    const Lock lock(sLock);
    return mCallback;
}

int32_t FDSessionImpl::handleConfigure(const StreamConfiguration& configuration) {
    __android_log_print(ANDROID_LOG_INFO, LOG_TAG, "%s: \n", __func__);
    // Destroyed after the lock is released, because it closes descriptors that the client sent.
    std::deque<CaptureRequestItem> dropped;
    const Lock lock(sLock);
    const auto count = static_cast<int>(configuration.streams.size());
    __android_log_print(ANDROID_LOG_INFO, LOG_TAG, "%s: streamsCount(%d)  \n", __func__, count);
    if (count != 1) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "%s: streamsCount(%d)  \n", __func__,
                            count);
        return -1;
    }
    if (mConfigSet) {
        mCaptureRequests.swap(dropped);
        mRequestCount = mCaptureRequests.size();
        freeAllBuffers();
    }
    mConfiguration.streams = configuration.streams;
    mConfiguration.operationMode = configuration.operationMode;
    mConfigSet = true;
    return 0;
}

int32_t FDSessionImpl::getConfiguration(StreamConfiguration& configuration) {
    const Lock lock(sLock);
    if (!mConfigSet) return -1;
    configuration.streams = mConfiguration.streams;
    configuration.operationMode = mConfiguration.operationMode;
    return 0;
}

// ---- The buffers ----

bool FDSessionImpl::isRegistered(const StreamBuffer& buffer) const {
    const auto stream = mCirculatingBuffers.find(buffer.streamId);
    return stream != mCirculatingBuffers.end() && stream->second.count(buffer.bufferId) != 0;
}

int32_t FDSessionImpl::lookupOrImportBuffer(const StreamBuffer& buffer, buffer_handle_t& handle) {
    CirculatingBuffers& buffers = mCirculatingBuffers[buffer.streamId];
    const auto known = buffers.find(buffer.bufferId);
    if (known != buffers.end()) {
        handle = known->second;
        return 0;
    }

    handle = buffer.buffer.getNativeHandle();
    if (handle == nullptr) {
        logBuffer(ANDROID_LOG_ERROR, kRequestOperation, "buffer", buffer);
        return -1;
    }
    if (!sHandleImporter.importBuffer(handle)) {
        logBuffer(ANDROID_LOG_ERROR, kRequestOperation, "import buffer failed,", buffer);
        return -1;
    }
    buffers[buffer.bufferId] = handle;
    const auto& stream = mConfiguration.streams[0];
    mGraphicBuffers[buffer.bufferId] =
        new GraphicBuffer(handle, GraphicBuffer::CLONE_HANDLE, stream.width, stream.height,
                          HAL_PIXEL_FORMAT_YCBCR_420_888, 1, stream.usage, stream.width);
    logBuffer(ANDROID_LOG_INFO, kRequestOperation, "import buffer success,", buffer);
    return 0;
}

sp<GraphicBuffer> FDSessionImpl::getBufferForId(uint64_t bufferId) {
    const Lock lock(sLock);
    const auto found = mGraphicBuffers.find(bufferId);
    return found != mGraphicBuffers.end() ? found->second : nullptr;
}

void FDSessionImpl::freeBuffer(const StreamBuffer& buffer) {
    const auto stream = mCirculatingBuffers.find(buffer.streamId);
    if (stream == mCirculatingBuffers.end()) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG,
                            "%s: CirculatingBuffers does not have streamId(%d) entry \n", __func__,
                            buffer.streamId);
        return;
    }
    const auto found = stream->second.find(buffer.bufferId);
    if (found == stream->second.end()) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG,
                            "%s: CirculatingBuffers does not have bufferId(%llu) entry \n",
                            __func__, static_cast<unsigned long long>(buffer.bufferId));
        return;
    }
    sHandleImporter.freeBuffer(found->second);
    stream->second.erase(found);
}

void FDSessionImpl::forgetBuffer(const StreamBuffer& buffer) {
    freeBuffer(buffer);
    mGraphicBuffers.erase(buffer.bufferId);
}

void FDSessionImpl::freeAllBuffers() {
    for (auto& [streamId, buffers] : mCirculatingBuffers) {
        for (const auto& [bufferId, handle] : buffers)
            sHandleImporter.freeBuffer(handle);
        buffers.clear();
    }
    mCirculatingBuffers.clear();
    mGraphicBuffers.clear();
}

// ---- The requests ----

int32_t FDSessionImpl::handleCaptureRequest(const CaptureRequest& request) {
    // Made before the lock is taken, so that a refused copy is closed after the lock is released.
    CaptureRequestItem item = {copyForQueue(request), 0};
    const Lock lock(sLock);
    if (!fitsConfiguration(request)) return -1;
    const StreamBuffer& buffer = request.outputBuffers[0];
    const bool isNew = isSet(buffer.buffer) && !isRegistered(buffer);
    buffer_handle_t handle = nullptr;
    if (lookupOrImportBuffer(buffer, handle) != 0) return -1;
    if (!completeCopy(item.request, request, handle)) {
        logBuffer(ANDROID_LOG_ERROR, kRequestOperation, kNotDuplicated, buffer);
        // The client is told of a refusal, so its id must not stay known with this handle.
        if (isNew) forgetBuffer(buffer);
        return -1;
    }
    item.timestampUs = wallClockUs();
    mCaptureRequests.push_back(std::move(item));
    mRequestCount = mCaptureRequests.size();
    return 0;
}

bool FDSessionImpl::fitsConfiguration(const CaptureRequest& request) const {
    if (request.outputBuffers.size() != 1) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "%s: outputBuffersCount(%d)  \n",
                            kRequestOperation, static_cast<int>(request.outputBuffers.size()));
        return false;
    }
    if (!mConfigSet) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "%s: mConfigSet(%d)  \n", kRequestOperation,
                            0);
        return false;
    }
    const int32_t streamId = request.outputBuffers[0].streamId;
    const int32_t configuredId = mConfiguration.streams[0].id;
    if (streamId == configuredId) return true;
    __android_log_print(ANDROID_LOG_ERROR, LOG_TAG,
                        "%s: buffer streamId(%d), configuration streamId(%d) \n", kRequestOperation,
                        streamId, configuredId);
    return false;
}

bool FDSessionImpl::isCaptureRequestReady() {
    return mRequestCount != 0;
}

int32_t FDSessionImpl::getProcessCaptureRequest(CaptureRequest& request) {
    CaptureRequest oldest = {};
    {
        const Lock lock(sLock);
        if (mCaptureRequests.empty()) return -1;
        oldest = takeOldestRequest();
    }
    request = std::move(oldest);  // closes what the caller passed in, without the lock
    return 0;
}

CaptureRequest FDSessionImpl::takeOldestRequest() {
    // Moved, not copied: the item owns all that it holds, and is dropped.
    CaptureRequest oldest = std::move(mCaptureRequests.front().request);
    mCaptureRequests.pop_front();
    mRequestCount = mCaptureRequests.size();
    return oldest;
}

// ---- The results ----

void FDSessionImpl::sendCaptureResult(const CaptureResult& result) {
    CaptureResult copy = result;
    for (size_t i = 0; i < result.outputBuffers.size(); ++i) {
        failUnlessComplete(copy.outputBuffers[i], result.outputBuffers[i]);
    }
    failUnlessComplete(copy.inputBuffer, result.inputBuffer);

    const std::lock_guard<std::mutex> lock(mResultMutex);
    mCaptureResults.push_back(std::move(copy));
    mResultCondition.notify_all();
}

namespace {

// A row is turned by vector code, whatever the compiler's options are. Memory is reached by memcpy,
// because a row may begin anywhere. Of vectors that a processor lacks g++ makes single bytes, so
// the wide ones are not for all. What a clone calls has to be inlined, or it is the baseline's
// code.

using LumaVector = uint8_t __attribute__((vector_size(16)));
using WideLumaVector = uint8_t __attribute__((vector_size(32)));
using ChromaVector = uint16_t __attribute__((vector_size(16)));  // of pairs, kept as they are
using WideChromaVector = uint16_t __attribute__((vector_size(32)));

template <typename Vector, size_t... i>
[[gnu::always_inline]] inline void reverse(Vector& v, std::index_sequence<i...>) {
    v = __builtin_shufflevector(v, v, (sizeof...(i) - 1 - i)...);
}

/** Exchanges two rows and reverses both, from the start of `top` for as long as vectors fit. */
template <typename Vector>
[[gnu::always_inline]] inline void exchangeVectors(uint8_t*& top, uint8_t* bottom, size_t& count) {
    constexpr std::make_index_sequence<sizeof(Vector) / sizeof(Vector{}[0])> samples;
    for (; count >= sizeof(Vector); count -= sizeof(Vector), top += sizeof(Vector)) {
        uint8_t* const late = bottom + count - sizeof(Vector);
        Vector upper;
        Vector lower;
        memcpy(&upper, top, sizeof(Vector));
        memcpy(&lower, late, sizeof(Vector));
        reverse(upper, samples);
        reverse(lower, samples);
        memcpy(top, &lower, sizeof(Vector));
        memcpy(late, &upper, sizeof(Vector));
    }
}

/** Exchanges two rows of whole samples, which do not overlap, and reverses both. */
template <typename Vector, typename WideVector>
[[gnu::always_inline]] inline void exchangeRows(uint8_t* top, uint8_t* bottom, size_t count) {
    constexpr size_t kSample = sizeof(Vector{}[0]);
    if (hasWideVectors()) exchangeVectors<WideVector>(top, bottom, count);
    exchangeVectors<Vector>(top, bottom, count);
    for (; count > 0; count -= kSample, top += kSample)
        std::swap_ranges(top, top + kSample, bottom + count - kSample);
}

FDSTREAM_PROCESSOR_CLONES
void exchangeLuma(uint8_t* top, uint8_t* bottom, size_t count) {
    exchangeRows<LumaVector, WideLumaVector>(top, bottom, count);
}

FDSTREAM_PROCESSOR_CLONES
void exchangeChroma(uint8_t* top, uint8_t* bottom, size_t count) {
    exchangeRows<ChromaVector, WideChromaVector>(top, bottom, count);
}

void turnLuma(uint8_t* luma, size_t stride, size_t width, size_t rows) {
    for (size_t row = 0; row < rows / 2; ++row)
        exchangeLuma(luma + row * stride, luma + (rows - 1 - row) * stride, width);
    if (rows % 2 == 0) return;
    // The middle row is turned by exchanging its halves.
    uint8_t* const middle = luma + rows / 2 * stride;
    exchangeLuma(middle, middle + width - width / 2, width / 2);
}

void turnChroma(uint8_t* chroma, size_t stride, size_t width, size_t rows) {
    const size_t pairBytes = width / 2 * 2;
    for (size_t row = 0; row < rows / 2; ++row) {
        uint8_t* const top = chroma + row * stride;
        uint8_t* const bottom = chroma + (rows - 1 - row) * stride;
        exchangeChroma(top, bottom, pairBytes);
        // The last byte of an odd width belongs to no pair: it changes its row, not its column.
        if (pairBytes != width) std::swap(top[pairBytes], bottom[pairBytes]);
    }
    if (rows % 2 == 0) return;
    uint8_t* const middle = chroma + rows / 2 * stride;
    const size_t half = width / 4 * 2;
    exchangeChroma(middle, middle + pairBytes - half, half);
}

void turnFrame(const android_ycbcr& ycbcr, int width, int height) {
    if (width <= 0 || height <= 0) return;
    const auto rowBytes = static_cast<size_t>(width);
    const auto rows = static_cast<size_t>(height);
    turnLuma(static_cast<uint8_t*>(ycbcr.y), ycbcr.ystride, rowBytes, rows);
    if (rows < 4) return;
    auto* const chroma = static_cast<uint8_t*>(std::min(ycbcr.cb, ycbcr.cr, std::less<>()));
    turnChroma(chroma, ycbcr.cstride, rowBytes, rows / 2);
}

}  // namespace

void rotate180(sp<GraphicBuffer> buffer) {
    if (buffer == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "%s: Invalid graphics buffer \n", __func__);
        return;
    }
    android_ycbcr ycbcr = {};
    int status = buffer->lockYCbCr(static_cast<uint32_t>(buffer->getUsage()), &ycbcr);
    if (status != 0) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "%s: lockYCbCr failed, error (%d) \n",
                            __func__, status);
        return;
    }
    if (ycbcr.chroma_step == 2) {
        turnFrame(ycbcr, buffer->width, buffer->height);
    } else {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "%s: unhandled chroma format step %d \n",
                            __func__, static_cast<int>(ycbcr.chroma_step));
    }
    status = buffer->unlock();
    if (status != 0) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "%s: unlock failed, error (%d) \n",
                            __func__, status);
    }
}

bool FDSessionImpl::threadLoop() {
    mMonitor = std::this_thread::get_id();
    CaptureResult result = {};
    if (takeResult(result) && result.outputBuffers.size() > 0) {
        turnIfFlipped(result);
        deliver(std::move(result));
    }
    CaptureRequest stale = {};
    if (takeStaleRequest(stale)) deliver(answerTo(std::move(stale), BufferStatus::ERROR));
    return true;
}

bool FDSessionImpl::takeResult(CaptureResult& result) {
    UniqueLock lock(mResultMutex);
    if (mCaptureResults.empty()) {
        // Waited for once only: even when no result has come, the sweep is due.
        mResultCondition.wait_until(lock, std::chrono::system_clock::now() + kIdleWait);
    }
    if (mCaptureResults.empty()) return false;
    result = std::move(mCaptureResults.front());
    mCaptureResults.pop_front();
    return true;
}

void FDSessionImpl::turnIfFlipped(const CaptureResult& result) {
    if (property_get_bool("vendor.zoru.flipped", 0) == 0) return;
    const sp<GraphicBuffer> buffer = getBufferForId(result.outputBuffers[0].bufferId);
    if (buffer != nullptr) rotate180(buffer);
}

bool FDSessionImpl::takeStaleRequest(CaptureRequest& request) {
    const Lock lock(sLock);
    if (mCaptureRequests.empty()) return false;
    if (wallClockUs() <= mCaptureRequests.front().timestampUs + kStaleAfterUs) return false;
    request = takeOldestRequest();
    return true;
}

void FDSessionImpl::deliver(CaptureResult&& result) {
    const sp<IFDSessionCallback> callback = currentCallback();
    if (callback == nullptr) return;
    hidl_vec<CaptureResult> results;
    results.resize(1);
    results[0] = std::move(result);
    logIfFailed(callback->processCaptureResult(results), "threadLoop", "processCaptureResult");
}

// ---- The notifications ----

void FDSessionImpl::sendNotify(FDNotifyMsg& msg) {
    sp<IFDSessionCallback> callback;
    {
        const Lock lock(sLock);
        if (mCallback == nullptr) {
            __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "%s: notify failed: invalid session \n",
                                __func__);
            return;
        }
        callback = mCallback;
    }
    if (mObserverCalls->isInsideLocked()) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG,
                            "%s: called inside an observer's operation that has the session "
                            "locked \n",
                            __func__);
    }
    const Return<void> status = callback->notify({msg});
    logIfFailed(status, __func__, "notify");
}

// ---- Scene and tracking ----

void FDSessionImpl::setSceneControl(const SceneControl& sceneControl) {
    const Lock lock(sLock);
    mSceneControl = sceneControl;
    if (mSceneCallback == nullptr) return;
    const ObserverCalls::Scope scope(*mObserverCalls, mSceneCallback, SessionLock::HELD);
    mSceneCallback->onSceneControl(sceneControl);
}

void FDSessionImpl::getSceneControl(SceneControl& sceneControl) {
    const Lock lock(sLock);
    sceneControl = mSceneControl;
}

void FDSessionImpl::setPTZControl(const SceneControl& ptzControl) {
    const Lock lock(sLock);
    mPTZControl = ptzControl;
    if (mSceneCallback == nullptr) return;
    const ObserverCalls::Scope scope(*mObserverCalls, mSceneCallback, SessionLock::HELD);
    mSceneCallback->onPTZControl(ptzControl);
}

void FDSessionImpl::getPTZControl(SceneControl& ptzControl) {
    const Lock lock(sLock);
    ptzControl = mPTZControl;
}

void FDSessionImpl::resetPTZScene() {
    const Lock lock(sLock);
    mPTZControl.frameWidth = kDefaultPTZCrop.width;
    mPTZControl.frameHeight = kDefaultPTZCrop.height;
    mPTZControl.crops = {kDefaultPTZCrop};
    __android_log_print(ANDROID_LOG_DEBUG, LOG_TAG, "PTZ Scene reset %d %d %d %d",
                        kDefaultPTZCrop.x, kDefaultPTZCrop.y, kDefaultPTZCrop.width,
                        kDefaultPTZCrop.height);
}

void FDSessionImpl::setTrackingMode(TrackingMode trackingMode) {
    const Lock lock(sLock);
    if (trackingMode == mTrackingMode) return;
    mTrackingMode = trackingMode;
    if (trackingMode == TrackingMode::OFF) resetPTZScene();
    __android_log_print(ANDROID_LOG_DEBUG, LOG_TAG, "Tracking changed to %d ",
                        static_cast<int>(trackingMode));
    if (mSceneCallback == nullptr) return;
    const ObserverCalls::Scope scope(*mObserverCalls, mSceneCallback, SessionLock::HELD);
    mSceneCallback->onTrackingMode(trackingMode);
}

TrackingMode FDSessionImpl::getTrackingMode() {
    const Lock lock(sLock);
    return mTrackingMode;
}

int32_t FDSessionImpl::getPeopleCount() {
    const Lock lock(sLock);
    return mSceneControl.peopleCount;
}

void FDSessionImpl::setTrackControl(const TrackControl& trackControl) {
    Lock lock(sLock);
    mTrackControl = trackControl;
    ISceneCallback* const observer = mSceneCallback;
    if (observer == nullptr) return;
    // Recorded under the lock, so that whoever replaces the observer waits for this call.
    const ObserverCalls::Scope scope(*mObserverCalls, observer, SessionLock::FREE);
    lock.unlock();
    observer->onTrackControl(trackControl);
}

void FDSessionImpl::getTrackControl(TrackControl& trackControl) {
    const Lock lock(sLock);
    trackControl = mTrackControl;
}

void FDSessionImpl::setSceneCallback(ISceneCallback* sceneCallback) {
    {
        const Lock lock(sLock);
        mSceneCallback = sceneCallback;
    }
    mObserverCalls->waitForOthersThan(sceneCallback);
}

}  // namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation
