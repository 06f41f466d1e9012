#include "model/session_driver.h"

#include <poll.h>

#include <algorithm>
#include <utility>

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

constexpr const char* kFlipped = "vendor.zoru.flipped";

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

int statusOf(const Return<product::Status>& answer) {
    return static_cast<int>(static_cast<product::Status>(answer));
}

}  // namespace

/** A client's callback, which says what it is told and when it goes. */
class SessionDriver::Client : public fdstream::IFDSessionCallback {
public:
    Client(SessionDriver& driver, int number) : mDriver(driver), mNumber(number) {}
    ~Client() override { mDriver.sayGone(mNumber); }

    Return<void> processCaptureResult(const hidl_vec<CaptureResult>& results) override {
        return answer("gets", results.size(), inWords(mDriver.mFiles.plainOf(results[0])));
    }
    Return<void> notify(const hidl_vec<fdstream::FDNotifyMsg>& messages) override {
        return answer("is notified of", messages.size(), inWords(messages[0]));
    }

private:
    Return<void> answer(const char* what, size_t count, const std::string& record) {
        mDriver.sayCall(mNumber, what, count, record);
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
        tell("onSceneControl", inWords(control), inWords(mDriver.scene()));
    }
    void onPTZControl(product::SceneControl control) override {
        tell("onPTZControl", inWords(control), inWords(mDriver.ptz()));
    }
    void onTrackControl(product::TrackControl control) override {
        tell("onTrackControl", inWords(control), inWords(mDriver.track()));
    }
    void onTrackingMode(product::TrackingMode mode) override {
        tell("onTrackingMode", cat(mode), cat(mDriver.mode()));
    }

private:
    void tell(const char* operation, const std::string& given, const std::string& stored) {
        mDriver.say(words("observer", mNumber, operation, given, "stored", stored));
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
    mMapper.onImport = [this](void* handle) { imported(handle); };
    mMapper.onFree = [this](void* handle) { freed(handle); };
    for (size_t i = 0; i < mObservers.size(); ++i)
        mObservers[i] = std::make_unique<Observer>(*this, static_cast<int>(i) + 1);
}

SessionDriver::~SessionDriver() {
    mSession.clear();
    freeRest();
    failLock(0);
    failUnlock(0);
    host::clearProperty(kFlipped);
    setMapper(MapperState::Fine);
    mMapper.onImport = nullptr;
    mMapper.onFree = nullptr;
}

void SessionDriver::write(const host::LogLine& line) {
    const bool isSessions = line.tag == "vendor.zoru.zoruprovider.fdstream@1.0-impl";
    say(cat("??VDIWEF"[line.priority], ' ', isSessions ? "" : line.tag + ": ", line.text));
}

void SessionDriver::make() {
    host::failNextThreadStart();
    mSession = new product::FDSessionImpl;
    mInterface = mSession->getInterface();
}

void SessionDriver::drop() {
    mSession.clear();
    freeRest();
}

void SessionDriver::freeRest() {
    for (void* const handle : mImports)
        host::realMapper3()->freeBuffer(handle).isOk();
    mImports.clear();
}

Subject::Counts SessionDriver::counts() {
    const host::MapperCounters now = host::mapperCounters();
    const host::MapperCounters& before = mCountersBefore;
    uint64_t bytes = 0;
    for (size_t i = 0; i < kMemories; ++i)
        bytes = hashOf(mFiles.memory(i).bytes(), mFiles.memory(i).size(), bytes);
    return {mSession != nullptr && isReady(),
            openDescriptors() - mDescriptorsBefore,
            {now.imports - before.imports, now.frees - before.frees, now.locks - before.locks,
             now.unlocks - before.unlocks, now.maps - before.maps, now.refusals - before.refusals,
             now.mappings - before.mappings},
            std::exchange(mMapped, {}),
            bytes};
}

void SessionDriver::imported(void* handle) {
    mMapped += cat('+', mFiles.nameOf(static_cast<const native_handle_t*>(handle)));
    if (handle != nullptr) mImports.insert(handle);
}

void SessionDriver::freed(void* handle) {
    const bool isKnown = mImports.erase(handle) == 1;
    mMapped += cat('-', isKnown ? mFiles.nameOf(static_cast<const native_handle_t*>(handle)) : '?');
}

int SessionDriver::setCallback(int choice) {
    sp<Client> client;
    if (choice == 3) client = mClient.promote();
    if (client == nullptr && choice != 0) client = new Client(*this, ++mCallbacksMade);
    mClient = client;
    return statusOf(mInterface->setCallback(client));
}

int SessionDriver::configure(const product::StreamConfiguration& configuration) {
    return statusOf(mInterface->configure(configuration));
}

int SessionDriver::submit(const PlainRequest& request) {
    return statusOf(mInterface->processCaptureRequest(mFiles.recordOf(request)));
}

std::optional<PlainRequest> SessionDriver::take() {
    CaptureRequest request = {};
    request.frameNumber = 77;
    if (mSession->getProcessCaptureRequest(request) != 0) {
        if (request.frameNumber != 77) say("the record of a refused take has changed");
        return std::nullopt;
    }
    const PlainRequest taken = mFiles.plainOf(request);
    mTaken.push_back(std::move(request));
    if (mTaken.size() > kMostTaken) mTaken.pop_front();
    return taken;
}

std::optional<product::StreamConfiguration> SessionDriver::configuration() {
    product::StreamConfiguration found = {};
    found.streams.resize(2);
    if (mSession->getConfiguration(found) == 0) return found;
    if (found.streams.size() != 2) say("the record of a refused configuration has changed");
    return std::nullopt;
}

std::optional<PlainGraphicBuffer> SessionDriver::lookUp(uint64_t bufferId) {
    const sp<android::GraphicBuffer> buffer = mSession->getBufferForId(bufferId);
    if (buffer == nullptr) return std::nullopt;
    mHeld.push_back(buffer);
    if (mHeld.size() > kMostHeld) mHeld.pop_front();
    return PlainGraphicBuffer{mFiles.nameOf(buffer->handle),
                              buffer->width,
                              buffer->height,
                              buffer->stride,
                              buffer->format,
                              buffer->getUsage(),
                              buffer->initCheck()};
}

void SessionDriver::sendRecord(const CaptureResult& result) {
    ++mUndelivered;
    mSession->sendCaptureResult(result);
}

void SessionDriver::answerTaken(uint32_t status) {
    if (mTaken.empty()) return;
    CaptureResult result = kit::resultFor(std::move(mTaken.front()));
    mTaken.pop_front();
    result.outputBuffers[0].status = static_cast<BufferStatus>(status);
    sendRecord(result);
}

void SessionDriver::letGoOfHeld() {
    mTaken.clear();
    mHeld.clear();
}

void SessionDriver::freeBuffer(int32_t streamId, uint64_t bufferId) {
    StreamBuffer buffer = {};
    buffer.streamId = streamId;
    buffer.bufferId = bufferId;
    mSession->freeBuffer(buffer);
}

void SessionDriver::paint(size_t memory, const Operation& by) {
    const host::Buffer& buffer = mFiles.memory(memory);
    for (size_t i = 0; i < buffer.size(); ++i)
        buffer.bytes()[i] = paintOf(by, i);
}

void SessionDriver::pass() {
    // A result without outputs makes a pass that does not wait, and is not seen.
    if (mUndelivered == 0) sendRecord({});
    --mUndelivered;
    if (!mSession->threadLoop()) say("the monitor ends");
}

void SessionDriver::setObserver(int number) {
    mSession->setSceneCallback(number == 0 ? nullptr
                                           : mObservers[static_cast<size_t>(number) - 1].get());
}

void SessionDriver::setScene(const product::SceneControl& control) {
    mSession->setSceneControl(control);
}

product::SceneControl SessionDriver::scene() {
    product::SceneControl control = {};
    mSession->getSceneControl(control);
    return control;
}

void SessionDriver::setPTZ(const product::SceneControl& control) {
    mSession->setPTZControl(control);
}

product::SceneControl SessionDriver::ptz() {
    product::SceneControl control = {};
    mSession->getPTZControl(control);
    return control;
}

void SessionDriver::setTrack(const product::TrackControl& control) {
    mSession->setTrackControl(control);
}

product::TrackControl SessionDriver::track() {
    product::TrackControl control = {};
    mSession->getTrackControl(control);
    return control;
}

void SessionDriver::flip(bool isFlipped) {
    host::setProperty(kFlipped, isFlipped ? "true" : "false");
}

void SessionDriver::setMapper(MapperState state) {
    constexpr int kNoResources = 5;
    const int fault = state == MapperState::Dead ? -1 : kNoResources;
    mMapper.fault = nullptr;
    if (state != MapperState::Fine) mMapper.fault = [fault] { return fault; };
}

void SessionDriver::failLock(int error) {
    host::failLock(error);
}

void SessionDriver::failUnlock(int error) {
    host::failNextUnlock(error);
}

void SessionDriver::limitDuplicates(std::optional<int> count) {
    if (count) {
        mDuplicates.limitTo(*count);
    } else {
        mDuplicates.lift();
    }
}

}  // namespace testing_support
