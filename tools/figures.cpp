#include "figures.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdio>

namespace tools {

namespace {

/** Over the time between the first picture and the last; 0 where that is no time. */
double framesPerSecond(const std::vector<Clock::time_point>& arrivals) {
    if (arrivals.size() < 2) return 0;
    const double span = inMilliseconds(arrivals.back() - arrivals.front());
    return span > 0 ? static_cast<double>(arrivals.size() - 1) * 1000 / span : 0;
}

/** The smallest value that at least this share of all values does not exceed. */
double percentile(const std::vector<Clock::duration>& sorted, size_t percent) {
    const size_t rank = (sorted.size() * percent + 99) / 100;
    return inMilliseconds(sorted[std::max(rank, size_t{1}) - 1]);
}

void printRow(const Figures& figures) {
    printf("%-14s %6u %10u %7u %8u %6u", figures.scene.c_str(), figures.asked, figures.delivered,
           figures.failed(), figures.missing(), figures.wrong);
    const double rate = framesPerSecond(figures.arrivals);
    if (rate > 0) {
        printf(" %9.1f", rate);
    } else {
        printf(" %9s", "-");
    }
    if (figures.latencies.empty()) {
        printf(" %9s %9s %9s\n", "-", "-", "-");
        return;
    }
    std::vector<Clock::duration> sorted = figures.latencies;
    std::sort(sorted.begin(), sorted.end());
    printf(" %9.1f %9.1f %9.1f\n", percentile(sorted, 0), percentile(sorted, 50),
           percentile(sorted, 99));
}

}  // namespace

void Figures::add(const Answer& answer) {
    switch (answer.outcome) {
        case Answer::Outcome::Filled:
            ++delivered;
            arrivals.push_back(answer.arrival);
            latencies.push_back(answer.latency);
            break;
        case Answer::Outcome::Failed:
            failures.push_back(answer.frameNumber);
            latencies.push_back(answer.latency);
            break;
        case Answer::Outcome::Refused:
            failures.push_back(answer.frameNumber);
            break;
        case Answer::Outcome::Stray:
            break;
    }
}

double inMilliseconds(Clock::duration duration) {
    return std::chrono::duration<double, std::milli>(duration).count();
}

void printTable(const std::vector<Figures>& scenes) {
    printf("%-14s %6s %10s %7s %8s %6s %9s  latency in ms, request to answer\n", "", "", "", "", "",
           "", "frames");
    printf("%-14s %6s %10s %7s %8s %6s %9s %9s %9s %9s\n", "scene", "asked", "delivered", "failed",
           "missing", "wrong", "a second", "min", "median", "p99");
    for (const Figures& figures : scenes)
        printRow(figures);
}

}  // namespace tools
