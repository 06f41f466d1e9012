#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "model/plain_records.h"

namespace testing_support {

/** What a client, a provider, an observer's owner, the clock or bad luck does to a session. */
enum class Kind : uint8_t {
    // The client's.
    SetCallback,
    Configure,
    Submit,
    // The provider's.
    Take,
    AskReady,
    GetConfiguration,
    GetBuffer,
    SendResult,
    AnswerTaken,
    LetGoOfHeld,
    FreeBuffer,
    Notify,
    Paint,
    // The monitor's: one pass.
    Pass,
    // Of the scene.
    SetObserver,
    SetScene,
    GetScene,
    SetPTZ,
    GetPTZ,
    ResetPTZ,
    SetMode,
    GetMode,
    GetPeople,
    SetTrack,
    GetTrack,
    // The world's.
    StepClock,
    Flip,
    FailCalls,
    FailMapper,
    FailLock,
    FailUnlock,
    LimitDuplicates,
    // The next call of the client or the observer carries this operation out.
    Nest,
    Count
};

/** Any bytes are an operation: what they stand for is said by the functions below. */
struct Operation {
    Kind kind;
    std::array<uint8_t, 11> args;
};
using Sequence = std::vector<Operation>;

enum class MapperState : uint8_t { Fine, Refusing, Dead };

PlainRequest requestOf(const Operation& operation);
PlainResult resultOf(const Operation& operation);
product::StreamConfiguration configurationOf(const Operation& operation);
product::SceneControl sceneOf(const Operation& operation);
product::TrackControl trackOf(const Operation& operation);
product::TrackingMode modeOf(const Operation& operation);
fdstream::FDNotifyMsg messageOf(const Operation& operation);
uint64_t bufferIdOf(const Operation& operation);
int32_t streamIdOf(const Operation& operation);
int64_t stepOf(const Operation& operation);
MapperState mapperStateOf(const Operation& operation);
/** The operation that one of kind Nest carries along. */
Operation nestedIn(const Operation& operation);

/** 20 to 60 operations, always the same ones for a seed. */
Sequence sequenceOf(uint64_t seed);
/** Operations from arbitrary bytes, 60 at most. */
Sequence sequenceFrom(const uint8_t* data, size_t size);
/** As code that can be put into a test. */
std::string asCode(const Sequence& sequence);

}  // namespace testing_support
