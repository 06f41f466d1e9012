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
#include <thread>
#include <utility>
#include <vector>

#include "bare_road.h"
#include "benches.h"
#include "child_process.h"
#include "gst_road.h"
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

/** What each round of a side cost. */
struct Costs {
    std::vector<double> wall;
    std::vector<double> processor;
};

std::optional<Cost> costOf(const Side& side, uint32_t frames) {
    const double before = processorMicroseconds() + processorMicroseconds(side.provider);
    const Clock::time_point start = Clock::now();
    if (!side.run(frames)) return std::nullopt;
    const std::chrono::duration<double, std::micro> wall = Clock::now() - start;
    const double after = processorMicroseconds() + processorMicroseconds(side.provider);
    return Cost{wall.count() / frames, (after - before) / frames};
}

/** From a request to its callback at a camera's pace, when everybody has gone to sleep: the median.
 */
std::optional<double> pacedLatencyOf(const Side& side) {
    constexpr int kFrames = 10;
    std::vector<double> latencies;
    Clock::time_point next = Clock::now();
    for (int i = 0; i < kFrames; ++i) {
        std::this_thread::sleep_until(next += std::chrono::milliseconds(33));
        const Clock::time_point start = Clock::now();
        if (!side.run(1)) return std::nullopt;
        latencies.push_back(
            std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    }
    return median(latencies);
}

void addPaced(Figures& figures, const Effort& effort, const Side& ours, const Side& theirs) {
    Comparison paced{"two processes",
                     "unpinned, 30 frames a second, latency",
                     "bare sockets and a hand-off",
                     "us",
                     {},
                     {},
                     std::nullopt};
    for (int i = 0; i < effort.rounds; ++i) {
        const std::optional<double> mine = pacedLatencyOf(ours);
        const std::optional<double> bare = pacedLatencyOf(theirs);
        if (!mine || !bare) {
            figures.faults.push_back(paced.what + ": a frame did not come, or was wrong");
            return;
        }
        paced.ours.push_back(*mine);
        paced.theirs.push_back(*bare);
    }
    figures.comparisons.push_back(std::move(paced));
}

/** The costs of each side, in rounds by turns; none, but a fault, when a frame was wrong. */
std::vector<Costs> costsOf(Figures& figures, const Effort& effort, const std::string& what,
                           uint32_t frames, const std::vector<Side>& sides) {
    std::vector<Costs> costs(sides.size());
    for (int i = 0; i < effort.rounds; ++i) {
        for (size_t side = 0; side < sides.size(); ++side) {
            const std::optional<Cost> cost = costOf(sides[side], frames);
            if (!cost) {
                figures.faults.push_back(what + ": a frame did not come, or was wrong");
                return {};
            }
            costs[side].wall.push_back(cost->wall);
            costs[side].processor.push_back(cost->processor);
        }
    }
    return costs;
}

void addComparisons(Figures& figures, const std::string& what, const std::string& reference,
                    const Costs& ours, const Costs& theirs, std::optional<double> aim) {
    figures.comparisons.push_back(
        {"two processes", what + ", wall", reference, "us", ours.wall, theirs.wall, aim});
    figures.comparisons.push_back({"two processes", what + ", time on CPU", reference, "us",
                                   ours.processor, theirs.processor, aim});
}

void addFacts(Figures& figures, const std::string& whose, const Costs& costs) {
    figures.facts.push_back({whose + ", frames", 1e6 / median(costs.wall), "a second", ""});
    figures.facts.push_back({whose + ", time on CPU", median(costs.processor), "us a frame", ""});
}

void benchAgainstBare(Figures& figures, const Effort& effort, const std::string& where,
                      uint32_t inFlight, std::optional<double> aim, bool paced = false) {
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
    const Side ours = {[&](uint32_t frames) { return client->run(frames); }, provider->id()};
    const Side theirs = {[&](uint32_t frames) { return bare.run(frames); }, bare.provider()};
    const std::vector<Costs> costs =
        costsOf(figures, effort, what, effort.quick ? 2000 : 20000, {ours, theirs});
    if (!costs.empty()) {
        addComparisons(figures, what, "bare sockets and a hand-off", costs[0], costs[1], aim);
    }
    if (paced) addPaced(figures, effort, ours, theirs);
}

/** With the pixels: each frame is copied once, into memory that both processes have mapped. */
void benchAgainstGstreamer(Figures& figures, const Effort& effort, const std::string& where) {
    constexpr uint32_t kInFlight = 4;
    const std::string what = where + ", 720p, 4 in flight";
    fprintf(stderr, "two processes, %s ...\n", what.c_str());
    std::string problem;
    const std::unique_ptr<GstRoad> gst = GstRoad::start(kInFlight, problem);
    if (gst == nullptr)
        figures.absent.push_back("GStreamer's shmsink to shmsrc, because " + problem + ".");
    const std::unique_ptr<RoadProvider> provider = RoadProvider::start(true, problem);
    const std::unique_ptr<RoadClient> client =
        provider != nullptr
            ? RoadClient::connect(provider->socket(), kSizes[0], kInFlight, true, problem)
            : nullptr;
    if (client == nullptr) {
        figures.faults.push_back(what + ": " + problem);
        return;
    }
    std::vector<Side> sides = {
        {[&](uint32_t frames) { return client->run(frames); }, provider->id()}};
    if (gst != nullptr)
        sides.push_back({[&](uint32_t frames) { return gst->run(frames); }, gst->producer()});
    const std::vector<Costs> costs =
        costsOf(figures, effort, what, effort.quick ? 200 : 1000, sides);
    if (costs.empty()) return;
    addFacts(figures, what + ", ours", costs[0]);
    if (gst == nullptr) return;
    addFacts(figures, what + ", GStreamer", costs[1]);
    addComparisons(figures, what, "GStreamer shmsink to shmsrc", costs[0], costs[1], 1.0);
}

}  // namespace

void benchRoads(Figures& figures, const Effort& effort) {
    {
        const OnOneProcessor pinned;
        benchAgainstBare(figures, effort, "one CPU", 1, 1.3);
        benchAgainstBare(figures, effort, "one CPU", 4, std::nullopt);
        benchAgainstGstreamer(figures, effort, "one CPU");
    }
    benchAgainstBare(figures, effort, "unpinned", 1, std::nullopt, true);
    benchAgainstGstreamer(figures, effort, "unpinned");
}

}  // namespace bench
