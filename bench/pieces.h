#pragma once

#include <benchmark/benchmark.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "figures.h"

namespace bench {

/** How long a run takes. */
struct Effort {
    int rounds;  ///< samples of each side
    double secondsPerSample;
    bool quick;
};

/** One way to do a piece's work: the loop over a benchmark's state. */
struct Contender {
    std::string name;
    std::function<void(benchmark::State&)> run;
    std::optional<double> aim = std::nullopt;  ///< of ours against this one
};

/**
 * Measures ours and its references with Google Benchmark, in rounds: one sample of each, one right
 * after the other, beginning with another one each time. Adds a comparison with each reference. A
 * contender that stops with an error, because what it made was wrong, gets no figure but a line
 * among the faults.
 */
void compare(Figures& figures, const Effort& effort, const std::string& piece,
             const std::string& what, const Contender& ours,
             const std::vector<Contender>& references);

}  // namespace bench
