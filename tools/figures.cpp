#include "figures.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdio>

namespace tools {

namespace {

/** The smallest value that at least this share of all values does not exceed. */
double percentile(const std::vector<Clock::duration>& sorted, size_t percent) {
    const size_t rank = (sorted.size() * percent + 99) / 100;
    return inMilliseconds(sorted[std::max(rank, size_t{1}) - 1]);
}

void printRow(const Figures& figures, FILE* to) {
    fprintf(to, "%-14s %6u %10u %7u %8u %6u", figures.scene.c_str(), figures.asked,
            figures.delivered, figures.failed(), figures.missing(), figures.wrong);
    const double rate = framesPerSecond(figures.arrivals());
    if (rate > 0) {
        fprintf(to, " %9.1f", rate);
    } else {
        fprintf(to, " %9s", "-");
    }
    const std::vector<Clock::duration> latencies = figures.latencies();
    if (latencies.empty()) {
        fprintf(to, " %9s %9s %9s\n", "-", "-", "-");
        return;
    }
    const Latency latency = latencyOf(latencies);
    fprintf(to, " %9.1f %9.1f %9.1f\n", latency.least, latency.median, latency.p99);
}

}  // namespace

void Figures::add(const Answer& answer) {
    switch (answer.outcome) {
        case Answer::Outcome::Filled:
            ++delivered;
            break;
        case Answer::Outcome::Failed:
        case Answer::Outcome::Refused:
            failures.push_back(answer.frameNumber);
            break;
        case Answer::Outcome::Stray:
            return;
        case Answer::Outcome::ForeignPicture:
            ++foreignPictures;
            ++foreign;
            return;
        case Answer::Outcome::ForeignError:
            ++foreign;
            return;
    }
    frames.push_back(
        {answer.frameNumber, answer.outcome, answer.arrival - answer.latency, answer.arrival});
}

std::vector<Clock::duration> Figures::latencies() const {
    std::vector<Clock::duration> result;
    for (const FrameTimes& frame : frames) {
        if (frame.outcome != Answer::Outcome::Refused)
            result.push_back(frame.answered - frame.requested);
    }
    return result;
}

std::vector<Clock::time_point> Figures::arrivals() const {
    std::vector<Clock::time_point> result;
    for (const FrameTimes& frame : frames) {
        if (frame.outcome == Answer::Outcome::Filled) result.push_back(frame.answered);
    }
    return result;
}

double framesPerSecond(const std::vector<Clock::time_point>& arrivals) {
    if (arrivals.size() < 2) return 0;
    const double span = inMilliseconds(arrivals.back() - arrivals.front());
    return span > 0 ? static_cast<double>(arrivals.size() - 1) * 1000 / span : 0;
}

double inMilliseconds(Clock::duration duration) {
    return std::chrono::duration<double, std::milli>(duration).count();
}

Latency latencyOf(std::vector<Clock::duration> latencies) {
    std::sort(latencies.begin(), latencies.end());
    return {percentile(latencies, 0), percentile(latencies, 50), percentile(latencies, 99)};
}

void printTable(const std::vector<Figures>& scenes, FILE* to) {
    fprintf(to, "%-14s %6s %10s %7s %8s %6s %9s  latency in ms, request to answer\n", "", "", "",
            "", "", "", "frames");
    fprintf(to, "%-14s %6s %10s %7s %8s %6s %9s %9s %9s %9s\n", "scene", "asked", "delivered",
            "failed", "missing", "wrong", "a second", "min", "median", "p99");
    for (const Figures& figures : scenes)
        printRow(figures, to);
}

}  // namespace tools
