#include "model/subject.h"

#include <algorithm>

#include "model/words.h"
#include "records.h"

namespace testing_support {

namespace {

using android::hardware::hidl_vec;
using android::hardware::Return;
using product::FDSession;
using product::TrackingMode;

constexpr size_t kMostTaken = 3;
constexpr size_t kMostHeld = 2;

uint64_t hashOf(const Memories& memories) {
    uint64_t hash = 0xcbf29ce484222325;
    for (const host::Buffer& memory : memories) {
        for (size_t i = 0; i < memory.size(); ++i)
            hash = (hash ^ memory.bytes()[i]) * 0x100000001b3;
    }
    return hash;
}

}  // namespace

/** A client's callback, which says what it is told and when it goes. */
class Subject::Client : public fdstream::IFDSessionCallback {
public:
    Client(Subject& subject, int number) : mSubject(subject), mNumber(number) {}
    ~Client() override { mSubject.say(words("callback", mNumber, "is gone")); }

    Return<void> processCaptureResult(const hidl_vec<product::CaptureResult>& results) override {
        return answer("gets", results.size(), inWords(mSubject.mFiles, results[0]));
    }
    Return<void> notify(const hidl_vec<fdstream::FDNotifyMsg>& messages) override {
        return answer("is notified of", messages.size(), inWords(messages[0]));
    }

private:
    Return<void> answer(const char* what, size_t count, const std::string& record) {
        mSubject.say(words("callback", mNumber, what, count, record));
        mSubject.carryOutNested();
        if (!mSubject.mCallsFail) return {};
        return android::hardware::Status::fromStatusT(android::DEAD_OBJECT,
                                                      "the peer has closed the connection");
    }

    Subject& mSubject;
    const int mNumber;
};

/** An observer, which says what it is told, and what is stored by then. */
class Subject::Observer : public product::ISceneCallback {
public:
    Observer(Subject& subject, int number) : mSubject(subject), mNumber(number) {}

    void onSceneControl(product::SceneControl control) override {
        tell("scene", inWords(control), inWords(mSubject.read(&FDSession::getSceneControl)));
    }
    void onPTZControl(product::SceneControl control) override {
        tell("PTZ", inWords(control), inWords(mSubject.read(&FDSession::getPTZControl)));
    }
    void onTrackControl(product::TrackControl control) override {
        tell("track", inWords(control), inWords(mSubject.read(&FDSession::getTrackControl)));
    }
    void onTrackingMode(TrackingMode mode) override {
        tell("mode", cat(mode), cat(mSubject.session().getTrackingMode()));
    }

private:
    void tell(const char* what, const std::string& given, const std::string& stored) {
        mSubject.say(words("observer", mNumber, what, given, "stored", stored));
        mSubject.carryOutNested();
    }

