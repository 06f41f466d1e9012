#pragma once

#include <array>
#include <cstdint>
#include <random>
#include <string>

#include "frame.h"

/** The clients of a soak, each for the life of a process of at most a few seconds. */
namespace tools {

using Random = std::mt19937;

/** A number from `least` to `most`. */
inline uint32_t pick(Random& random, uint32_t least, uint32_t most) {
    return least + static_cast<uint32_t>(random() % (most - least + 1));
}

/**
 * Sizes of streams. No two fit into each other: where a client's request meets a stream that
 * another one has configured, its buffer is not filled at all, so each frame is whole or untouched.
 */
constexpr std::array<kit::FrameSize, 4> kSoakSizes = {
    {{131, 720}, {320, 480}, {641, 361}, {1280, 180}}};

/**
 * What each does with the provider that serves at the socket. What they get is printed: a dot for a
 * frame, an `e` for an answer that is none. False after a sentence on stderr when it is a frame
 * that nobody can have meant.
 */
bool beOrderly(const std::string& socket, Random& random);
/** Configures anew while frames are in flight. */
bool beChanging(const std::string& socket, Random& random);
/** Until it is killed, never answers a callback. */
bool beStaying(const std::string& socket, Random& random);
/** Never answers a callback, or never reads it. */
bool beHanging(const std::string& socket, Random& random);
/** Makes requests as fast as it can, and reads no answer. */
bool beFlooding(const std::string& socket, Random& random);
/** Sends what is no message, or brings what may not cross. */
bool beNoisy(const std::string& socket, Random& random);

}  // namespace tools
