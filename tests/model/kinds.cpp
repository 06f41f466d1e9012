// What each kind of operation does.

#include <algorithm>
#include <utility>

#include "model/subject.h"
#include "model/words.h"
#include "records.h"

namespace testing_support {

const std::array<Subject::Kind, 20> Subject::kKinds = {{
    // The client's. Callback 0 is none, 3 is the last one once more. With the first two, in this
    // order, most sequences begin; with the three they all end.
    {"SetCallback", 4, [](Subject& s, const Args& args) { s.setCallback(args[0] % 4); }},
    {"Configure", 6,
     [](Subject& s, const Args& args) {
         s.say(words("configure", product::Status(s.client().configure(configurationOf(args)))));
     }},
    {"Submit", 30,
     [](Subject& s, const Args& args) {
         const auto request = recordOf<product::CaptureRequest>(args, s.mFiles);
         s.say(words("submit", product::Status(s.client().processCaptureRequest(request))));
     }},
    // The provider's, who keeps what it takes, three requests, and two buffers.
    {"Take", 10,
     [](Subject& s, const Args&) {
         product::CaptureRequest request = {};
         request.frameNumber = 77;  // which a refusal leaves as it is
         const int32_t answer = s.session().getProcessCaptureRequest(request);
         s.say(words("take", answer, inWords(s.mFiles, request)));
         if (answer == 0) s.mTaken.push_back(std::move(request));
         if (s.mTaken.size() > 3) s.mTaken.pop_front();
     }},
    {"GetBuffer", 5,
     [](Subject& s, const Args& args) {
         auto found = s.session().getBufferForId(bufferOf(args, s.mFiles).bufferId);
         if (found == nullptr) return s.say("no buffer");
         s.say(words(s.mFiles.nameOf(found->handle), found->width, found->height, found->stride,
                     found->format, found->getUsage(), found->initCheck()));
         s.mHeld.push_back(std::move(found));
         if (s.mHeld.size() > 2) s.mHeld.pop_front();
     }},
    {"SendResult", 6,
     [](Subject& s, const Args& args) {
         s.send(recordOf<product::CaptureResult>(args, s.mFiles));
     }},
    {"AnswerTaken", 10,
     [](Subject& s, const Args& args) {
         if (s.mTaken.empty()) return;
         product::CaptureResult result = kit::resultFor(std::move(s.mTaken.front()));
         s.mTaken.pop_front();
         result.outputBuffers[0].status = product::BufferStatus(args[0] % 2);
         s.send(result);
     }},
    {"FreeBuffer", 1, [](Subject& s, const Args& args) { s.freeBuffer(bufferOf(args, s.mFiles)); }},
    {"Notify", 4,
     [](Subject& s, const Args& args) {
         fdstream::FDNotifyMsg message = {};
         fill(message, args[0]);
         s.session().sendNotify(message);
     }},
    {"Paint", 4,
     [](Subject& s, const Args& args) {
         const host::Buffer& memory = s.mFiles.memories[args[0] % s.mFiles.memories.size()];
         for (size_t i = 0; i < memory.size(); ++i)
             memory.bytes()[i] = static_cast<uint8_t>(args[1] + i * 7 + i / 9);
     }},
    // The monitor's. A result without outputs makes a pass that does not wait, and is not seen.
    {"Pass", 24,
     [](Subject& s, const Args&) {
         if (s.mUndelivered == 0) s.send({});
         --s.mUndelivered;
         s.threadLoop();
     }},
    // Of the scene. Observer 0 is none.
    {"SetObserver", 4,
     [](Subject& s, const Args& args) {
         s.session().setSceneCallback(s.mObservers[args[0] % s.mObservers.size()].get());
     }},
    {"SetSceneOrPTZ", 6,
     [](Subject& s, const Args& args) {
         product::SceneControl control = {};
         control.crops.resize(args[0] % 4);
         fill(control, args[1] % 3U);  // few different ones, so that some are stored again
         if (args[2] % 2 == 0) return s.session().setSceneControl(control);
         s.session().setPTZControl(control);
     }},
    {"SetMode", 4,
     [](Subject& s, const Args& args) {
         s.session().setTrackingMode(product::TrackingMode(oneOf({0, 0, 1, 2, -1}, args[0])));
     }},
    {"SetTrack", 2,
     [](Subject& s, const Args& args) {
         product::TrackControl control = {};
         fill(control, args[0] % 3U);
         s.session().setTrackControl(control);
     }},
    {"Read", 8, [](Subject& s, const Args&) { s.read(); }},
    // The world's.
    {"StepClock", 8,
     [](Subject& s, const Args& args) {
         s.mNow += oneOf<int64_t>(
             {1, 999999, 1000000, 1000001, 400000, 2500000, -1, -600000, -3600000000}, args[0]);
         s.enterWorld();
     }},
    {"TurnLuck", 11,
     [](Subject& s, const Args& args) {
         s.mLuck[oneOf({CALLS, MAPPER, LOCK, UNLOCK, FLIP, FLIP, FLIP}, args[0])] =
             oneOf({0, 0, 0, 5, 7, -1}, args[1]);
         s.enterWorld();
     }},
    {"LimitDuplicates", 5, [](Subject& s, const Args& args) { s.mDuplicates = args[0] % 8; }},
    // The next call of the client or the observer carries an operation out.
    {"Nest", 5,
     [](Subject& s, const Args& args) {
         s.mNested = Operation{kindAt(args[0]), args};
         std::rotate(s.mNested->args.begin(), s.mNested->args.begin() + 1, s.mNested->args.end());
     }},
}};

void Subject::read() {
    product::StreamConfiguration configuration = {};
    configuration.streams.resize(2);
    const int32_t answer = session().getConfiguration(configuration);
    const auto got = [this](auto record, auto operation) {
        (session().*operation)(record);
        return inWords(mFiles, record);
    };
    say(words("reads", answer, inWords(mFiles, configuration),
              got(product::SceneControl(), &product::FDSession::getSceneControl),
              got(product::SceneControl(), &product::FDSession::getPTZControl),
              got(product::TrackControl(), &product::FDSession::getTrackControl),
              session().getTrackingMode(), session().getPeopleCount(),
              session().isCaptureRequestReady()));
}

void Subject::send(const product::CaptureResult& result) {
    ++mUndelivered;
    session().sendCaptureResult(result);
}

}  // namespace testing_support
