// Measures what the library adds to a frame, against references in the same run.

#include <benchmark/benchmark.h>
#include <CLI/CLI.hpp>

#include <cstdio>
#include <cstdlib>

#include "benches.h"
#include "figures.h"
#include "pieces.h"

int main(int argc, char** argv) {
    CLI::App app("Measures what the library adds to a frame, against references in the same run.");
    bool quick = false;
    app.add_flag("--quick", quick, "fewer and shorter samples: about a minute");
    CLI11_PARSE(app, argc, argv);
    const bench::Effort effort =
        quick ? bench::Effort{5, 0.01, true} : bench::Effort{15, 0.1, false};

    char program[] = "fdstream-bench";
    char interleaved[] = "--benchmark_enable_random_interleaving=true";
    char* arguments[] = {program, interleaved, nullptr};
    int count = 2;
    benchmark::Initialize(&count, arguments);

    bench::Figures figures;
    // X bench::benchRotation(figures, effort);
    // Xbench::benchCopies(figures, effort);
    bench::benchRequest(figures, effort);
    bench::benchDelivery(figures, effort);
    bench::print(figures);
    return figures.faults.empty() ? EXIT_SUCCESS : EXIT_FAILURE;
}
