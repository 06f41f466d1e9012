#include "figures.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <iterator>

#include "statistics.h"

namespace tools {

namespace {

/** One decimal, or a stroke where there is no figure. */
void printCell(FILE* to, bool isThere, double number) {
    if (isThere) {
        fprintf(to, " %6.1f", number);
    } else {
        fprintf(to, " %6s", "-");
    }
}

void printRow(const Figures& figures, FILE* to) {
    fprintf(to, "%-14s %5u %9u %6u %7u %5u", figures.scene.c_str(), figures.asked,
            figures.delivered, figures.failed(), figures.missing(), figures.wrong);
    const double rate = framesPerSecond(figures.arrivals());
    const std::vector<Clock::duration> latencies = figures.latencies();
    const bool answered = !latencies.empty();
    const Latency latency = answered ? latencyOf(latencies) : Latency();
    printCell(to, rate > 0, rate);
    printCell(to, answered, latency.least);
    printCell(to, answered, latency.median);
    printCell(to, answered, latency.p99);
    fprintf(to, "\n");
}

}  // namespace

void Figures::add(const Answer& answer) {
    switch (answer.outcome) {
        case Answer::Outcome::Filled:
        case Answer::Outcome::Skipped:
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
        if (frame.outcome == Answer::Outcome::Filled || frame.outcome == Answer::Outcome::Skipped)
            result.push_back(frame.answered);
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

Latency latencyOf(const std::vector<Clock::duration>& latencies) {
    std::vector<double> times;
    std::transform(latencies.begin(), latencies.end(), std::back_inserter(times), inMilliseconds);
    return {kit::percentile(times, 0), kit::median(times), kit::percentile(times, 99)};
}

void printTable(const std::vector<Figures>& scenes, FILE* to) {
    fprintf(to, "%-14s %5s %9s %6s %7s %5s %6s      latency, ms\n", "", "", "", "", "", "",
            "frames");
    fprintf(to, "%-14s %5s %9s %6s %7s %5s %6s %6s %6s %6s\n", "scene", "asked", "delivered",
            "failed", "missing", "wrong", "per s", "min", "median", "p99");
    for (const Figures& figures : scenes)
        printRow(figures, to);
    fprintf(to, "Latency is from a request to its answer, so it waits for those made before it.\n");
}

}  // namespace tools
