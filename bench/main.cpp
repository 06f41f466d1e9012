// Measures what the library adds to a frame, against references in the same run.

#include <android/log.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <map>

#include "bench.h"
#include "child_process.h"
#include "command_line.h"
#include "host/log.h"
#include "run_program.h"

namespace {

const std::vector<std::pair<std::string, void (*)(bench::Run&)>> kParts = {
    {"rotation", bench::benchRotation}, {"copies", bench::benchCopies},
    {"request", bench::benchRequest},   {"delivery", bench::benchDelivery},
    {"roads", bench::benchRoads},       {"counts", bench::benchCounts},
    {"growth", bench::benchGrowth},     {"idle", bench::benchIdle},
    {"camera", bench::benchCamera},
};

/** What the program is as another process, by its first argument. */
const std::map<std::string, int (*)(const bench::Arguments&)> kRoles = {
    {"provider", bench::serveRoad},
    {"camera", bench::serveCamera},
    {"gst-producer", bench::produceForGst},
    {"steady", bench::runSteady},
};

constexpr int kRight = 0;
constexpr int kWrong = 1;
constexpr int kBadUsage = 2;

constexpr const char* kExamples =
    "Examples (./run bench is this program, built if need be):\n"
    "  ./run bench --quick                 every part in 90 seconds\n"
    "  ./run bench                         every part in six minutes, to keep\n"
    "  ./run bench --only rotation copies  two parts\n"
    "\n"
    "A ratio is ours to the reference's, measured in the same rounds: below 1 ours\n"
    "takes less. docs/performance.md says what each piece and each reference is.\n"
    "\n"
    "Exit code: 0 measured, 1 something was wrong and got no figure, 2 bad usage.\n"
    "No speed fails it.";

/** What the figures are measured with: processor, its largest cache, compiler. */
std::string machineName() {
    std::string problem;
    const auto lscpu = kit::ChildProcess::startShell(
        "LC_ALL=C lscpu | awk -F': +' '/^Model name/ { name = $2 } /^CPU.s.:/ { count = $2 } "
        "/^L3 cache/ { cache = \", third-level cache \" $2 } END { print name \" x \" count cache }'",
        problem);
    const auto processor = lscpu ? lscpu->nextLine(std::chrono::seconds(5)) : std::nullopt;
    return processor.value_or("an unknown processor") + ", " BENCH_COMPILER;
}

/** The parts of these names; what one throws ends that part. */
void runParts(const std::vector<std::string>& names, bench::Run& found) {
    for (const auto& [name, runPart] : kParts) {
        if (std::find(names.begin(), names.end(), name) == names.end()) continue;
        try {
            runPart(found);
        } catch (const bench::Wrong& wrong) {
            found.faults.push_back(name + ": " + wrong.what());
        }
    }
}

int run(int argc, char** argv) {
    host::setStderrLogPriority(ANDROID_LOG_ERROR);
    if (argc > 1 && kRoles.count(argv[1]) > 0) return kRoles.at(argv[1])({argv + 2, argv + argc});
    bool quick = false;
    std::filesystem::path out = "out/bench";
    std::vector<std::string> names;
    names.reserve(kParts.size());
    for (const auto& part : kParts)
        names.push_back(part.first);
    CLI::App app("Measures what the library adds to a frame, against references in the same run.",
                 "fdstream-bench");
    app.footer(kExamples);
    app.add_flag("--quick", quick, "fewer and shorter samples");
    app.add_option("--only", names,
                   "parts to run, of " + CLI::detail::join(names, ", ") + "; without it all")
        ->check(CLI::IsMember(names).description(""))
        ->type_name("PART");
    app.add_option("--out", out, "folder for figures.json and the plots")
        ->type_name("DIR")
        ->capture_default_str();
    if (const auto code = kit::parseCommandLine(app, argc, argv, kBadUsage)) return *code;

    if (!bench::prepareFolder(out)) return kWrong;
    bench::Run found = quick ? bench::Run{true, 5, 0.01} : bench::Run{false, 15, 0.1};
    runParts(names, found);
    const std::string machine = machineName();
    const bool written = bench::writeFolder(found, machine, out);
    printf("Measured on %s\n", machine.c_str());
    bench::print(found);
    if (written) printf("All samples, and the plots, are in %s\n", out.c_str());
    const bool printed = kit::finishStandardOutput();
    return found.faults.empty() && written && printed ? kRight : kWrong;
}

}  // namespace

std::filesystem::path bench::thisProgram() {
    return kit::programFolder() / "fdstream-bench";
}

int main(int argc, char** argv) {
    return kit::runProgram(run, argc, argv, kWrong);
}
