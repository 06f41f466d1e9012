// What each kind of operation does.

#include <algorithm>
#include <utility>

#include "model/subject.h"
#include "model/words.h"
#include "records.h"

namespace testing_support {

namespace {

using product::FDSession;
using product::TrackingMode;

constexpr size_t kMostTaken = 3;
constexpr size_t kMostHeld = 2;
constexpr int kNoResources = 5;

}  // namespace

const std::array<Subject::Kind, 33> Subject::kKinds = {{
    // The client's. Callback 0 is none, 3 is the last one once more.
    {"SetCallback", 4, [](Subject& s, const Args& args) { s.setCallback(args[0] % 4); }},
    {"Configure", 6,
     [](Subject& s, const Args& args) {
         const product::Status status = s.client().configure(configurationOf(args));
         s.sayAnswer("configure", status);
     }},
    {"Submit", 30, [](Subject& s, const Args& args) { s.submit(requestOf(args, s.mOwn)); }},
    // The provider's, who keeps what it takes, kMostTaken requests, and kMostHeld buffers.
    {"Take", 10, [](Subject& s, const Args&) { s.take(); }},
    {"AskReady", 3,
     [](Subject& s, const Args&) { s.sayAnswer("ready", s.session().isCaptureRequestReady()); }},
    {"GetConfiguration", 2, [](Subject& s, const Args&) { s.getConfiguration(); }},
    {"GetBuffer", 5, [](Subject& s, const Args& args) { s.getBuffer(nameOf(args).bufferId); }},
    {"SendResult", 6, [](Subject& s, const Args& args) { s.send(resultOf(args, s.mOwn)); }},
    {"AnswerTaken", 10,
     [](Subject& s, const Args& args) { s.answerTaken(product::BufferStatus(args[0] % 2)); }},
    {"LetGoOfHeld", 2, [](Subject& s, const Args&) { s.letGoOfHeld(); }},
    {"FreeBuffer", 1, [](Subject& s, const Args& args) { s.freeBuffer(nameOf(args)); }},
    {"Notify", 4,
     [](Subject& s, const Args& args) {
         fdstream::FDNotifyMsg message = messageOf(args);
         s.session().sendNotify(message);
     }},
    {"Paint", 4, [](Subject& s, const Args& args) { s.paint(args); }},
    // The monitor's.
    {"Pass", 24, [](Subject& s, const Args&) { s.pass(); }},
    // Of the scene. Observer 0 is none.
    {"SetObserver", 4,
     [](Subject& s, const Args& args) {
         const size_t number = args[0] % 3;
         s.session().setSceneCallback(number > 0 ? s.mObservers[number - 1].get() : nullptr);
     }},
    {"SetScene", 3,
     [](Subject& s, const Args& args) { s.session().setSceneControl(sceneOf(args)); }},
    {"GetScene", 2,
     [](Subject& s, const Args&) { s.say(inWords(s.read(&FDSession::getSceneControl))); }},
    {"SetPTZ", 3, [](Subject& s, const Args& args) { s.session().setPTZControl(sceneOf(args)); }},
    {"GetPTZ", 2,
     [](Subject& s, const Args&) { s.say(inWords(s.read(&FDSession::getPTZControl))); }},
    {"ResetPTZ", 1, [](Subject& s, const Args&) { s.resetPTZScene(); }},
    {"SetMode", 4,
     [](Subject& s, const Args& args) {
         s.session().setTrackingMode(static_cast<TrackingMode>(oneOf({0, 0, 1, 2, -1}, args[0])));
     }},
    {"GetMode", 1,
     [](Subject& s, const Args&) { s.sayAnswer("mode", s.session().getTrackingMode()); }},
    {"GetPeople", 1,
     [](Subject& s, const Args&) { s.sayAnswer("people", s.session().getPeopleCount()); }},
    {"SetTrack", 2,
     [](Subject& s, const Args& args) { s.session().setTrackControl(trackOf(args)); }},
    {"GetTrack", 2,
     [](Subject& s, const Args&) { s.say(inWords(s.read(&FDSession::getTrackControl))); }},
    // The world's.
    {"StepClock", 8,
     [](Subject& s, const Args& args) {
         s.mNow += oneOf<int64_t>(
             {1, 999999, 1000000, 1000001, 400000, 2500000, -1, -600000, -3600000000}, args[0]);
         s.enterWorld();
     }},
    {"Flip", 3,
     [](Subject& s, const Args& args) {
         s.mIsFlipped = args[0] % 3 != 0;
         s.enterWorld();
     }},
    {"FailCalls", 2, [](Subject& s, const Args& args) { s.mCallsFail = args[0] % 2 != 0; }},
    {"FailMapper", 2,
     [](Subject& s, const Args& args) {
         s.mMapperFault = oneOf({0, 0, kNoResources, -1}, args[0]);
     }},
    {"FailLock", 2, [](Subject& s, const Args& args) { s.mLockError = args[0] % 8 * (args[1] % 2); }},
    {"FailUnlock", 2,
     [](Subject& s, const Args& args) { s.mUnlockError = args[0] % 8 * (args[1] % 2); }},
    {"LimitDuplicates", 5, [](Subject& s, const Args& args) { s.mDuplicates = args[0] % 8; }},
    // The next call of the client or the observer carries an operation out.
    {"Nest", 5, [](Subject& s, const Args& args) { s.nest(args); }},
}};

void Subject::submit(const product::CaptureRequest& request) {
    const product::Status status = client().processCaptureRequest(request);
    sayAnswer("processCaptureRequest", status);
}

void Subject::take() {
    product::CaptureRequest request = {};
    request.frameNumber = 77;  // which a refusal leaves as it is
    const int32_t answer = session().getProcessCaptureRequest(request);
    say(words("take", answer, inWords(mFiles, request)));
    if (answer != 0) return;
    mTaken.push_back(std::move(request));
    if (mTaken.size() > kMostTaken) mTaken.pop_front();
}

void Subject::getConfiguration() {
    product::StreamConfiguration found = {};
    found.streams.resize(2);
    const int32_t answer = session().getConfiguration(found);
    say(words("getConfiguration", answer, inWords(found)));
}

void Subject::getBuffer(uint64_t bufferId) {
    const android::sp<android::GraphicBuffer> found = session().getBufferForId(bufferId);
    say(found != nullptr ? inWords(mFiles, *found) : "no buffer");
    if (found == nullptr) return;
    mHeld.push_back(found);
    if (mHeld.size() > kMostHeld) mHeld.pop_front();
}

void Subject::send(const product::CaptureResult& result) {
    ++mUndelivered;
    session().sendCaptureResult(result);
}

void Subject::answerTaken(product::BufferStatus status) {
    if (mTaken.empty()) return;
    product::CaptureResult result = kit::resultFor(std::move(mTaken.front()));
    mTaken.pop_front();
    result.outputBuffers[0].status = status;
    send(result);
}

void Subject::letGoOfHeld() {
    mTaken.clear();
    mHeld.clear();
}

void Subject::paint(const Args& args) {
    const host::Buffer& memory = mOwn.memories[args[0] % mOwn.memories.size()];
    for (size_t i = 0; i < memory.size(); ++i)
        memory.bytes()[i] = static_cast<uint8_t>(args[1] + i * 7 + i / 9);
}

void Subject::pass() {
    // A result without outputs makes a pass that does not wait, and is not seen.
    if (mUndelivered == 0) send({});
    --mUndelivered;
    threadLoop();
}

void Subject::nest(const Args& args) {
    // What goes for a whole step, and what would never end.
    static const uint8_t kNotInside[] = {kindOf("FailMapper"), kindOf("LimitDuplicates"),
                                         kindOf("Nest")};
    Operation nested = {static_cast<uint8_t>(args[0] % kKinds.size()), args};
    std::rotate(nested.args.begin(), nested.args.begin() + 1, nested.args.end());
    const bool isInside =
        std::count(std::begin(kNotInside), std::end(kNotInside), nested.kind) == 0;
    if (!isInside) nested.kind = kindOf("AskReady");
    mNested = nested;
}

}  // namespace testing_support
