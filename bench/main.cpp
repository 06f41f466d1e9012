// Measures what the library adds to a frame, against references in the same run.

#include <android/log.h>
#include <err.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "benches.h"
#include "counts_bench.h"
#include "figures.h"
#include "gst_road.h"
#include "host/log.h"
#include "output.h"
#include "pieces.h"
#include "processor.h"
#include "road_provider.h"
#include "run_program.h"

namespace {

struct Part {
    const char* name;
    void (*run)(bench::Figures& figures, const bench::Effort& effort);
};

constexpr Part kParts[] = {
    {"rotation", bench::benchRotation}, {"copies", bench::benchCopies},
    {"request", bench::benchRequest},   {"delivery", bench::benchDelivery},
    {"roads", bench::benchRoads},       {"counts", bench::benchCounts},
    {"growth", bench::benchGrowth},     {"idle", bench::benchIdle},
};

std::vector<std::string> partNames() {
    std::vector<std::string> names;
    for (const Part& part : kParts)
        names.emplace_back(part.name);
    return names;
}

constexpr int kRight = 0;
constexpr int kWrong = 1;
constexpr int kBadUsage = 2;

constexpr const char* kExamples =
    "Examples (./run bench is this program, built if need be):\n"
    "  ./run bench --quick                 every part in 90 seconds\n"
    "  ./run bench                         every part in five minutes, to keep\n"
    "  ./run bench --only rotation copies  two parts\n"
    "\n"
    "A ratio is ours to the reference's, measured in the same rounds: below 1 ours\n"
    "takes less. docs/performance.md says what each piece and each reference is.\n"
    "\n"
    "Exit code: 0 measured, 1 something was wrong and got no figure, 2 bad usage.\n"
    "No speed fails it.";

struct Options {
    bool quick = false;
    std::vector<std::string> parts;
    std::filesystem::path out = "out/bench";
    // What it runs as, once more, for itself.
    bool isProvider = false;
    std::string socket;
    bool pictures = false;
    bool isGstProducer = false;
    int orders = -1;
    std::string pipeline;
    bool isSteady = false;
    std::string steadyRun;
    uint32_t frames = 0;
};

/** Nothing when it is to go on, else the exit code. */
std::optional<int> parse(int argc, char** argv, Options& options) {
    CLI::App app("Measures what the library adds to a frame, against references in the same run.",
                 "fdstream-bench");
    app.footer(kExamples);
    app.add_flag("--quick", options.quick, "fewer and shorter samples");
    app.add_option("--only", options.parts, "parts to run; without it all")
        ->check(CLI::IsMember(partNames()));
    app.add_option("--out", options.out, "folder for figures.json and the plots")
        ->type_name("DIR")
        ->capture_default_str();
    CLI::App* const provider = app.add_subcommand("provider", "")->group("");
    provider->add_option("socket", options.socket)->required();
    provider->add_flag("--pictures", options.pictures);
    CLI::App* const gstProducer = app.add_subcommand("gst-producer", "")->group("");
    gstProducer->add_option("orders", options.orders)->required();
    gstProducer->add_option("pipeline", options.pipeline)->required();
    CLI::App* const steady = app.add_subcommand("steady", "")->group("");
    steady->add_option("run", options.steadyRun)->required();
    steady->add_option("frames", options.frames)->required();
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? kRight : kBadUsage;
    }
    options.isProvider = provider->parsed();
    options.isGstProducer = gstProducer->parsed();
    options.isSteady = steady->parsed();
    return std::nullopt;
}

bench::Figures measure(const Options& options) {
    const bench::Effort effort =
        options.quick ? bench::Effort{5, 0.01, true} : bench::Effort{15, 0.1, false};
    const auto isWanted = [&](const Part& part) {
        return options.parts.empty() || std::find(options.parts.begin(), options.parts.end(),
                                                  part.name) != options.parts.end();
    };
    bench::Figures figures;
    for (const Part& part : kParts) {
        if (isWanted(part)) part.run(figures, effort);
    }
    return figures;
}

int run(int argc, char** argv) {
    Options options;
    if (const std::optional<int> code = parse(argc, argv, options)) return *code;
    if (options.isProvider) return bench::serveRoad(options.socket, options.pictures);
    if (options.isGstProducer) return bench::produceForGst(options.orders, options.pipeline);
    host::setStderrLogPriority(ANDROID_LOG_ERROR);
    if (options.isSteady) return bench::runSteady(options.steadyRun, options.frames);

    if (!bench::prepareFolder(options.out)) return kWrong;
    bench::Figures figures = measure(options);
    if (!drawPlots(figures, options.out)) figures.leaveOut("The plots: gnuplot did not draw them.");
    const bool written = bench::writeJson(figures, bench::machine(), options.out);
    printf("Measured on %s\n", bench::machine().c_str());
    bench::print(figures);
    if (written) printf("All samples, and the plots, are in %s\n", options.out.c_str());
    return figures.faults.empty() && written ? kRight : kWrong;
}

}  // namespace

int main(int argc, char** argv) {
    return kit::runProgram(run, argc, argv, kWrong);
}
