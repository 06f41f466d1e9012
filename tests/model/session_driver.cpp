#include "model/session_driver.h"

#include <poll.h>

#include <algorithm>
#include <utility>

#include "host/mapper.h"
#include "host/properties.h"
#include "host/threads.h"
#include "records.h"

namespace testing_support {

namespace {

using android::sp;
using android::hardware::hidl_vec;
using android::hardware::Return;
using android::hardware::camera::device::V3_2::BufferStatus;
using product::CaptureRequest;
using product::CaptureResult;
using product::StreamBuffer;

/** How many of the first numbers are open. One system call, for it is made after each step. */
int openDescriptors() {
    constexpr size_t kMost = 512;
    std::array<pollfd, kMost> entries;
    for (size_t i = 0; i < kMost; ++i)
        entries[i] = {static_cast<int>(i), 0, 0};
    poll(entries.data(), kMost, 0);
    return static_cast<int>(std::count_if(entries.begin(), entries.end(), [](const pollfd& entry) {
        return (entry.revents & POLLNVAL) == 0;
    }));
}

}  // namespace

/** A client's callback, which says what it is told and when it goes. */
class SessionDriver::Client : public fdstream::IFDSessionCallback {
public:
    Client(SessionDriver& driver, int number) : mDriver(driver), mNumber(number) {}
    ~Client() override { mDriver.say(words("callback", mNumber, "is gone")); }

    Return<void> processCaptureResult(const hidl_vec<CaptureResult>& results) override {
        mDriver.say(words("callback", mNumber, "gets", results.size(),
                          inWords(mDriver.mFiles.plainOf(results[0]))));
        return answer();
    }
    Return<void> notify(const hidl_vec<fdstream::FDNotifyMsg>& messages) override {
        mDriver.say(
            words("callback", mNumber, "is notified of", messages.size(), inWords(messages[0])));
        return answer();
    }

private:
    Return<void> answer() {
        mDriver.carryOutNested();
        if (!mDriver.mCallsFail) return {};
        return android::hardware::Status::fromStatusT(android::DEAD_OBJECT,
                                                      "the peer has closed the connection");
    }

    SessionDriver& mDriver;
    const int mNumber;
};

/** An observer, which says what it is told, and what is stored by then. */
class SessionDriver::Observer : public product::ISceneCallback {
public:
    Observer(SessionDriver& driver, int number) : mDriver(driver), mNumber(number) {}

    void onSceneControl(product::SceneControl control) override {
        product::SceneControl stored = {};
        mDriver.mSession->getSceneControl(stored);
        tell("onSceneControl", inWords(control), inWords(stored));
    }
    void onPTZControl(product::SceneControl control) override {
        product::SceneControl stored = {};
        mDriver.mSession->getPTZControl(stored);
        tell("onPTZControl", inWords(control), inWords(stored));
    }
    void onTrackControl(product::TrackControl control) override {
        product::TrackControl stored = {};
        mDriver.mSession->getTrackControl(stored);
        tell("onTrackControl", inWords(control), inWords(stored));
    }
    void onTrackingMode(product::TrackingMode mode) override {
        tell("onTrackingMode", cat(mode), cat(mDriver.mSession->getTrackingMode()));
    }

private:
    void tell(const char* operation, const std::string& given, const std::string& stored) {
        mDriver.say(words("observer", mNumber, words(operation, given, "stored", stored)));
        mDriver.carryOutNested();
    }

