// The whole road of a frame over two processes: from the request to the client's callback, and the
// next request from inside it.

#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "bare_road.h"
#include "benches.h"
#include "child_process.h"
#include "processor.h"
#include "records.h"
#include "road_client.h"
#include "road_provider.h"

namespace bench {

namespace {

using Clock = std::chrono::steady_clock;

/** Microseconds a frame. */
struct Cost {
    double wall;
    double processor;  ///< of both processes
};

/** One side of the comparison: how it runs, and its other process. */
struct Side {
    std::function<bool(uint32_t frames)> run;
    pid_t provider;
};

std::optional<Cost> costOf(const Side& side, uint32_t frames) {
    const double before = processorMicroseconds() + processorMicroseconds(side.provider);
    const Clock::time_point start = Clock::now();
    if (!side.run(frames)) return std::nullopt;
    const std::chrono::duration<double, std::micro> wall = Clock::now() - start;
    const double after = processorMicroseconds() + processorMicroseconds(side.provider);
    return Cost{wall.count() / frames, (after - before) / frames};
}

void compareRoads(Figures& figures, const Effort& effort, const std::string& what,
                  const std::string& reference, uint32_t frames, const Side& ours,
                  const Side& theirs, std::optional<double> aim) {
    Comparison wall{"two processes", what + ", wall", reference, "us", {}, {}, aim};
    Comparison processor{"two processes", what + ", time on CPU", reference, "us", {}, {}, aim};
    for (int i = 0; i < effort.rounds; ++i) {
        const std::optional<Cost> mine = costOf(ours, frames);
        const std::optional<Cost> bare = costOf(theirs, frames);
        if (!mine || !bare) {
            figures.faults.push_back(what + ": a frame did not come, or was wrong");
            return;
        }
        wall.ours.push_back(mine->wall);
        wall.theirs.push_back(bare->wall);
        processor.ours.push_back(mine->processor);
        processor.theirs.push_back(bare->processor);
    }
    figures.comparisons.push_back(std::move(wall));
    figures.comparisons.push_back(std::move(processor));
}

void benchAgainstBare(Figures& figures, const Effort& effort, const std::string& where,
                      uint32_t inFlight, std::optional<double> aim) {
    const std::string what = where + ", " + std::to_string(inFlight) + " in flight";
    fprintf(stderr, "two processes, %s ...\n", what.c_str());
    BareRoad bare(inFlight);
    std::string problem;
    const std::unique_ptr<RoadProvider> provider = RoadProvider::start(false, problem);
    const std::unique_ptr<RoadClient> client =
        provider != nullptr
            ? RoadClient::connect(provider->socket(), kTiny, inFlight, false, problem)
            : nullptr;
    if (client == nullptr) {
        figures.faults.push_back(what + ": " + problem);
        return;
    }
    compareRoads(figures, effort, what, "bare sockets and a hand-off", effort.quick ? 2000 : 20000,
                 {[&](uint32_t frames) { return client->run(frames); }, provider->id()},
                 {[&](uint32_t frames) { return bare.run(frames); }, bare.provider()}, aim);
}

}  // namespace

void benchRoads(Figures& figures, const Effort& effort) {
    {
        const OnOneProcessor pinned;
        benchAgainstBare(figures, effort, "one CPU", 1, 1.3);
        benchAgainstBare(figures, effort, "one CPU", 4, std::nullopt);
    }
    benchAgainstBare(figures, effort, "unpinned", 1, std::nullopt);
}

}  // namespace bench
