#include "model/subject.h"

#include <utility>

namespace testing_support {

uint64_t hashOf(const uint8_t* bytes, size_t size, uint64_t seed) {
    uint64_t hash = seed ^ 0xcbf29ce484222325;
    for (size_t i = 0; i < size; ++i)
        hash = (hash ^ bytes[i]) * 0x100000001b3;
    return hash;
}

uint8_t paintOf(const Operation& operation, size_t offset) {
    return static_cast<uint8_t>(operation.args[1] + offset * 7 + offset / 9);
}

Events Subject::begin() {
    setClock(mNow);
    make();
    return seen();
}

Events Subject::step(const Operation& operation) {
    carryOut(operation);
    if (operation.kind != Kind::LimitDuplicates) limitDuplicates(std::nullopt);
    return seen();
}

Events Subject::end() {
    mNested.reset();
    letGoOfHeld();
    drop();
    sayAnswer("setCallback", setCallback(0));
    sayAnswer("configure", configure({}));
    sayAnswer("processCaptureRequest", submit({}));
    return seen();
}

Events Subject::seen() {
    const Counts now = counts();
    say(words("ready", int{now.isReady}, "descriptors", now.descriptors, "imports",
              now.calls.imports, "frees", now.calls.frees, "locks", now.calls.locks, "unlocks",
              now.calls.unlocks, "refusals", now.calls.refusals, "maps", now.calls.maps, "mappings",
              now.calls.mappings, "mapper", now.mapped, "bytes", now.bytes));
    return std::exchange(mEvents, {});
}

void Subject::carryOutNested() {
    if (const std::optional<Operation> nested = std::exchange(mNested, std::nullopt)) {
        carryOut(*nested);
    }
}

void Subject::carryOut(const Operation& operation) {
    if (operation.kind <= Kind::Submit) return carryOutClients(operation);
    if (operation.kind < Kind::SetObserver) return carryOutProviders(operation);
    if (operation.kind < Kind::StepClock) return carryOutScenes(operation);
    carryOutWorlds(operation);
}

void Subject::carryOutClients(const Operation& operation) {
    switch (operation.kind) {
        case Kind::SetCallback:
            return sayAnswer("setCallback", setCallback(operation.args[0] % 4));
        case Kind::Configure:
            return sayAnswer("configure", configure(configurationOf(operation)));
        default:
            return sayAnswer("processCaptureRequest", submit(requestOf(operation)));
    }
}

void Subject::carryOutProviders(const Operation& operation) {
    switch (operation.kind) {
        case Kind::Take: {
            const std::optional<PlainRequest> taken = take();
            return say(taken ? inWords(*taken) : "nothing to take");
        }
        case Kind::AskReady:
            return sayAnswer("ready", isReady());
        case Kind::GetConfiguration: {
            const std::optional<product::StreamConfiguration> found = configuration();
            return say(found ? inWords(*found) : "no configuration");
        }
        case Kind::GetBuffer: {
            const std::optional<PlainGraphicBuffer> found = lookUp(bufferIdOf(operation));
            return say(found ? inWords(*found) : "no buffer");
        }
        case Kind::SendResult:
            return send(resultOf(operation));
        case Kind::AnswerTaken:
            return answerTaken(operation.args[0] % 2U);
        case Kind::LetGoOfHeld:
            return letGoOfHeld();
        case Kind::FreeBuffer:
            return freeBuffer(streamIdOf(operation), bufferIdOf(operation));
        case Kind::Notify:
            return notify(messageOf(operation));
        case Kind::Paint:
            return paint(operation.args[0] % kMemories, operation);
        default:
            return pass();
    }
}

void Subject::carryOutScenes(const Operation& operation) {
    switch (operation.kind) {
        case Kind::SetObserver:
            return setObserver(operation.args[0] % 3);
        case Kind::SetScene:
            return setScene(sceneOf(operation));
        case Kind::GetScene:
            return say(inWords(scene()));
        case Kind::SetPTZ:
            return setPTZ(sceneOf(operation));
        case Kind::GetPTZ:
            return say(inWords(ptz()));
        case Kind::ResetPTZ:
            return resetPTZ();
        case Kind::SetMode:
            return setMode(modeOf(operation));
        case Kind::GetMode:
            return sayAnswer("getTrackingMode", static_cast<int64_t>(mode()));
        case Kind::GetPeople:
            return sayAnswer("getPeopleCount", people());
        case Kind::SetTrack:
            return setTrack(trackOf(operation));
        default:
            return say(inWords(track()));
    }
}

void Subject::carryOutWorlds(const Operation& operation) {
    const uint8_t arg = operation.args[0];
    switch (operation.kind) {
        case Kind::StepClock:
            return setClock(mNow += stepOf(operation));
        case Kind::Flip:
            return flip(arg % 3 != 0);
        case Kind::FailCalls:
            mCallsFail = arg % 2 != 0;
            return;
        case Kind::FailMapper:
            return setMapper(mapperStateOf(operation));
        case Kind::FailLock:
            return failLock(1 + arg % 7);
        case Kind::FailUnlock:
            return failUnlock(1 + arg % 7);
        case Kind::LimitDuplicates:
            return limitDuplicates(arg % 8);
        default:
            mNested = nestedIn(operation);
    }
}

}  // namespace testing_support
