#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "stream_client.h"

namespace tools {

/** Why a scene was over. */
enum class Ending {
    Complete,     ///< every request was answered
    Refused,      ///< the session did not take the stream
    Silent,       ///< no answer came for long
    Interrupted,  ///< by a signal
    TakenOver,    ///< another client has the session
    NotKept,      ///< what came could not be written
    Gone,         ///< the provider was lost, or was not there
};

/** When a request was made and answered. Value type. */
struct FrameTimes {
    uint32_t number;
    Answer::Outcome outcome;  ///< filled, skipped, failed or refused
    Clock::time_point requested;
    Clock::time_point answered;
};

/** In milliseconds. */
struct Latency {
    double least;
    double median;
    double p99;
};

/** What one scene came to. Value type. */
struct Figures {
    std::string scene;
    uint32_t wanted = 0;             ///< requests that the scene was to make
    uint32_t asked = 0;              ///< requests that it made
    uint32_t delivered = 0;          ///< results with a picture
    uint32_t foreign = 0;            ///< results meant for another client, which were let go of
    uint32_t wrong = 0;              ///< answers that are not what they have to be
    uint32_t foreignPictures = 0;    ///< those of them for which the source took a frame
    std::vector<uint32_t> failures;  ///< frame numbers of error results and of refused requests
    std::vector<FrameTimes> frames;  ///< in the order of the answers
    Ending ending = Ending::Complete;

    uint32_t failed() const { return static_cast<uint32_t>(failures.size()); }
    uint32_t answered() const { return delivered + failed(); }
    uint32_t missing() const { return asked - answered(); }
    /** Of the requests that the session took. */
    std::vector<Clock::duration> latencies() const;
    /** Of the pictures. */
    std::vector<Clock::time_point> arrivals() const;

    void add(const Answer& answer);
};

/** Over the time between the first picture and the last; 0 where that is no time. */
double framesPerSecond(const std::vector<Clock::time_point>& arrivals);

double inMilliseconds(Clock::duration duration);

/** REQUIRES: there is at least one. */
Latency latencyOf(const std::vector<Clock::duration>& latencies);

void printTable(const std::vector<Figures>& scenes, FILE* to = stdout);

}  // namespace tools