    Subject& mSubject;
    const int mNumber;
};

const std::array<Subject::Kind, 33> Subject::kKinds = {{
    // The client's. Callback 0 is none, 3 is the last one once more.
    {"SetCallback", 4, [](Subject& s, const Args& args) { s.setCallback(args[0] % 4); }},
    {"Configure", 6,
     [](Subject& s, const Args& args) {
         const product::Status status = s.client().configure(configurationOf(args));
         s.sayAnswer("configure", status);
     }},
    {"Submit", 30, [](Subject& s, const Args& args) { s.submit(requestOf(args, s.mHandles)); }},
    // The provider's, who keeps what it takes, kMostTaken requests, and kMostHeld buffers.
    {"Take", 10, [](Subject& s, const Args&) { s.take(); }},
    {"AskReady", 3,
     [](Subject& s, const Args&) { s.sayAnswer("ready", s.session().isCaptureRequestReady()); }},
    {"GetConfiguration", 2, [](Subject& s, const Args&) { s.getConfiguration(); }},
    {"GetBuffer", 5, [](Subject& s, const Args& args) { s.getBuffer(nameOf(args).bufferId); }},
    {"SendResult", 6, [](Subject& s, const Args& args) { s.send(resultOf(args, s.mHandles)); }},
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
         s.setClock(s.mNow += oneOf<int64_t>({1, 999999, 1000000, 1000001, 400000, 2500000, -1,
                                              -600000, -3600000000},
                                             args[0]));
     }},
    {"Flip", 3, [](Subject& s, const Args& args) { s.flip(args[0] % 3 != 0); }},
    {"FailCalls", 2, [](Subject& s, const Args& args) { s.mCallsFail = args[0] % 2 != 0; }},
    {"FailMapper", 2,
     [](Subject& s, const Args& args) {
         s.setMapper(oneOf({MapperState::Fine, MapperState::Fine, MapperState::Refusing,
                            MapperState::Dead},
                           args[0]));
     }},
    {"FailLock", 2, [](Subject& s, const Args& args) { s.failLock(1 + args[0] % 7); }},
    {"FailUnlock", 2, [](Subject& s, const Args& args) { s.failUnlock(1 + args[0] % 7); }},
    {"LimitDuplicates", 5, [](Subject& s, const Args& args) { s.limitDuplicates(args[0] % 8); }},
    // The next call of the client or the observer carries an operation out.
    {"Nest", 5, [](Subject& s, const Args& args) { s.nest(args); }},
}};

Subject::Subject(const Files& files, const Handles& handles, const Memories& memories)
    : mFiles(files), mMemories(memories), mHandles(handles) {
    for (size_t i = 0; i < mObservers.size(); ++i)
        mObservers[i] = std::make_unique<Observer>(*this, static_cast<int>(i) + 1);
}

Subject::~Subject() = default;

Events Subject::begin() {
    setClock(mNow);
    make();
    return seen(session().isCaptureRequestReady());
}

Events Subject::step(const Operation& operation) {
    static const uint8_t kLimiting = kindOf("LimitDuplicates");
    carryOut(operation);
    if (operation.kind != kLimiting) limitDuplicates(kNoLimit);
    return seen(session().isCaptureRequestReady());
}

Events Subject::end() {
    mNested.reset();
    letGoOfHeld();
    drop();
    setCallback(0);
    sayAnswer("configure", product::Status(client().configure({})));
    submit({});
    return seen(false);
}

Events Subject::seen(bool isReady) {
    const host::MapperCounters now = mapperCounters();
    say(words("ready", isReady, "descriptors", descriptors(), "imports", now.imports, "frees",
              now.frees, "locks", now.locks, "unlocks", now.unlocks, "refusals", now.refusals,
              "maps", now.maps, "mappings", now.mappings, "mapper", mMapped, "bytes",
              hashOf(mMemories)));
    mMapped.clear();
    return std::exchange(mEvents, {});
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

void Subject::carryOutNested() {
    if (const std::optional<Operation> nested = std::exchange(mNested, std::nullopt)) {
        carryOut(*nested);
    }
}

void Subject::setCallback(int choice) {
    android::sp<Client> callback;
    if (choice == 3) callback = mClient.promote();
    if (callback == nullptr && choice != 0) callback = new Client(*this, ++mCallbacksMade);
    mClient = callback;
    sayAnswer("setCallback", product::Status(client().setCallback(callback)));
}

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
    const std::shared_ptr<PlainGraphicBuffer> found = lookUp(bufferId);
    say(found != nullptr ? inWords(*found) : "no buffer");
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
    const host::Buffer& memory = mMemories[args[0] % mMemories.size()];
    for (size_t i = 0; i < memory.size(); ++i)
        memory.bytes()[i] = static_cast<uint8_t>(args[1] + i * 7 + i / 9);
}

void Subject::pass() {
    // A result without outputs makes a pass that does not wait, and is not seen.
    if (mUndelivered == 0) send({});
    --mUndelivered;
    threadLoop();
}

}  // namespace testing_support