    SessionDriver& mDriver;
    const int mNumber;
};

SessionDriver::SessionDriver(const Files& files, SpyMapper3& mapper)
    : mFiles(files),
      mMapper(mapper),
      mCountersBefore(host::mapperCounters()),
      mDescriptorsBefore(openDescriptors()),
      mScope(*this) {
    mClock.stopAt(mNow);
    mMapper.onImport = [this](void* handle) { imported(handle); };
    mMapper.onFree = [this](void* handle) { freed(handle); };
    mMapper.error = decltype(mMapper.error)::NONE;
    mMapper.failTransport = false;
    host::setProperty("vendor.zoru.flipped", "false");
    for (size_t i = 0; i < mObservers.size(); ++i)
        mObservers[i] = std::make_unique<Observer>(*this, static_cast<int>(i) + 1);
}

SessionDriver::~SessionDriver() {
    mSession.clear();
    freeRest();
    host::failLock(0);
    host::failNextUnlock(0);
    host::clearProperty("vendor.zoru.flipped");
    mMapper.onImport = nullptr;
    mMapper.onFree = nullptr;
    mMapper.error = decltype(mMapper.error)::NONE;
    mMapper.failTransport = false;
}

void SessionDriver::write(const host::LogLine& line) {
    const bool isSessions = line.tag == "vendor.zoru.zoruprovider.fdstream@1.0-impl";
    say(cat("??VDIWEF"[line.priority], ' ', isSessions ? "" : line.tag + ": ", line.text));
}

Events SessionDriver::begin() {
    host::failNextThreadStart();
    mSession = new product::FDSessionImpl;
    mInterface = mSession->getInterface();
    summary();
    return std::exchange(mEvents, {});
}

Events SessionDriver::step(const Operation& operation) {
    carryOut(operation);
    if (operation.kind != Kind::LimitDuplicates) mDuplicates.lift();
    summary();
    return std::exchange(mEvents, {});
}

Events SessionDriver::end() {
    mTaken.clear();
    mHeld.clear();
    mNested.reset();
    mSession.clear();
    freeRest();
    const auto answer = [this](const char* operation, const Return<product::Status>& status) {
        say(answered(operation, static_cast<int>(static_cast<product::Status>(status))));
    };
    answer("setCallback", mInterface->setCallback(nullptr));
    answer("configure", mInterface->configure({}));
    answer("processCaptureRequest", mInterface->processCaptureRequest({}));
    summary();
    return std::exchange(mEvents, {});
}

void SessionDriver::freeRest() {
    for (void* const handle : mImports)
        host::realMapper3()->freeBuffer(handle).isOk();
    mImports.clear();
}

void SessionDriver::summary() {
    const host::MapperCounters now = host::mapperCounters();
    const host::MapperCounters& before = mCountersBefore;
    const MapperCalls calls = {now.imports - before.imports, now.frees - before.frees,
                               now.locks - before.locks,     now.unlocks - before.unlocks,
                               now.maps - before.maps,       now.refusals - before.refusals};
    uint64_t bytes = 0;
    for (size_t i = 0; i < kMemories; ++i)
        bytes = hashOf(mFiles.memory(i).bytes(), mFiles.memory(i).size(), bytes);
    say(summaryOf(mSession != nullptr && mSession->isCaptureRequestReady(),
                  openDescriptors() - mDescriptorsBefore, calls, now.mappings - before.mappings,
                  std::exchange(mMapped, {}), bytes));
}

void SessionDriver::imported(void* handle) {
    mMapped += cat('+', mFiles.nameOf(static_cast<const native_handle_t*>(handle)));
    if (handle == nullptr) return;
    if (mMapper.error == decltype(mMapper.error)::NONE) {
        mImports.insert(handle);
    } else {
        host::realMapper3()->freeBuffer(handle).isOk();
    }
}

void SessionDriver::freed(void* handle) {
    const bool isKnown = mImports.erase(handle) == 1;
    mMapped += cat('-', isKnown ? mFiles.nameOf(static_cast<const native_handle_t*>(handle)) : '?');
    if (isKnown && mMapper.failTransport) host::realMapper3()->freeBuffer(handle).isOk();
}

void SessionDriver::carryOut(const Operation& operation) {
    if (operation.kind <= Kind::Submit) return carryOutClients(operation);
    if (operation.kind < Kind::SetObserver) return carryOutProviders(operation);
    if (operation.kind < Kind::StepClock) return carryOutScenes(operation);
    carryOutWorlds(operation);
}

void SessionDriver::carryOutNested() {
    if (const std::optional<Operation> nested = std::exchange(mNested, std::nullopt)) {
        carryOut(*nested);
    }
}

void SessionDriver::carryOutClients(const Operation& operation) {
    const auto answer = [this](const char* name, const Return<product::Status>& status) {
        say(answered(name, static_cast<int>(static_cast<product::Status>(status))));
    };
    switch (operation.kind) {
        case Kind::SetCallback:
            setCallback(operation.args[0] % 4);
            break;
        case Kind::Configure:
            answer("configure", mInterface->configure(testing_support::configurationOf(operation)));
            break;
        default:
            answer("processCaptureRequest",
                   mInterface->processCaptureRequest(mFiles.recordOf(requestOf(operation))));
    }
}

void SessionDriver::setCallback(int choice) {
    sp<Client> client;
    if (choice == 3) client = mClient.promote();
    if (client == nullptr && choice != 0) client = new Client(*this, ++mCallbacksMade);
    mClient = client;
    const Return<product::Status> status = mInterface->setCallback(client);
    client.clear();
    say(answered("setCallback", static_cast<int>(static_cast<product::Status>(status))));
}

void SessionDriver::carryOutProviders(const Operation& operation) {
    switch (operation.kind) {
        case Kind::Take:
            take();
            break;
        case Kind::AskReady:
            say(answered("ready", mSession->isCaptureRequestReady() ? 1 : 0));
            break;
        case Kind::GetConfiguration: {
            product::StreamConfiguration configuration = {};
            configuration.streams.resize(2);
            const int32_t result = mSession->getConfiguration(configuration);
            say(answered("getConfiguration", result));
            if (result == 0 || configuration.streams.size() != 2) say(inWords(configuration));
            break;
        }
        case Kind::GetBuffer:
            lookUp(bufferIdOf(operation));
            break;
        case Kind::SendResult:
            ++mUndelivered;
            mSession->sendCaptureResult(mFiles.recordOf(resultOf(operation)));
            break;
        case Kind::AnswerTaken:
            answerTaken(operation.args[0] % 2U);
            break;
        case Kind::LetGoOfHeld:
            mTaken.clear();
            mHeld.clear();
            break;
        case Kind::FreeBuffer: {
            StreamBuffer buffer = {};
            buffer.streamId = streamIdOf(operation);
            buffer.bufferId = bufferIdOf(operation);
            mSession->freeBuffer(buffer);
            break;
        }
        case Kind::Notify: {
            fdstream::FDNotifyMsg message = messageOf(operation);
            mSession->sendNotify(message);
            break;
        }
        case Kind::Paint: {
            const host::Buffer& memory = mFiles.memory(paintedBy(operation));
            for (size_t i = 0; i < memory.size(); ++i)
                memory.bytes()[i] = paintOf(operation, i);
            break;
        }
        default:
            pass();
    }
}

void SessionDriver::take() {
    CaptureRequest request = {};
    request.frameNumber = 77;
    const int32_t result = mSession->getProcessCaptureRequest(request);
    say(answered("take", result));
    if (result != 0) {
        if (request.frameNumber != 77) say("the record of a refused take has changed");
        return;
    }
    say(inWords(mFiles.plainOf(request)));
    mTaken.push_back(std::move(request));
    if (mTaken.size() > kMostTaken) mTaken.pop_front();
}

void SessionDriver::lookUp(uint64_t bufferId) {
    const sp<android::GraphicBuffer> buffer = mSession->getBufferForId(bufferId);
    if (buffer == nullptr) return say("no buffer");
    say(inWords(PlainGraphicBuffer{mFiles.nameOf(buffer->handle), buffer->width, buffer->height,
                                   buffer->stride, buffer->format, buffer->getUsage(),
                                   buffer->initCheck()}));
    mHeld.push_back(buffer);
    if (mHeld.size() > kMostHeld) mHeld.pop_front();
}

void SessionDriver::answerTaken(uint32_t status) {
    if (mTaken.empty()) return;
    CaptureResult result = kit::resultFor(std::move(mTaken.front()));
    mTaken.pop_front();
    result.outputBuffers[0].status = static_cast<BufferStatus>(status);
    ++mUndelivered;
    mSession->sendCaptureResult(result);
}

void SessionDriver::pass() {
    // A result without outputs makes a pass that does not wait, and is not seen.
    if (mUndelivered == 0) {
        ++mUndelivered;
        mSession->sendCaptureResult(CaptureResult());
    }
    --mUndelivered;
    if (!mSession->threadLoop()) say("the monitor ends");
}

void SessionDriver::carryOutScenes(const Operation& operation) {
    product::SceneControl control = {};
    product::TrackControl track = {};
    switch (operation.kind) {
        case Kind::SetObserver: {
            const int choice = operation.args[0] % 3;
            mSession->setSceneCallback(
                choice == 0 ? nullptr : mObservers[static_cast<size_t>(choice) - 1].get());
            break;
        }
        case Kind::SetScene:
            mSession->setSceneControl(sceneOf(operation));
            break;
        case Kind::GetScene:
            mSession->getSceneControl(control);
            say(inWords(control));
            break;
        case Kind::SetPTZ:
            mSession->setPTZControl(sceneOf(operation));
            break;
        case Kind::GetPTZ:
            mSession->getPTZControl(control);
            say(inWords(control));
            break;
        case Kind::ResetPTZ:
            mSession->resetPTZScene();
            break;
        case Kind::SetMode:
            mSession->setTrackingMode(modeOf(operation));
            break;
        case Kind::GetMode:
            say(answered("getTrackingMode", static_cast<int>(mSession->getTrackingMode())));
            break;
        case Kind::GetPeople:
            say(answered("getPeopleCount", mSession->getPeopleCount()));
            break;
        case Kind::SetTrack:
            mSession->setTrackControl(trackOf(operation));
            break;
        default:
            mSession->getTrackControl(track);
            say(inWords(track));
    }
}

void SessionDriver::carryOutWorlds(const Operation& operation) {
    using Error = decltype(mMapper.error);
    switch (operation.kind) {
        case Kind::StepClock:
            mClock.stopAt(mNow += stepOf(operation));
            break;
        case Kind::Flip:
            host::setProperty("vendor.zoru.flipped", operation.args[0] % 3 != 0 ? "true" : "false");
            break;
        case Kind::FailCalls:
            mCallsFail = operation.args[0] % 2 != 0;
            break;
        case Kind::FailMapper:
            mMapper.error = mapperStateOf(operation) == MapperState::Refusing ? Error::NO_RESOURCES
                                                                              : Error::NONE;
            mMapper.failTransport = mapperStateOf(operation) == MapperState::Dead;
            break;
        case Kind::FailLock:
            host::failLock(1 + operation.args[0] % 7);
            break;
        case Kind::FailUnlock:
            host::failNextUnlock(1 + operation.args[0] % 7);
            break;
        case Kind::LimitDuplicates:
            mDuplicates.limitTo(operation.args[0] % 8);
            break;
        default:
            mNested = nestedIn(operation);
    }
}

}  // namespace testing_support
