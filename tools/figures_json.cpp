#include "figures_json.h"

#include <cstdint>
#include <cstdio>
#include <sstream>

namespace tools {

namespace {

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
        case Ending::TakenOver:
            return "taken over";
        case Ending::NotKept:
            return "not kept";
        case Ending::Gone:
            break;
    }
    return "provider gone";
}

const char* nameOf(Answer::Outcome outcome) {
    switch (outcome) {
        case Answer::Outcome::Filled:
        case Answer::Outcome::Skipped:
            return "delivered";
        case Answer::Outcome::Refused:
            return "refused";
        default:
            return "failed";
    }
}

std::string number(double value) {
    char text[32];
    snprintf(text, sizeof(text), "%.3f", value);
    return text;
}

std::string numberOrNull(bool isNumber, double value) {
    return isNumber ? number(value) : "null";
}

/** The answered requests, their times counted from the first one's. */
std::string framesOf(const Figures& figures) {
    std::ostringstream out;
    const char* separator = "\n";
    for (const FrameTimes& frame : figures.frames) {
        const Clock::time_point start = figures.frames.front().requested;
        out << separator << "    {\"frame\": " << frame.number << ", \"outcome\": \""
            << nameOf(frame.outcome)
            << "\", \"requested_ms\": " << number(inMilliseconds(frame.requested - start))
            << ", \"answered_ms\": " << number(inMilliseconds(frame.answered - start)) << "}";
        separator = ",\n";
    }
    return out.str();
}

}  // namespace

std::string jsonOf(const Figures& figures, const StreamSettings& settings) {
    const double rate = framesPerSecond(figures.arrivals());
    const std::vector<Clock::duration> latencies = figures.latencies();
    const bool answered = !latencies.empty();
    const Latency latency = answered ? latencyOf(latencies) : Latency();

    std::ostringstream out;
    out << "{\n"
        << "  \"width\": " << settings.size.width << ",\n"
        << "  \"height\": " << settings.size.height << ",\n"
        << "  \"buffers\": " << settings.buffers << ",\n"
        << "  \"rate\": " << number(settings.requestsPerSecond) << ",\n"
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
        << "  \"exit_reason\": \"" << nameOf(figures.ending) << "\",\n"
        << "  \"frames\": [" << framesOf(figures) << "\n  ]\n"
        << "}\n";
    return out.str();
}

}  // namespace tools
