#include "model/session_model.h"

#include <algorithm>
#include <utility>

namespace testing_support {

namespace {

constexpr int kRefused = -1;
constexpr int kIllegalArgument = 1;
constexpr int kInternalError = 7;
constexpr uint32_t kFailed = 1;  // a buffer's status
constexpr int64_t kStaleUs = 1000000;
constexpr const char* kGone = "Status(EX_TRANSACTION_FAILED): 'DEAD_OBJECT: gone'";

int answerOf(int result) {
    return result == 0 ? 0 : kIllegalArgument;
}

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

std::string answered(const char* operation, int64_t value) {
    return words(operation, "answers", value);
}

std::string summaryOf(bool isReady, int descriptors, const MapperCalls& calls, int64_t mappings,
                      const std::string& mapped, uint64_t bytes) {
    return words("ready", int{isReady}, "descriptors", descriptors, "imports", calls.imports,
                 "frees", calls.frees, "locks", calls.locks, "unlocks", calls.unlocks, "refusals",
                 calls.refusals, "maps", calls.maps, "mappings", mappings, "mapper", mapped,
                 "bytes", bytes);
}

Events SessionModel::begin() {
    mNow = kStartUs;
    resetPTZ();
    summary();
    return std::exchange(mEvents, {});
}

Events SessionModel::step(const Operation& operation) {
    carryOut(operation);
    if (operation.kind != Kind::LimitDuplicates) mPlatform.duplicatesLeft.reset();
    summary();
    return std::exchange(mEvents, {});
}

Events SessionModel::end() {
    mTaken.clear();
    mHeld.clear();
    mResults.clear();
    mRequests.clear();
    mNested.reset();
    const int last = std::exchange(mCallback, 0);
    endCall(last);
    mGraphicBuffers.clear();
    // What is registered is not given back; whoever plays the session's part here does that.
    for (const auto& [stream, buffers] : mRegistry) {
        for (const auto& [id, file] : buffers) {
            if (file != kNoHandle) mPlatform.free(file);
        }
    }
    for (const char* const operation : {"setCallback", "configure", "processCaptureRequest"}) {
        say('E', cat(operation, ": FDSessionImpl is gone"));
        mEvents.push_back(answered(operation, kInternalError));
    }
    summary();
    return std::exchange(mEvents, {});
}

void SessionModel::summary() {
    mEvents.push_back(summaryOf(!mRequests.empty(), descriptors(), mPlatform.calls,
                                mPlatform.mappings(), std::exchange(mMapped, {}),
                                mPlatform.bytesHash()));
}

int SessionModel::descriptors() const {
    int sum = mPlatform.descriptors();
    for (const Waiting& waiting : mRequests)
        sum += handlesOf(waiting.request.outputs, waiting.request.input);
    for (const PlainResult& result : mResults)
        sum += handlesOf(result.outputs, result.input);
    for (const PlainRequest& request : mTaken)
        sum += handlesOf(request.outputs, request.input);
    return sum;
}

void SessionModel::carryOut(const Operation& operation) {
    if (operation.kind <= Kind::Submit) return carryOutClients(operation);
    if (operation.kind < Kind::SetObserver) return carryOutProviders(operation);
    if (operation.kind < Kind::StepClock) return carryOutScenes(operation);
    carryOutWorlds(operation);
}

void SessionModel::carryOutNested() {
    if (const std::optional<Operation> nested = std::exchange(mNested, std::nullopt)) {
        carryOut(*nested);
    }
}

void SessionModel::carryOutClients(const Operation& operation) {
    switch (operation.kind) {
        case Kind::SetCallback:
            setCallback(operation.args[0] % 4);
            mEvents.push_back(answered("setCallback", 0));
            break;
        case Kind::Configure:
            mEvents.push_back(answered(
                "configure", answerOf(configure(testing_support::configurationOf(operation)))));
            break;
        default:
            mEvents.push_back(
                answered("processCaptureRequest", answerOf(submit(requestOf(operation)))));
    }
}

void SessionModel::carryOutProviders(const Operation& operation) {
    switch (operation.kind) {
        case Kind::Take:
            mEvents.push_back(answered("take", mRequests.empty() ? kRefused : 0));
            if (mRequests.empty()) break;
            mTaken.push_back(std::move(mRequests.front().request));
            mRequests.pop_front();
            mEvents.push_back(inWords(mTaken.back()));
            if (mTaken.size() > kMostTaken) mTaken.pop_front();
            break;
        case Kind::AskReady:
            mEvents.push_back(answered("ready", mRequests.empty() ? 0 : 1));
            break;
        case Kind::GetConfiguration:
            mEvents.push_back(answered("getConfiguration", mConfiguration ? 0 : kRefused));
            if (mConfiguration) mEvents.push_back(inWords(*mConfiguration));
            break;
        case Kind::GetBuffer: {
            const auto found = mGraphicBuffers.find(bufferIdOf(operation));
            if (found == mGraphicBuffers.end()) {
                mEvents.emplace_back("no buffer");
                break;
            }
            mEvents.push_back(inWords(*found->second));
            mHeld.push_back(found->second);
            if (mHeld.size() > kMostHeld) mHeld.pop_front();
            break;
        }
        case Kind::SendResult:
            send(resultOf(operation));
            break;
        case Kind::AnswerTaken: {
            if (mTaken.empty()) break;
            PlainResult result = {};
            result.frame = mTaken.front().frame;
            result.outputs = std::move(mTaken.front().outputs);
            result.outputs[0].status = operation.args[0] % 2U;
            result.input.stream = -1;
            mTaken.pop_front();
            send(std::move(result));
            break;
        }
        case Kind::LetGoOfHeld:
            mTaken.clear();
            mHeld.clear();
            break;
        case Kind::FreeBuffer:
            freeBuffer({streamIdOf(operation), bufferIdOf(operation)});
            break;
        case Kind::Notify:
            notify(messageOf(operation));
            break;
        case Kind::Paint:
            mPlatform.paint(operation);
            break;
        default:
            pass();
    }
}

void SessionModel::carryOutScenes(const Operation& operation) {
    switch (operation.kind) {
        case Kind::SetObserver:
            mObserver = operation.args[0] % 3;
            break;
        case Kind::SetScene:
            mScene = sceneOf(operation);
            tellObserver(words("onSceneControl", inWords(mScene), "stored", inWords(mScene)), true);
            break;
        case Kind::GetScene:
            mEvents.push_back(inWords(mScene));
            break;
        case Kind::SetPTZ:
            mPTZ = sceneOf(operation);
            tellObserver(words("onPTZControl", inWords(mPTZ), "stored", inWords(mPTZ)), true);
            break;
        case Kind::GetPTZ:
            mEvents.push_back(inWords(mPTZ));
            break;
        case Kind::ResetPTZ:
            resetPTZ();
            break;
        case Kind::SetMode:
            setMode(modeOf(operation));
            break;
        case Kind::GetMode:
            mEvents.push_back(answered("getTrackingMode", static_cast<int>(mMode)));
            break;
        case Kind::GetPeople:
            mEvents.push_back(answered("getPeopleCount", mScene.peopleCount));
            break;
        case Kind::SetTrack:
            mTrack = trackOf(operation);
            tellObserver(words("onTrackControl", inWords(mTrack), "stored", inWords(mTrack)),
                         false);
            break;
        default:
            mEvents.push_back(inWords(mTrack));
    }
}

void SessionModel::carryOutWorlds(const Operation& operation) {
    switch (operation.kind) {
        case Kind::StepClock:
            mNow += stepOf(operation);
            break;
        case Kind::Flip:
            mFlipped = operation.args[0] % 3 != 0;
            break;
        case Kind::FailCalls:
            mCallsFail = operation.args[0] % 2 != 0;
            break;
        case Kind::FailMapper:
            mMapper = mapperStateOf(operation);
            break;
        case Kind::FailLock:
            mPlatform.nextLockError = 1 + operation.args[0] % 7;
            break;
        case Kind::FailUnlock:
            mPlatform.nextUnlockError = 1 + operation.args[0] % 7;
            break;
        case Kind::LimitDuplicates:
            mPlatform.duplicatesLeft = operation.args[0] % 8;
            break;
        default:
            mNested = nestedIn(operation);
    }
}

void SessionModel::sayBuffer(char priority, const char* operation, const char* event,
                             const PlainBuffer& buffer) {
    say(priority, cat(operation, ": ", event, " streamId(", buffer.stream, "), bufferId(",
                      buffer.id, ") \n"));
}

void SessionModel::sayFailure(const char* operation, const char* call) {
    if (!mCallsFail) return;
    say('E', cat(operation, ": ", call,
                 " transaction failed: Status(EX_TRANSACTION_FAILED): 'DEAD_OBJECT: the peer has "
                 "closed the connection'"));
}

void SessionModel::setCallback(int choice) {
    say('I', "handleSetCallback: \n");
    const bool isSame = choice == 3 && mCallback != 0;
    const int previous = mCallback;
    if (!isSame) mCallback = choice == 0 ? 0 : ++mCallbacksMade;
    if (!isSame) endCall(previous);
}

int SessionModel::configure(const product::StreamConfiguration& configuration) {
    say('I', "handleConfigure: \n");
    const size_t count = configuration.streams.size();
    const std::string counted = cat("handleConfigure: streamsCount(", count, ")  \n");
    say('I', counted);
    if (count != 1) {
        say('E', counted);
        return kRefused;
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
    PlainRequest copy = request;
    mPlatform.duplicateHandles(copy.input);
    for (PlainBuffer& output : copy.outputs) {
        output.acquire = mPlatform.duplicate(output.acquire);
        output.release = mPlatform.duplicate(output.release);
    }
    if (!fits(request)) return kRefused;

    const PlainBuffer& buffer = request.outputs[0];
    const bool isNew = !knows(buffer);
    const std::optional<File> imported = lookUpOrImport(buffer);
    if (!imported) return kRefused;
    copy.outputs[0].handle = mPlatform.duplicate(*imported);
    if (!isWhole(copy.outputs[0].handle, *imported) || !hasFences(copy.outputs[0], buffer) ||
        !isWhole(copy.input.handle, request.input.handle) ||
        !hasFences(copy.input, request.input)) {
        sayBuffer('E', "handleCaptureRequest", "duplicating handles failed,", buffer);
        if (isNew) {
            freeBuffer(buffer);
            mGraphicBuffers.erase(buffer.id);
        }
        return kRefused;
    }
    mRequests.push_back({std::move(copy), mNow});
    return 0;
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
    if (!reason.empty()) say('E', "handleCaptureRequest: " + reason);
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
        sayBuffer('E', "handleCaptureRequest", "buffer", buffer);
        return std::nullopt;
    }
    if (buffer.handle != kEmpty && !import(buffer.handle)) {
        sayBuffer('E', "handleCaptureRequest", "import buffer failed,", buffer);
        return std::nullopt;
    }
    const File imported = buffer.handle == kEmpty ? kNoHandle : buffer.handle;
    buffers[buffer.id] = imported;
    const auto& stream = mConfiguration->streams[0];
    const auto width = static_cast<int>(stream.width);
    const auto height = static_cast<int>(stream.height);
    mGraphicBuffers[buffer.id] =
        mPlatform.wrap(imported, {kNoHandle, width, height, width, 35, stream.usage, 0});
    sayBuffer('I', "handleCaptureRequest", "import buffer success,", buffer);
    return imported;
}

bool SessionModel::import(File file) {
    if (mMapper == MapperState::Dead) {
        say('E', cat("HandleImporter: importBufferInternal: mapper importBuffer failed: ", kGone));
        return false;
    }
    const bool isImported = mPlatform.import(file) == 0;
    mMapped += cat('+', isImported ? file : kNoHandle);
    // A mapper that refuses has made an import all the same, and takes it back itself.
    if (isImported && mMapper == MapperState::Refusing) mPlatform.free(file);
    return isImported && mMapper == MapperState::Fine;
}

void SessionModel::release(File imported) {
    if (imported == kNoHandle) return;
    mMapped += cat('-', imported);
    mPlatform.free(imported);
    if (mMapper == MapperState::Dead) {
        say('E', cat("HandleImporter: freeBuffer: mapper freeBuffer failed: ", kGone));
    }
}

void SessionModel::freeBuffer(const PlainBuffer& buffer) {
    const std::string start = "freeBuffer: CirculatingBuffers does not have ";
    const auto stream = mRegistry.find(buffer.stream);
    if (stream == mRegistry.end()) {
        return say('E', cat(start, "streamId(", buffer.stream, ") entry \n"));
    }
    const auto found = stream->second.find(buffer.id);
    if (found == stream->second.end()) {
        return say('E', cat(start, "bufferId(", buffer.id, ") entry \n"));
    }
    release(found->second);
    stream->second.erase(found);
}

void SessionModel::send(PlainResult result) {
    PlainResult copy = result;
    for (PlainBuffer& output : copy.outputs)
        mPlatform.duplicateHandles(output);
    mPlatform.duplicateHandles(copy.input);
    const auto check = [&](PlainBuffer& duplicate, const PlainBuffer& original) {
        if (isWhole(duplicate.handle, original.handle) && hasFences(duplicate, original)) return;
        sayBuffer('E', "sendCaptureResult", "duplicating handles failed,", duplicate);
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
        return say('E', cat("rotate180: lockYCbCr failed, error (", error, ") \n"));
    }
    const int step = mPlatform.chromaStep(buffer.file);
    if (step == 2) {
        mPlatform.turn(buffer);
    } else {
        say('E', cat("rotate180: unhandled chroma format step ", step, " \n"));
    }
    if (const int error = mPlatform.unlock()) {
        say('E', cat("rotate180: unlock failed, error (", error, ") \n"));
    }
}

void SessionModel::deliver(const PlainResult& result) {
    const int callback = mCallback;
    if (callback == 0) return;
    mEvents.push_back(words("callback", callback, "gets", 1, inWords(result)));
    mCallsUnderWay.push_back(callback);
    carryOutNested();
    sayFailure("threadLoop", "processCaptureResult");
    mCallsUnderWay.pop_back();
    endCall(callback);
}

void SessionModel::notify(const fdstream::FDNotifyMsg& message) {
    const int callback = mCallback;
    if (callback == 0) return say('E', "sendNotify: notify failed: invalid session \n");
    if (mLockedCalls > 0) {
        say('E',
            "sendNotify: called inside an observer's operation that has the session locked \n");
    }
    mEvents.push_back(words("callback", callback, "is notified of", 1, inWords(message)));
    mCallsUnderWay.push_back(callback);
    carryOutNested();
    sayFailure("sendNotify", "notify");
    mCallsUnderWay.pop_back();
    endCall(callback);
}

void SessionModel::endCall(int callback) {
    const bool isCalled = std::count(mCallsUnderWay.begin(), mCallsUnderWay.end(), callback) > 0;
    if (callback == 0 || callback == mCallback || isCalled) return;
    mEvents.push_back(words("callback", callback, "is gone"));
}

void SessionModel::tellObserver(const std::string& call, bool isLocked) {
    if (mObserver == 0) return;
    mEvents.push_back(words("observer", mObserver, call));
    mLockedCalls += isLocked ? 1 : 0;
    carryOutNested();
    mLockedCalls -= isLocked ? 1 : 0;
}

void SessionModel::setMode(product::TrackingMode mode) {
    if (mode == mMode) return;
    mMode = mode;
    if (mode == product::TrackingMode::OFF) resetPTZ();
    say('D', cat("Tracking changed to ", mode, " "));
    tellObserver(words("onTrackingMode", mode, "stored", mode), true);
}

void SessionModel::resetPTZ() {
    mPTZ.frameWidth = 1280;
    mPTZ.frameHeight = 720;
    mPTZ.crops = {product::Crop{0, 0, 1280, 720}};
    say('D', "PTZ Scene reset 0 0 1280 720");
}

}  // namespace testing_support
