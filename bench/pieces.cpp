#include "pieces.h"

#include <cstddef>
#include <cstdio>

namespace bench {

namespace {

/** Keeps the one run that it is told of. */
class LastRun : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context& /*context*/) override { return true; }
    void ReportRuns(const std::vector<Run>& runs) override { run = runs.front(); }

    Run run;
};

/** One contender with its samples, in microseconds. */
class Series {
public:
    Series(const Contender& contender, double secondsPerSample)
        : mContender(contender), mSecondsPerSample(secondsPerSample) {
        takeSample();  // finds how often it fits into a sample, and warms up
        mSamples.clear();
    }

    void takeSample() {
        auto* const benchmark =
            benchmark::RegisterBenchmark(mContender.name.c_str(), mContender.run);
        benchmark->Unit(benchmark::kMicrosecond)->UseRealTime();
        if (mIterations == 0) {
            benchmark->MinTime(mSecondsPerSample);
        } else {
            benchmark->Iterations(mIterations);
        }
        LastRun last;
        benchmark::RunSpecifiedBenchmarks(&last, "all");
        benchmark::ClearRegisteredBenchmarks();
        if (last.run.error_occurred) {
            mError = last.run.error_message;
            return;
        }
        mIterations = last.run.iterations;
        mSamples.push_back(last.run.GetAdjustedRealTime());
    }

    const Contender& contender() const { return mContender; }
    const std::vector<double>& samples() const { return mSamples; }
    /** Empty when all it made was right. */
    const std::string& error() const { return mError; }

private:
    const Contender mContender;
    const double mSecondsPerSample;
    benchmark::IterationCount mIterations = 0;
    std::vector<double> mSamples;
    std::string mError;
};

}  // namespace

void compare(Figures& figures, const Effort& effort, const std::string& piece,
             const std::string& what, const Contender& ours,
             const std::vector<Contender>& references) {
    fprintf(stderr, "%s, %s ...\n", piece.c_str(), what.c_str());
    std::vector<Series> all = {Series(ours, effort.secondsPerSample)};
    for (const Contender& reference : references)
        all.emplace_back(reference, effort.secondsPerSample);
    for (size_t round = 0; round < static_cast<size_t>(effort.rounds); ++round) {
        for (size_t i = 0; i < all.size(); ++i)
            all[(round + i) % all.size()].takeSample();
    }

    const Series& mine = all.front();
    for (const Series& each : all) {
        const std::string& name = each.contender().name;
        if (!each.error().empty()) {
            figures.faults.push_back(piece + ", " + what + ", " + name + ": " + each.error());
        } else if (&each != &mine && mine.error().empty()) {
            figures.comparisons.push_back(
                {piece, what, name, "us", mine.samples(), each.samples(), each.contender().aim});
        }
    }
}

}  // namespace bench
