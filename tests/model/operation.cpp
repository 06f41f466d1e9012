#include "model/operation.h"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace testing_support {

namespace {

using android::hardware::camera::device::V3_2::Stream;

constexpr auto kKinds = static_cast<size_t>(Kind::Count);
constexpr size_t kMostOperations = 60;

constexpr std::array<const char*, kKinds> kNames = {"SetCallback", "Configure",
                                                    "Submit",      "Take",
                                                    "AskReady",    "GetConfiguration",
                                                    "GetBuffer",   "SendResult",
                                                    "AnswerTaken", "LetGoOfHeld",
                                                    "FreeBuffer",  "Notify",
                                                    "Paint",       "Pass",
                                                    "SetObserver", "SetScene",
                                                    "GetScene",    "SetPTZ",
                                                    "GetPTZ",      "ResetPTZ",
                                                    "SetMode",     "GetMode",
                                                    "GetPeople",   "SetTrack",
                                                    "GetTrack",    "StepClock",
                                                    "Flip",        "FailCalls",
                                                    "FailMapper",  "FailLock",
                                                    "FailUnlock",  "LimitDuplicates",
                                                    "Nest"};

/** How often each kind comes up, in their order. */
constexpr std::array<uint8_t, kKinds> kWeights = {4, 6, 30, 10, 3, 2, 5, 6, 10, 2, 1,
                                                  4, 4, 24, 4,  3, 2, 3, 2, 1,  4, 1,
                                                  1, 2, 2,  8,  3, 2, 2, 2, 2,  5, 5};

template <typename T, size_t N>
T oneOf(const T (&choices)[N], uint8_t arg) {
    return choices[arg % N];
}

constexpr uint64_t kIds[] = {1, 7, 0xfffffffffffffffe};
constexpr int32_t kStreams[] = {0, 0, 0, -3};

File bufferIn(uint8_t arg) {
    return oneOf("-ABCDA-BCDeqxABC-D", static_cast<uint8_t>(arg % 18));
}

File fenceIn(uint8_t arg) {
    return oneOf("---fg--f-ge-x---", static_cast<uint8_t>(arg % 16));
}

/** A number of 32 bits in which no byte is like another. */
uint32_t wide(uint8_t arg) {
    return uint32_t{arg} << 24 | uint32_t{arg} * 3 << 8 | arg;
}

std::string dataOf(uint8_t arg) {
    return std::string(arg % 4, static_cast<char>('a' + arg % 26));
}

/** A buffer from six arguments from this one on. */
PlainBuffer bufferOf(const Operation& operation, size_t first) {
    const auto arg = [&](size_t i) { return operation.args[(first + i) % operation.args.size()]; };
    return {oneOf(kStreams, arg(0)), oneOf(kIds, arg(1)), bufferIn(arg(2)), arg(3) % 3U,
            fenceIn(arg(4)),         fenceIn(arg(5))};
}

/** One output mostly, none or two at times. */
std::vector<PlainBuffer> outputsOf(const Operation& operation, uint8_t choice) {
    std::vector<PlainBuffer> outputs(oneOf({1U, 1U, 1U, 1U, 1U, 1U, 0U, 2U}, choice));
    for (size_t i = 0; i < outputs.size(); ++i)
        outputs[i] = bufferOf(operation, 1 + 5 * i);
    return outputs;
}

/** Not each request has an input buffer. */
PlainBuffer inputOf(const Operation& operation, uint8_t choice) {
    return choice % 4 == 0 ? bufferOf(operation, 8) : PlainBuffer{-1};
}

uint64_t next(uint64_t& state) {
    uint64_t z = state += 0x9e3779b97f4a7c15;
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9;
    z = (z ^ (z >> 27)) * 0x94d049bb133111eb;
    return z ^ (z >> 31);
}

Kind kindAt(uint64_t number) {
    unsigned sum = 0;
    for (const uint8_t weight : kWeights)
        sum += weight;
    auto left = static_cast<unsigned>(number % sum);
    size_t kind = 0;
    while (left >= kWeights[kind])
        left -= kWeights[kind++];
    return static_cast<Kind>(kind);
}

Operation randomOperation(uint64_t& state) {
    Operation operation = {kindAt(next(state)), {}};
    const uint64_t bits[] = {next(state), next(state)};
    memcpy(operation.args.data(), bits, operation.args.size());
    if (operation.kind == Kind::Nest) operation.args[0] = static_cast<uint8_t>(kindAt(bits[1]));
    return operation;
}

}  // namespace

PlainRequest requestOf(const Operation& operation) {
    const auto& args = operation.args;
    return {wide(args[0]), wide(args[7]) * 257ULL, dataOf(args[7]), inputOf(operation, args[10]),
            outputsOf(operation, args[9])};
}

PlainResult resultOf(const Operation& operation) {
    const auto& args = operation.args;
    return {wide(args[0]),
            wide(args[7]) * 257ULL,
            dataOf(args[7]),
            outputsOf(operation, args[9]),
            inputOf(operation, args[10]),
            args[8] % 3U};
}

