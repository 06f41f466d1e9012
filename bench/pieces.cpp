#include "pieces.h"

#include <cstdio>
#include <map>

namespace bench {

namespace {

/** Keeps the samples of each benchmark by its name, in microseconds. */
class Collector : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context& /*context*/) override { return true; }
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.error_occurred) {
                errors[run.run_name.function_name] = run.error_message;
            } else if (run.run_type == Run::RT_Iteration) {
                samples[run.run_name.function_name].push_back(run.GetAdjustedRealTime());
            }
        }
    }

    std::map<std::string, std::vector<double>> samples;
    std::map<std::string, std::string> errors;
};

void registerOne(const Contender& contender, const Effort& effort) {
    benchmark::RegisterBenchmark(contender.name.c_str(), contender.run)
        ->Unit(benchmark::kMicrosecond)
        ->UseRealTime()
        ->MinTime(effort.secondsPerSample)
        ->Repetitions(effort.rounds);
}

}  // namespace

void compare(Figures& figures, const Effort& effort, const std::string& piece,
             const std::string& what, const Contender& ours,
             const std::vector<Contender>& references) {
    fprintf(stderr, "%s, %s ...\n", piece.c_str(), what.c_str());
    registerOne(ours, effort);
    for (const Contender& reference : references)
        registerOne(reference, effort);
    Collector collected;
    benchmark::RunSpecifiedBenchmarks(&collected, "all");
    benchmark::ClearRegisteredBenchmarks();

    for (const auto& [name, error] : collected.errors) {
        figures.faults.push_back(piece);
        for (const std::string& part : {what, name, error})
            figures.faults.back().append(", ").append(part);
    }
    const std::vector<double>& mine = collected.samples[ours.name];
    for (const Contender& reference : references) {
        const std::vector<double>& theirs = collected.samples[reference.name];
        if (mine.empty() || mine.size() != theirs.size()) continue;
        figures.comparisons.push_back(
            {piece, what, reference.name, "us", mine, theirs, reference.aim});
    }
}

}  // namespace bench
