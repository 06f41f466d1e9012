// The whole road of a frame over two processes: from the request to the client's callback, and the
// next request from inside it.

#include "bench.h"
#include "roads.h"
#include "statistics.h"

namespace bench {

namespace {

constexpr const char* kPiece = "two processes";
constexpr const char* kBare = "bare sockets and a hand-off";

/** Microseconds a frame: of time, and of the processors of both processes. */
const std::vector<std::string> kMeasures = {", wall", ", time on CPU"};

Side sideOf(const std::string& name, Road& road, uint32_t frames,
            std::optional<double> aim = std::nullopt) {
    const auto sample = [&road, frames]() -> Sample {
        const auto processors = [&] {
            return processorMicroseconds() + processorMicroseconds(road.provider());
        };
        const double before = processors();
        const Clock::time_point start = Clock::now();
        road.run(frames);
        const double wall = microsecondsSince(start);
        return {wall / frames, (processors() - before) / frames};
    };
    return {name, sample, {aim, aim}};
}

/** At a camera's pace, when everybody has gone to sleep: the median. */
Side pacedSideOf(const std::string& name, Road& road) {
    const auto sample = [&road]() -> Sample {
        constexpr size_t kFrames = 10;
        std::vector<double> latencies;
        Clock::time_point next = Clock::now();
        while (latencies.size() < kFrames)
            latencies.push_back(road.latencyOfOne(next += std::chrono::milliseconds(33)));
        return {kit::median(latencies)};
    };
    return {name, sample};
}

void benchAgainstBare(Run& run, const std::string& where, uint32_t inFlight,
                      std::optional<double> aim, bool paced = false) {
    const auto bare = startBareRoad(inFlight, false);
    const auto ours = startOurRoad(inFlight, Asking::InCallback, false);
    const uint32_t frames = run.quick ? 2000 : 20000;
    compare(run, kPiece, where + ", " + std::to_string(inFlight) + " in flight",
            {sideOf("ours", *ours, frames), sideOf(kBare, *bare, frames, aim)}, kMeasures);
    if (!paced) return;
    compare(run, kPiece, where + ", 30 frames a second, latency",
            {pacedSideOf("ours", *ours), pacedSideOf(kBare, *bare)});
}

/** With the pixels: each frame is copied once, into memory that both processes have mapped. */
void benchWithPixels(Run& run, const std::string& where, Asking asking) {
    constexpr uint32_t kInFlight = 4;
    const uint32_t frames = run.quick ? 200 : 1000;
    std::unique_ptr<Road> bare;
    // It asks where a result comes, so it stands beside a client that does so too.
    if (asking == Asking::InCallback) bare = startBareRoad(kInFlight, true);
    const auto ours = startOurRoad(kInFlight, asking, true);
    std::string problem;
    const auto gst = startGstRoad(kInFlight, problem);
    std::vector<Side> sides = {sideOf("ours", *ours, frames)};
    if (bare) sides.push_back(sideOf(kBare + std::string(", and the copy"), *bare, frames));
    if (gst) sides.push_back(sideOf("GStreamer shmsink to shmsrc", *gst, frames, 1.0));
    if (!gst) run.leaveOut("GStreamer's shmsink to shmsrc, because " + problem + ".");
    const std::string what = where + ", 720p, 4 in flight";
    const std::vector<double> medians = compare(run, kPiece, what, sides, kMeasures);
    for (size_t i = 0; i < medians.size(); ++i)
        run.facts.push_back({what + ", " + sides[i].name, 1e6 / medians[i], "frames a second", ""});
}

}  // namespace

void benchRoads(Run& run) {
    // The bare road forks, so it goes before GStreamer has threads here.
    {
        const OnOneProcessor pinned;
        benchAgainstBare(run, "one CPU", 1, 1.3);
        benchAgainstBare(run, "one CPU", 4, std::nullopt);
    }
    benchAgainstBare(run, "unpinned", 1, std::nullopt, true);
    {
        const OnOneProcessor pinned;
        benchWithPixels(run, "one CPU", Asking::InCallback);
    }
    benchWithPixels(run, "unpinned", Asking::InRun);
}

}  // namespace bench
