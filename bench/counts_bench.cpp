// What one frame costs in system calls and allocations, counted by strace and valgrind: the same
// steady run is made twice, of two lengths, and what the longer one has more is what its frames
// have cost.

#include "counts_bench.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "benches.h"
#include "child_process.h"
#include "frames.h"
#include "host/unique_fd.h"
#include "records.h"
#include "road_client.h"
#include "road_provider.h"

namespace bench {

namespace {

constexpr uint32_t kFew = 1000;
constexpr uint32_t kMany = 3000;
constexpr std::chrono::minutes kPatience(2);

/** What each thing that is counted is for, and how many of it a frame is to have. */
struct Reason {
    const char* run;
    const char* what;
    std::optional<double> count;  ///< none: it depends on the machine
    const char* why;
};

constexpr Reason kReasons[] = {
    {"request", "fcntl", 1, "the queued request's own duplicate of the registered handle"},
    {"request", "close", 1, "the end of that, when the provider lets go of it"},
    {"request", "allocation", 2.25,
     "list of buffers, duplicated handle, a quarter of a queue's node"},
    {"request",
     "futex",
     {},
     "of the passing of time: the session's thread wakes 20 times a second"},
    {"two processes", "sendmsg", 4, "a request, a result, and their answers"},
    {"two processes", "recvmsg", 4, "the same at the other ends"},
    {"two processes", "poll", 1, "a client's answer is waited for no longer than a second"},
    {"two processes", "fcntl", 2, "the duplicates that the queued request and result own"},
    {"two processes", "close", 3, "the end of those, and of what the client got"},
    {"two processes", "futex", {}, "the hand-off to the session's thread, if that one has to wait"},
    {"request", "clock_gettime", {}, "the clock, where the kernel has to be asked"},
    {"request", "gettimeofday", {}, "the clock, where the kernel has to be asked"},
    {"two processes", "clock_gettime", {}, "the clock, where the kernel has to be asked"},
    {"two processes", "gettimeofday", {}, "the clock, where the kernel has to be asked"},
};

// What comes with the passing of time, and not with each frame, stays below this.
constexpr double kNoise = 0.05;

using Counts = std::map<std::string, double>;

const std::vector<std::string> kStrace = {"strace", "-f", "-c", "-U", "calls,name", "-o"};
const std::vector<std::string> kValgrind = {"valgrind", "--leak-check=no", "--log-file="};

/** A steady run of this program, under a tool or none; false when it fails. */
bool runUnder(std::vector<std::string> words, const std::string& run, uint32_t frames) {
    words.insert(words.end(), {std::filesystem::read_symlink("/proc/self/exe").string(), "steady",
                               run, std::to_string(frames)});
    std::string problem;
    const auto child = tools::ChildProcess::start("/usr/bin/env", words, problem);
    return child != nullptr && child->waitForEnd(kPatience) == 0;
}

/** What a tool, whose last word awaits a file's name, wrote of a steady run; empty: it failed. */
std::string report(std::vector<std::string> tool, const std::string& run, uint32_t frames) {
    const host::UniqueFd file(memfd_create("counts", MFD_CLOEXEC));
    const std::string name =
        "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(file.get());
    if (tool.back().back() == '=') {
        tool.back() += name;
    } else {
        tool.push_back(name);
    }
    std::stringstream text;
    if (runUnder(tool, run, frames)) text << std::ifstream(name).rdbuf();
    return text.str();
}

/** The calls in strace's table, by their names. */
Counts systemCalls(const std::string& run, uint32_t frames) {
    std::istringstream lines(report(kStrace, run, frames));
    Counts counts;
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        double calls = 0;
        std::string name;
        const bool isRow = words >> calls >> name && name.front() >= 'a' && name.front() <= 'z';
        if (name == "ppoll") name = "poll";  // what 64-bit Arm makes of it
        if (isRow && name != "total") counts[name] = calls;
    }
    return counts;
}

/** The blocks in valgrind's summary, "total heap usage: 1,234 allocs, ...". */
Counts allocations(const std::string& run, uint32_t frames) {
    const std::string text = report(kValgrind, run, frames);
    const std::string before = "total heap usage: ";
    const size_t at = text.find(before);
    if (at == std::string::npos) return {};
    std::string digits = text.substr(at + before.size(), text.find(" allocs", at) - at);
    digits.erase(std::remove(digits.begin(), digits.end(), ','), digits.end());
    return {{"allocation", std::strtod(digits.c_str(), nullptr)}};
}

/** A run's counts for one frame, and nothing of what the two runs have in common. */
Counts eachFrame(const Counts& few, const Counts& many) {
    Counts counts;
    for (const auto& [name, calls] : many) {
        const auto before = few.find(name);
        const double more = calls - (before != few.end() ? before->second : 0);
        counts[name] = more / (kMany - kFew);
    }
    return counts;
}

/** Adds what is expected of a run, and takes it out of the counts; another number is a fault. */
void addExpected(Figures& figures, const std::string& run, bool isAllocation, Counts& counts) {
    for (const Reason& reason : kReasons) {
        if (run != reason.run || isAllocation != (reason.what == std::string("allocation")))
            continue;
        const double each = counts[reason.what];
        counts.erase(reason.what);
        if (reason.count && std::abs(each - *reason.count) > kNoise) {
            figures.faults.push_back(run + ": " + std::to_string(each) + " " + reason.what +
                                     " a frame, where " + std::to_string(*reason.count) +
                                     " have a reason");
        }
        if (reason.count || each > kNoise)
            figures.facts.push_back({run + ": " + reason.what, each, "a frame", reason.why});
    }
}

void addCounts(Figures& figures, const std::string& run, const std::string& tool,
               Counts (*count)(const std::string& run, uint32_t frames)) {
    fprintf(stderr, "counts, %s, %s ...\n", run.c_str(), tool.c_str());
    const Counts few = count(run, kFew);
    const Counts many = count(run, kMany);
    if (few.empty() || many.empty()) {
        figures.leaveOut("What " + tool + " counts of \"" + run +
                         "\", because it is missing or cannot run.");
        return;
    }
    Counts counts = eachFrame(few, many);
    addExpected(figures, run, tool == "valgrind", counts);
    for (const auto& [name, each] : counts) {
        if (each > kNoise)
            figures.faults.push_back(run + ": " + name + ", a call that has no reason");
    }
}

/** Requests for one known buffer, each queued and taken. */
bool steadyRequests(uint32_t frames) {
    const FrameBuffer frame(kTiny, kTiny.width);
    const OwnSession session;
    session->handleConfigure(streamOf(kTiny));
    CaptureRequest taken;
    const auto goesThrough = [&](const CaptureRequest& request) {
        return session->handleCaptureRequest(request) == 0 &&
               session->getProcessCaptureRequest(taken) == 0;
    };
    bool right = goesThrough(requestFor(0, 1, frame.memory.handle()));
    const CaptureRequest known = requestFor(1, 1);
    while (right && frames-- > 0)
        right = goesThrough(known);
    return right;
}

/** The whole road over two processes, one frame at a time. */
bool steadyRoad(uint32_t frames) {
    std::string problem;
    const auto provider = RoadProvider::start(false, problem);
    if (provider == nullptr) return false;
    const auto client =
        RoadClient::connect(provider->socket(), kTiny, 1, Asking::InCallback, false, problem);
    return client != nullptr && client->run(frames);
}

}  // namespace

int runSteady(const std::string& run, uint32_t frames) {
    const bool right = run == "request" ? steadyRequests(frames) : steadyRoad(frames);
    return right ? EXIT_SUCCESS : EXIT_FAILURE;
}

void benchCounts(Figures& figures, const Effort& /*effort*/) {
    for (const char* run : {"request", "two processes"}) {
        if (!runUnder({}, run, kFew)) {
            figures.faults.push_back(std::string(run) + ": a frame did not come, or was wrong");
            return;
        }
    }
    addCounts(figures, "request", "strace", systemCalls);
    addCounts(figures, "request", "valgrind", allocations);
    addCounts(figures, "two processes", "strace", systemCalls);
}

}  // namespace bench