product::StreamConfiguration configurationOf(const Operation& operation) {
    const auto& args = operation.args;
    product::StreamConfiguration configuration = {};
    configuration.streams.resize(oneOf({1U, 1U, 1U, 1U, 1U, 0U, 2U}, args[0]));
    for (Stream& stream : configuration.streams) {
        const auto [width, height] =
            oneOf<std::array<uint32_t, 2>>({{8, 6}, {8, 6}, {6, 4}, {5, 5}, {0, 9}}, args[1]);
        stream.id = oneOf(kStreams, args[2]);
        stream.width = width;
        stream.height = height;
        stream.usage = oneOf<uint64_t>({0x33, 0x100000033, 0x300000003, 0x100000000}, args[3]);
        stream.streamType = static_cast<decltype(stream.streamType)>(args[4] % 2);
        stream.rotation = static_cast<decltype(stream.rotation)>(args[5] % 4);
        stream.format = static_cast<decltype(stream.format)>(wide(args[6]));
        stream.dataSpace = static_cast<decltype(stream.dataSpace)>(wide(args[7]));
    }
    configuration.operationMode = static_cast<decltype(configuration.operationMode)>(wide(args[8]));
    return configuration;
}

// Few different ones of these two, so that some are stored again.

product::SceneControl sceneOf(const Operation& operation) {
    const int32_t variant = operation.args[1] % 3;
    product::SceneControl control = {};
    control.crops.resize(operation.args[0] % 4);
    for (size_t i = 0; i < control.crops.size(); ++i) {
        const auto at = static_cast<int32_t>(i);
        control.crops[i] = {at - 1, variant + at, variant * 1000, -2};
    }
    control.frameWidth = variant + 10;
    control.frameHeight = variant + 20;
    control.sceneId = variant + 30;
    control.sceneFlags = variant + 40;
    control.peopleCount = variant + 50;
    return control;
}

product::TrackControl trackOf(const Operation& operation) {
    const uint8_t variant = operation.args[0] % 3;
    product::TrackControl control = {};
    unsigned char bytes[offsetof(product::TrackControl, speed)];
    for (size_t i = 0; i < sizeof(bytes); ++i)
        bytes[i] = static_cast<unsigned char>(variant * 70U + i);
    memcpy(&control, bytes, sizeof(bytes));
    control.speed = variant;
    return control;
}

product::TrackingMode modeOf(const Operation& operation) {
    return static_cast<product::TrackingMode>(oneOf({0, 0, 1, 2, -1}, operation.args[0]));
}

fdstream::FDNotifyMsg messageOf(const Operation& operation) {
    fdstream::FDNotifyMsg message = {};
    static_assert(sizeof(message) <= 2 * sizeof(operation.args));
    unsigned char bytes[sizeof(message)];
    for (size_t i = 0; i < sizeof(bytes); ++i)
        bytes[i] = static_cast<unsigned char>(operation.args[i % operation.args.size()] ^ i);
    memcpy(&message, bytes, sizeof(bytes));
    return message;
}

uint64_t bufferIdOf(const Operation& operation) {
    return oneOf(kIds, operation.args[0]);
}

int32_t streamIdOf(const Operation& operation) {
    return oneOf(kStreams, operation.args[1]);
}

int64_t stepOf(const Operation& operation) {
    return oneOf<int64_t>({1, 999999, 1000000, 1000001, 400000, 2500000, -1, -600000, -3600000000},
                          operation.args[0]);
}

MapperState mapperStateOf(const Operation& operation) {
    return oneOf({MapperState::Fine, MapperState::Fine, MapperState::Refusing, MapperState::Dead},
                 operation.args[0]);
}

Operation nestedIn(const Operation& operation) {
    Operation nested = {static_cast<Kind>(operation.args[0] % kKinds), operation.args};
    std::rotate(nested.args.begin(), nested.args.begin() + 1, nested.args.end());
    // What goes for a whole step, and what would never end.
    if (nested.kind == Kind::FailMapper || nested.kind == Kind::LimitDuplicates ||
        nested.kind == Kind::Nest) {
        nested.kind = Kind::AskReady;
    }
    return nested;
}

Sequence sequenceOf(uint64_t seed) {
    uint64_t state = seed;
    Sequence sequence(20 + next(state) % 41);
    for (Operation& operation : sequence)
        operation = randomOperation(state);
    // Most sequences get somewhere.
    if (seed % 8 != 0) {
        sequence[0].kind = Kind::SetCallback;
        sequence[0].args[0] = 1;
        sequence[1].kind = Kind::Configure;
        sequence[1].args[0] = 0;
        sequence[1].args[2] = 0;
    }
    return sequence;
}

Sequence sequenceFrom(const uint8_t* data, size_t size) {
    constexpr size_t kBytes = 1 + sizeof(Operation::args);
    Sequence sequence(std::min(size / kBytes, kMostOperations));
    for (Operation& operation : sequence) {
        operation.kind = static_cast<Kind>(data[0] % kKinds);
        memcpy(operation.args.data(), data + 1, sizeof(operation.args));
        data += kBytes;
    }
    return sequence;
}

std::string asCode(const Sequence& sequence) {
    std::string code = "const Sequence sequence = {\n";
    for (const Operation& operation : sequence) {
        code += cat("    {Kind::", kNames[static_cast<size_t>(operation.kind)], ", {");
        for (size_t i = 0; i < operation.args.size(); ++i)
            code += cat(i == 0 ? "" : ", ", int{operation.args[i]});
        code += "}},\n";
    }
    return code + "};\nEXPECT_EQ(disagreement(Files(), sequence), \"\");\n";
}

}  // namespace testing_support
