#include "model/session_model.h"

#include <algorithm>
#include <utility>

namespace testing_support {

namespace {

constexpr int kIllegalArgument = 1;
constexpr int kInternalError = 7;
constexpr uint32_t kFailed = 1;  // a buffer's status
constexpr int64_t kStaleUs = 1000000;
constexpr const char* kGone = "Status(EX_TRANSACTION_FAILED): 'DEAD_OBJECT: gone'";

int handlesOf(const std::vector<PlainBuffer>& outputs, const PlainBuffer& input) {
    int sum = 0;
    const auto add = [&](const PlainBuffer& buffer) {
        for (const File file : {buffer.handle, buffer.acquire, buffer.release})
            sum += PlatformModel::descriptors(file);
    };
    std::for_each(outputs.begin(), outputs.end(), add);
    add(input);
    return sum;
}

bool isWhole(File copy, File original) {
    return (copy == kNoHandle) == (original == kNoHandle);
}

bool hasFences(const PlainBuffer& copy, const PlainBuffer& original) {
    return isWhole(copy.acquire, original.acquire) && isWhole(copy.release, original.release);
}

}  // namespace

void SessionModel::drop() {
    mIsGone = true;
    mResults.clear();
    mRequests.clear();
    endCall(std::exchange(mCallback, 0));
    mGraphicBuffers.clear();
    // What is registered is not given back; whoever plays the session's part here does that.
    for (const auto& [stream, buffers] : mRegistry) {
        for (const auto& [id, file] : buffers) {
            if (file != kNoHandle) mPlatform.free(file);
        }
    }
}

Subject::Counts SessionModel::counts() {
    int descriptors = mPlatform.descriptors();
    for (const Waiting& waiting : mRequests)
        descriptors += handlesOf(waiting.request.outputs, waiting.request.input);
    for (const PlainResult& result : mResults)
        descriptors += handlesOf(result.outputs, result.input);
    for (const PlainRequest& request : mTaken)
        descriptors += handlesOf(request.outputs, request.input);
    return {isReady(), descriptors, mPlatform.calls(), std::exchange(mMapped, {}),
            mPlatform.bytesHash()};
}

void SessionModel::logBuffer(char priority, const char* operation, const char* event,
                             const PlainBuffer& buffer) {
    log(priority, cat(operation, ": ", event, " streamId(", buffer.stream, "), bufferId(",
                      buffer.id, ") \n"));
}

bool SessionModel::isGone(const char* operation) {
    if (mIsGone) log('E', cat(operation, ": FDSessionImpl is gone"));
    return mIsGone;
}

int SessionModel::setCallback(int choice) {
    if (isGone("setCallback")) return kInternalError;
    log('I', "handleSetCallback: \n");
    if (choice == 3 && mCallback != 0) return 0;
    endCall(std::exchange(mCallback, choice == 0 ? 0 : ++mCallbacksMade));
    return 0;
}

int SessionModel::configure(const product::StreamConfiguration& configuration) {
    if (isGone("configure")) return kInternalError;
    log('I', "handleConfigure: \n");
    const size_t count = configuration.streams.size();
    const std::string counted = cat("handleConfigure: streamsCount(", count, ")  \n");
    log('I', counted);
    if (count != 1) {
        log('E', counted);
        return kIllegalArgument;
    }
    mRequests.clear();
    for (const auto& [stream, buffers] : mRegistry) {
        for (const auto& [id, file] : buffers)
            release(file);
    }
    mRegistry.clear();
    mGraphicBuffers.clear();
    mConfiguration = configuration;
    return 0;
}

int SessionModel::submit(const PlainRequest& request) {
    if (isGone("processCaptureRequest")) return kInternalError;
    return enqueue(request) ? 0 : kIllegalArgument;
}

bool SessionModel::enqueue(const PlainRequest& request) {
    PlainRequest copy = request;
    mPlatform.duplicateHandles(copy.input);
    for (PlainBuffer& output : copy.outputs) {
        output.acquire = mPlatform.duplicate(output.acquire);
        output.release = mPlatform.duplicate(output.release);
    }
    if (!fits(request)) return false;

    const PlainBuffer& buffer = request.outputs[0];
    const bool isNew = !knows(buffer);
    const std::optional<File> imported = lookUpOrImport(buffer);
    if (!imported) return false;
    copy.outputs[0].handle = mPlatform.duplicate(*imported);
    if (!isWhole(copy.outputs[0].handle, *imported) || !hasFences(copy.outputs[0], buffer) ||
        !isWhole(copy.input.handle, request.input.handle) ||
        !hasFences(copy.input, request.input)) {
        logBuffer('E', "handleCaptureRequest", "duplicating handles failed,", buffer);
        if (isNew) {
            freeBuffer(buffer.stream, buffer.id);
            mGraphicBuffers.erase(buffer.id);
        }
        return false;
    }
    mRequests.push_back({std::move(copy), mNow});
    return true;
}

bool SessionModel::fits(const PlainRequest& request) {
    std::string reason;
    if (request.outputs.size() != 1) {
        reason = cat("outputBuffersCount(", request.outputs.size(), ")  \n");
    } else if (!mConfiguration) {
        reason = "mConfigSet(0)  \n";
    } else if (request.outputs[0].stream != mConfiguration->streams[0].id) {
        reason = cat("buffer streamId(", request.outputs[0].stream, "), configuration streamId(",
                     mConfiguration->streams[0].id, ") \n");
    }
    if (!reason.empty()) log('E', "handleCaptureRequest: " + reason);
    return reason.empty();
}

bool SessionModel::knows(const PlainBuffer& buffer) const {
    const auto stream = mRegistry.find(buffer.stream);
    return stream != mRegistry.end() && stream->second.count(buffer.id) != 0;
}

std::optional<File> SessionModel::lookUpOrImport(const PlainBuffer& buffer) {
    std::map<uint64_t, File>& buffers = mRegistry[buffer.stream];
    if (knows(buffer)) return buffers[buffer.id];
    if (buffer.handle == kNoHandle) {
        logBuffer('E', "handleCaptureRequest", "buffer", buffer);
        return std::nullopt;
    }
    if (buffer.handle != kEmpty && !import(buffer.handle)) {
        logBuffer('E', "handleCaptureRequest", "import buffer failed,", buffer);
        return std::nullopt;
    }
    const File imported = buffer.handle == kEmpty ? kNoHandle : buffer.handle;
    buffers[buffer.id] = imported;
    const auto& stream = mConfiguration->streams[0];
    const auto width = static_cast<int>(stream.width);
    const auto height = static_cast<int>(stream.height);
    mGraphicBuffers[buffer.id] =
        mPlatform.wrap(imported, {kNoHandle, width, height, width, 35, stream.usage, 0});
    logBuffer('I', "handleCaptureRequest", "import buffer success,", buffer);
    return imported;
}

bool SessionModel::import(File file) {
    if (mMapper == MapperState::Dead) {
        log('E', cat("HandleImporter: importBufferInternal: mapper importBuffer failed: ", kGone));
    }
    if (mMapper != MapperState::Fine) return false;
    const bool isImported = mPlatform.import(file) == 0;
    mMapped += cat('+', isImported ? file : kNoHandle);
    return isImported;
}

void SessionModel::release(File imported) {
    if (imported == kNoHandle) return;
    mMapped += cat('-', imported);
    mPlatform.free(imported);
    if (mMapper == MapperState::Dead) {
        log('E', cat("HandleImporter: freeBuffer: mapper freeBuffer failed: ", kGone));
    }
}

void SessionModel::freeBuffer(int32_t streamId, uint64_t bufferId) {
    const std::string start = "freeBuffer: CirculatingBuffers does not have ";
    const auto stream = mRegistry.find(streamId);
    if (stream == mRegistry.end()) {
        return log('E', cat(start, "streamId(", streamId, ") entry \n"));
    }
    const auto found = stream->second.find(bufferId);
    if (found == stream->second.end()) {
        return log('E', cat(start, "bufferId(", bufferId, ") entry \n"));
    }
    release(found->second);
    stream->second.erase(found);
}

void SessionModel::send(const PlainResult& result) {
    PlainResult copy = result;
    for (PlainBuffer& output : copy.outputs)
        mPlatform.duplicateHandles(output);
    mPlatform.duplicateHandles(copy.input);
    const auto check = [&](PlainBuffer& duplicate, const PlainBuffer& original) {
        if (isWhole(duplicate.handle, original.handle) && hasFences(duplicate, original)) return;
        logBuffer('E', "sendCaptureResult", "duplicating handles failed,", duplicate);
        duplicate.status = kFailed;
    };
    for (size_t i = 0; i < copy.outputs.size(); ++i)
        check(copy.outputs[i], result.outputs[i]);
    check(copy.input, result.input);
    mResults.push_back(std::move(copy));
}

void SessionModel::pass() {
    if (!mResults.empty()) {
        const PlainResult result = std::move(mResults.front());
        mResults.pop_front();
        if (!result.outputs.empty()) {
            const auto found = mGraphicBuffers.find(result.outputs[0].id);
            if (mFlipped && found != mGraphicBuffers.end()) rotate(*found->second);
            deliver(result);
        }
    }
    if (mRequests.empty() || mNow <= mRequests.front().since + kStaleUs) return;
    PlainResult failed = {};
    failed.frame = mRequests.front().request.frame;
    failed.outputs = std::move(mRequests.front().request.outputs);
    failed.outputs[0].status = kFailed;
    failed.input.stream = -1;
    mRequests.pop_front();
    deliver(failed);
}

void SessionModel::rotate(const PlainGraphicBuffer& buffer) {
    if (const int error = mPlatform.lock(buffer)) {
        return log('E', cat("rotate180: lockYCbCr failed, error (", error, ") \n"));
    }
    const int step = mPlatform.chromaStep(buffer.file);
    if (step == 2) {
        mPlatform.turn(buffer);
    } else {
        log('E', cat("rotate180: unhandled chroma format step ", step, " \n"));
    }
    if (const int error = mPlatform.unlock()) {
        log('E', cat("rotate180: unlock failed, error (", error, ") \n"));
    }
}

void SessionModel::deliver(const PlainResult& result) {
    if (mCallback != 0) call("gets", inWords(result), "threadLoop", "processCaptureResult");
}

void SessionModel::notify(fdstream::FDNotifyMsg message) {
    if (mCallback == 0) return log('E', "sendNotify: notify failed: invalid session \n");
    if (mLockedCalls > 0) {
        log('E',
            "sendNotify: called inside an observer's operation that has the session locked \n");
    }
    call("is notified of", inWords(message), "sendNotify", "notify");
}

void SessionModel::call(const char* what, const std::string& record, const char* caller,
                        const char* method) {
    const int callback = mCallback;
    sayCall(callback, what, 1, record);
    mCallsUnderWay.push_back(callback);
    carryOutNested();
    if (mCallsFail) {
        log('E', cat(caller, ": ", method,
                     " transaction failed: Status(EX_TRANSACTION_FAILED): 'DEAD_OBJECT: the peer "
                     "has closed the connection'"));
    }
    mCallsUnderWay.pop_back();
    endCall(callback);
}

void SessionModel::endCall(int callback) {
    const bool isCalled = std::count(mCallsUnderWay.begin(), mCallsUnderWay.end(), callback) > 0;
    if (callback != 0 && callback != mCallback && !isCalled) sayGone(callback);
}

std::optional<PlainRequest> SessionModel::take() {
    if (mRequests.empty()) return std::nullopt;
    mTaken.push_back(std::move(mRequests.front().request));
    mRequests.pop_front();
    const PlainRequest taken = mTaken.back();
    if (mTaken.size() > kMostTaken) mTaken.pop_front();
    return taken;
}

std::optional<PlainGraphicBuffer> SessionModel::lookUp(uint64_t bufferId) {
    const auto found = mGraphicBuffers.find(bufferId);
    if (found == mGraphicBuffers.end()) return std::nullopt;
    mHeld.push_back(found->second);
    if (mHeld.size() > kMostHeld) mHeld.pop_front();
    return *found->second;
}

void SessionModel::answerTaken(uint32_t status) {
    if (mTaken.empty()) return;
    PlainResult result = {};
    result.frame = mTaken.front().frame;
    result.outputs = std::move(mTaken.front().outputs);
    result.outputs[0].status = status;
    result.input.stream = -1;
    mTaken.pop_front();
    send(result);
}

void SessionModel::letGoOfHeld() {
    mTaken.clear();
    mHeld.clear();
}

void SessionModel::setScene(const product::SceneControl& control) {
    mScene = control;
    tellObserver("onSceneControl", inWords(control), true);
}

void SessionModel::setPTZ(const product::SceneControl& control) {
    mPTZ = control;
    tellObserver("onPTZControl", inWords(control), true);
}

void SessionModel::setTrack(const product::TrackControl& control) {
    mTrack = control;
    tellObserver("onTrackControl", inWords(control), false);
}

void SessionModel::setMode(product::TrackingMode mode) {
    if (mode == mMode) return;
    mMode = mode;
    if (mode == product::TrackingMode::OFF) resetPTZ();
    log('D', cat("Tracking changed to ", mode, " "));
    tellObserver("onTrackingMode", cat(mode), true);
}

void SessionModel::resetPTZ() {
    mPTZ.frameWidth = 1280;
    mPTZ.frameHeight = 720;
    mPTZ.crops = {product::Crop{0, 0, 1280, 720}};
    log('D', "PTZ Scene reset 0 0 1280 720");
}

void SessionModel::tellObserver(const std::string& call, const std::string& control,
                                bool isLocked) {
    if (mObserver == 0) return;
    say(words("observer", mObserver, call, control, "stored", control));
    mLockedCalls += isLocked ? 1 : 0;
    carryOutNested();
    mLockedCalls -= isLocked ? 1 : 0;
}

}  // namespace testing_support
