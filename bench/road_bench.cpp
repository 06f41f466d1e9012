// The whole road of a frame over two processes: from the request to the client's callback, and the
// next request from inside it.

#include <sys/types.h>

#include <chrono>
#include <cstddef>
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
#include "frames.h"
#include "gst_road.h"
#include "processor.h"
#include "records.h"
#include "road_client.h"
#include "road_provider.h"

namespace bench {

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kPiece = "two processes";
constexpr const char* kBare = "bare sockets and a hand-off";

/** Microseconds a frame. */
struct Cost {
    double wall;
    double processor;  ///< of both processes
};

/** One side of a comparison: how it runs, and its other process. */
struct Side {
    std::string name;
    std::function<bool(uint32_t frames)> run;
    pid_t provider;
    std::optional<double> aim = std::nullopt;  ///< of ours against this one
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

/** At a camera's pace, when everybody has gone to sleep: the median. */
template <typename Road>
std::optional<double> pacedLatencyOf(Road& road) {
    constexpr int kFrames = 10;
    std::vector<double> latencies;
    Clock::time_point next = Clock::now();
    for (int i = 0; i < kFrames; ++i) {
        const auto latency = road.latencyOfOne(next += std::chrono::milliseconds(33));
        if (!latency) return std::nullopt;
        latencies.push_back(std::chrono::duration<double, std::micro>(*latency).count());
    }
    return median(latencies);
}

void addPaced(Figures& figures, const Effort& effort, RoadClient& ours, BareRoad& theirs) {
    Comparison paced{kPiece, "unpinned, 30 frames a second, latency", kBare, "us", {}, {}, {}};
    fprintf(stderr, "%s, %s ...\n", kPiece, paced.what.c_str());
    for (int i = 0; i < effort.rounds; ++i) {
        // By turns; everybody sleeps in between, so that nothing is to be warmed up.
        std::optional<double> mine;
        if (i % 2 == 0) mine = pacedLatencyOf(ours);
        const std::optional<double> bare = pacedLatencyOf(theirs);
        if (i % 2 != 0) mine = pacedLatencyOf(ours);
        if (!mine || !bare) {
            figures.faults.push_back(paced.what + ": a frame did not come, or was wrong");
            return;
        }
        paced.ours.push_back(*mine);
        paced.theirs.push_back(*bare);
    }
    figures.comparisons.push_back(std::move(paced));
}

/**
 * The costs of each side, in rounds that begin with another side each time, after one to warm up.
 * None, but a fault, when a frame was wrong.
 */
std::vector<Costs> costsOf(Figures& figures, const Effort& effort, const std::string& what,
                           uint32_t frames, const std::vector<Side>& sides) {
    std::vector<Costs> costs(sides.size());
    for (size_t round = 0; round <= static_cast<size_t>(effort.rounds); ++round) {
        for (size_t i = 0; i < sides.size(); ++i) {
            const size_t side = (round + i) % sides.size();
            const std::optional<Cost> cost = costOf(sides[side], frames);
            if (!cost) {
                figures.faults.push_back(what + ": a frame did not come, or was wrong");
                return {};
            }
            if (round == 0) continue;
            costs[side].wall.push_back(cost->wall);
            costs[side].processor.push_back(cost->processor);
        }
    }
    return costs;
}

/** Adds ours, which is the first side, against each of the others. False when one was wrong. */
bool compareSides(Figures& figures, const Effort& effort, const std::string& what, uint32_t frames,
                  const std::vector<Side>& sides, bool withPace) {
    const std::vector<Costs> costs = costsOf(figures, effort, what, frames, sides);
    for (size_t i = 0; i < costs.size(); ++i) {
        const Side& side = sides[i];
        if (withPace) {
            figures.facts.push_back(
                {what + ", " + side.name, 1e6 / median(costs[i].wall), "frames a second", ""});
        }
        if (i == 0) continue;
        figures.comparisons.push_back(
            {kPiece, what + ", wall", side.name, "us", costs[0].wall, costs[i].wall, side.aim});
        figures.comparisons.push_back({kPiece, what + ", time on CPU", side.name, "us",
                                       costs[0].processor, costs[i].processor, side.aim});
    }
    return !costs.empty();
}

/** The real road: a provider in a process of its own, and its client in this one. */
struct OurRoad {
    std::unique_ptr<RoadProvider> provider;
    std::unique_ptr<RoadClient> client;  // goes before its provider

