// Measures what the library adds to a frame, against references in the same run.

#include <android/log.h>
#include <benchmark/benchmark.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "benches.h"
#include "counts_bench.h"
#include "figures.h"
#include "host/log.h"
#include "output.h"
#include "pieces.h"
#include "processor.h"
#include "road_provider.h"

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

void initializeBenchmark() {
    char program[] = "fdstream-bench";
    char interleaved[] = "--benchmark_enable_random_interleaving=true";
    char* arguments[] = {program, interleaved, nullptr};
    int count = 2;
    benchmark::Initialize(&count, arguments);
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("Measures what the library adds to a frame, against references in the same run.",
                 "fdstream-bench");
    bool quick = false;
    app.add_flag("--quick", quick, "Fewer and shorter samples: about a minute");
    std::vector<std::string> parts;
    app.add_option("--only", parts, "Parts to run; all when there are none")
        ->check(CLI::IsMember(partNames()));
    std::filesystem::path out = "out/bench";
    app.add_option("--out", out, "Folder for figures.json and the plots")->capture_default_str();
    CLI::App* const provider = app.add_subcommand("provider", "")->group("");  // for itself
    std::string socket;
    bool pictures = false;
    provider->add_option("socket", socket)->required();
    provider->add_flag("--pictures", pictures);
    CLI::App* const steady = app.add_subcommand("steady", "")->group("");  // for itself
    std::string run;
    uint32_t frames = 0;
    steady->add_option("run", run)->required();
    steady->add_option("frames", frames)->required();
    CLI11_PARSE(app, argc, argv);
    if (*provider) return bench::serveRoad(socket, pictures);

    host::setStderrLogPriority(ANDROID_LOG_ERROR);
    if (*steady) return bench::runSteady(run, frames);
    initializeBenchmark();
    const bench::Effort effort =
        quick ? bench::Effort{5, 0.01, true} : bench::Effort{15, 0.1, false};
    std::filesystem::create_directories(out);
    bench::Figures figures;
    for (const Part& part : kParts) {
        const bool wanted =
            parts.empty() || std::find(parts.begin(), parts.end(), part.name) != parts.end();
        if (wanted) part.run(figures, effort);
    }
    if (!drawPlots(figures, out))
        figures.absent.emplace_back("The plots: gnuplot did not draw them.");
    const bool written = bench::writeJson(figures, bench::machine(), out / "figures.json");
    printf("Measured on %s\n", bench::machine().c_str());
    bench::print(figures);
    printf("\nFigures and plots are in %s\n", out.c_str());
    return figures.faults.empty() && written ? EXIT_SUCCESS : EXIT_FAILURE;
}
