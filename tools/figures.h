#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "stream_client.h"

namespace tools {

/** What one scene came to. Value type. */
struct Figures {
    std::string scene;
    uint32_t wanted = 0;             ///< requests that the scene was to make
    uint32_t asked = 0;              ///< requests that it made
    uint32_t delivered = 0;          ///< results with a picture
    uint32_t wrong = 0;              ///< answers that are not what they have to be
    std::vector<uint32_t> failures;  ///< frame numbers of error results and of refused requests
    std::vector<Clock::duration> latencies;
    std::vector<Clock::time_point> arrivals;  ///< of the pictures

    uint32_t failed() const { return static_cast<uint32_t>(failures.size()); }
    uint32_t answered() const { return delivered + failed(); }
    uint32_t missing() const { return asked - answered(); }

    void add(const Answer& answer);
};

double inMilliseconds(Clock::duration duration);

void printTable(const std::vector<Figures>& scenes);

}  // namespace tools