    Side side() const {
        return {"ours", [this](uint32_t frames) { return client->run(frames); }, provider->id()};
    }
};

/** Without a client, and with a fault, when it does not start. */
OurRoad startOurs(Figures& figures, const std::string& what, FrameSize size, uint32_t inFlight,
                  Asking asking, bool pictures) {
    OurRoad road;
    std::string problem;
    road.provider = RoadProvider::start(pictures, problem);
    if (road.provider != nullptr) {
        road.client =
            RoadClient::connect(road.provider->socket(), size, inFlight, asking, pictures, problem);
    }
    if (road.client == nullptr) figures.faults.push_back(what + ": " + problem);
    return road;
}

Side sideOf(BareRoad& bare, const std::string& name, std::optional<double> aim) {
    return {name, [&bare](uint32_t frames) { return bare.run(frames); }, bare.provider(), aim};
}

void benchAgainstBare(Figures& figures, const Effort& effort, const std::string& where,
                      uint32_t inFlight, std::optional<double> aim, bool paced = false) {
    const std::string what = where + ", " + std::to_string(inFlight) + " in flight";
    fprintf(stderr, "%s, %s ...\n", kPiece, what.c_str());
    BareRoad bare(inFlight, false);
    const OurRoad ours = startOurs(figures, what, kTiny, inFlight, Asking::InCallback, false);
    if (ours.client == nullptr) return;
    const bool right = compareSides(figures, effort, what, effort.quick ? 2000 : 20000,
                                    {ours.side(), sideOf(bare, kBare, aim)}, false);
    if (right && paced) addPaced(figures, effort, *ours.client, bare);
}

/** With the pixels: each frame is copied once, into memory that both processes have mapped. */
void benchWithPixels(Figures& figures, const Effort& effort, const std::string& where,
                     Asking asking) {
    constexpr uint32_t kInFlight = 4;
    const std::string what = where + ", 720p, 4 in flight";
    fprintf(stderr, "%s, %s ...\n", kPiece, what.c_str());
    std::optional<BareRoad> bare;
    // It asks where a result comes, so it stands beside a client that does so too.
    if (asking == Asking::InCallback) bare.emplace(kInFlight, true);
    const OurRoad ours = startOurs(figures, what, kSizes[0], kInFlight, asking, true);
    if (ours.client == nullptr) return;
    std::vector<Side> sides = {ours.side()};
    if (bare) sides.push_back(sideOf(*bare, kBare + std::string(", and the copy"), std::nullopt));
    std::string problem;
    const std::unique_ptr<GstRoad> gst = GstRoad::start(kInFlight, problem);
    if (gst != nullptr) {
        sides.push_back({"GStreamer shmsink to shmsrc",
                         [&](uint32_t frames) { return gst->run(frames); }, gst->producer(), 1.0});
    } else {
        figures.leaveOut("GStreamer's shmsink to shmsrc, because " + problem + ".");
    }
    compareSides(figures, effort, what, effort.quick ? 200 : 1000, sides, true);
}

}  // namespace

void benchRoads(Figures& figures, const Effort& effort) {
    // The bare road forks, so it goes before GStreamer has threads here.
    {
        const OnOneProcessor pinned;
        benchAgainstBare(figures, effort, "one CPU", 1, 1.3);
        benchAgainstBare(figures, effort, "one CPU", 4, std::nullopt);
    }
    benchAgainstBare(figures, effort, "unpinned", 1, std::nullopt, true);
    {
        const OnOneProcessor pinned;
        benchWithPixels(figures, effort, "one CPU", Asking::InCallback);
    }
    benchWithPixels(figures, effort, "unpinned", Asking::InRun);
}

}  // namespace bench
