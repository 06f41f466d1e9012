#include "figures.h"

#include <err.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <fstream>

namespace tools {

namespace {

/** In milliseconds. */
struct Latency {
    double least;
    double median;
    double p99;
};

/** The smallest value that at least this share of all values does not exceed. */
double percentile(const std::vector<Clock::duration>& sorted, size_t percent) {
    const size_t rank = (sorted.size() * percent + 99) / 100;
    return inMilliseconds(sorted[std::max(rank, size_t{1}) - 1]);
}

/** REQUIRES: there is at least one. */
Latency latencyOf(std::vector<Clock::duration> latencies) {
    std::sort(latencies.begin(), latencies.end());
    return {percentile(latencies, 0), percentile(latencies, 50), percentile(latencies, 99)};
}

const char* nameOf(Ending ending) {
    switch (ending) {
        case Ending::Complete:
            return "complete";
        case Ending::Refused:
            return "refused";
        case Ending::Silent:
            return "silent";
        case Ending::Interrupted:
            return "interrupted";
        case Ending::Gone:
            break;
    }
    return "provider gone";
}

std::string numberOrNull(bool isNumber, double number) {
    char text[32] = "null";
    if (isNumber) snprintf(text, sizeof(text), "%.3f", number);
    return text;
}

/** One decimal, or a stroke where there is no figure. */
void printCell(bool isThere, double number) {
    if (isThere) {
        printf(" %6.1f", number);
    } else {
        printf(" %6s", "-");
    }
}

void printRow(const Figures& figures) {
    printf("%-14s %5u %9u %6u %7u %5u", figures.scene.c_str(), figures.asked, figures.delivered,
           figures.failed(), figures.missing(), figures.wrong);
    const double rate = framesPerSecond(figures.arrivals);
    const bool answered = !figures.latencies.empty();
    const Latency latency = answered ? latencyOf(figures.latencies) : Latency();
    printCell(rate > 0, rate);
    printCell(answered, latency.least);
    printCell(answered, latency.median);
    printCell(answered, latency.p99);
    printf("\n");
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
        case Answer::Outcome::ForeignPicture:
            ++foreignPictures;
            ++foreign;
            break;
        case Answer::Outcome::ForeignError:
            ++foreign;
            break;
    }
}

double framesPerSecond(const std::vector<Clock::time_point>& arrivals) {
    if (arrivals.size() < 2) return 0;
    const double span = inMilliseconds(arrivals.back() - arrivals.front());
    return span > 0 ? static_cast<double>(arrivals.size() - 1) * 1000 / span : 0;
}

double inMilliseconds(Clock::duration duration) {
    return std::chrono::duration<double, std::milli>(duration).count();
}

void printTable(const std::vector<Figures>& scenes) {
    printf("%-14s %5s %9s %6s %7s %5s %6s      latency, ms\n", "", "", "", "", "", "", "frames");
    printf("%-14s %5s %9s %6s %7s %5s %6s %6s %6s %6s\n", "scene", "asked", "delivered", "failed",
           "missing", "wrong", "per s", "min", "median", "p99");
    for (const Figures& figures : scenes)
        printRow(figures);
    printf("Latency is from a request to its answer, so it waits for those made before it.\n");
}

bool writeJson(const Figures& figures, const std::filesystem::path& path) {
    const double rate = framesPerSecond(figures.arrivals);
    const bool answered = !figures.latencies.empty();
    const Latency latency = answered ? latencyOf(figures.latencies) : Latency();

    std::ofstream file(path);
    file << "{\n"
         << "  \"asked\": " << figures.asked << ",\n"
         << "  \"delivered\": " << figures.delivered << ",\n"
         << "  \"failed\": " << figures.failed() << ",\n"
         << "  \"missing\": " << figures.missing() << ",\n"
         << "  \"wrong\": " << figures.wrong << ",\n"
         << "  \"foreign\": " << figures.foreign << ",\n"
         << "  \"fps\": " << numberOrNull(rate > 0, rate) << ",\n"
         << "  \"latency_min_ms\": " << numberOrNull(answered, latency.least) << ",\n"
         << "  \"latency_median_ms\": " << numberOrNull(answered, latency.median) << ",\n"
         << "  \"latency_p99_ms\": " << numberOrNull(answered, latency.p99) << ",\n"
         << "  \"exit_reason\": \"" << nameOf(figures.ending) << "\"\n"
         << "}\n";
    if (file.flush()) return true;
    warn("%s cannot be written", path.c_str());
    return false;
}

}  // namespace tools
