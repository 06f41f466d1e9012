#include "bench.h"

#include <algorithm>
#include <cstdio>

#include "statistics.h"

namespace bench {

namespace {

double secondsOf(const std::function<void()>& work, size_t count) {
    const Clock::time_point start = Clock::now();
    for (size_t i = 0; i < count; ++i)
        work();
    return microsecondsSince(start) / 1e6;
}

/** How often the work fits into this time. */
size_t timesIn(double seconds, const std::function<void()>& work) {
    for (size_t count = 1;;) {
        const double took = secondsOf(work, count);
        if (took >= seconds) return count;
        const double fitting = static_cast<double>(count) * seconds / took;
        count = std::min(8 * count, static_cast<size_t>(fitting) + 1);
    }
}

/** Adds a sample of each side to its pairings; the first round is to warm up. */
void addRound(size_t round, const std::vector<Side>& sides, std::vector<Pairing>& found) {
    std::vector<Sample> samples(sides.size());
    for (size_t i = 0; i < sides.size(); ++i) {
        const size_t side = (round + i) % sides.size();
        samples[side] = sides[side].sample();
    }
    const size_t measures = samples[0].size();
    for (size_t i = 0; round > 0 && i < found.size(); ++i) {
        found[i].ours.push_back(samples[0][i % measures]);
        found[i].theirs.push_back(samples[1 + i / measures][i % measures]);
    }
}

}  // namespace

double processorMicroseconds(pid_t process, clockid_t clock) {
    timespec time = {};
    expect((process == 0 || clock_getcpuclockid(process, &clock) == 0) &&
               clock_gettime(clock, &time) == 0,
           "the processor time of a process cannot be read");
    return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) / 1e3;
}

OnOneProcessor::OnOneProcessor() {
    CPU_ZERO(&mBefore);
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(static_cast<size_t>(std::max(sched_getcpu(), 0)), &one);
    expect(sched_getaffinity(0, sizeof(mBefore), &mBefore) == 0 &&
               sched_setaffinity(0, sizeof(one), &one) == 0,
           "no thread can be kept on one processor");
}

OnOneProcessor::~OnOneProcessor() {
    sched_setaffinity(0, sizeof(mBefore), &mBefore);
}

Side loopOf(const std::string& name, double secondsPerSample, const std::function<void()>& check,
            const std::function<void()>& work, std::optional<double> aim) {
    const auto sample = [=, count = size_t{0}]() mutable -> Sample {
        if (count == 0) {
            check();
            count = timesIn(secondsPerSample, work);
        }
        return {1e6 * secondsOf(work, count) / static_cast<double>(count)};
    };
    return {name, sample, {aim}};
}

std::vector<double> compare(Run& run, const std::string& piece, const std::string& what,
                            const std::vector<Side>& sides,
                            const std::vector<std::string>& measures) {
    if (sides.size() < 2) return {};  // what ours is compared with is not here
    fprintf(stderr, "%s, %s ...\n", piece.c_str(), what.c_str());
    std::vector<Pairing> found;
    for (size_t i = 1; i < sides.size(); ++i) {
        for (size_t m = 0; m < measures.size(); ++m) {
            const auto aim = m < sides[i].aims.size() ? sides[i].aims[m] : std::nullopt;
            found.push_back({piece, what + measures[m], sides[i].name, {}, {}, aim});
        }
    }
    try {
        for (int round = 0; round <= run.rounds; ++round)
            addRound(static_cast<size_t>(round), sides, found);
    } catch (const Wrong& wrong) {
        run.faults.push_back(piece + ", " + what + ": " + wrong.what());
        return {};
    }
    run.pairings.insert(run.pairings.end(), found.begin(), found.end());
    std::vector<double> medians = {kit::median(found[0].ours)};
    for (size_t i = 0; i < found.size(); i += measures.size())
        medians.push_back(kit::median(found[i].theirs));
    return medians;
}

}  // namespace bench
