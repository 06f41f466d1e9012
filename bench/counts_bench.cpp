// What one frame costs in system calls, allocations, instructions and switches, counted: the same
// steady run is made twice, of two lengths, and what the longer one has more is what its frames
// have cost. The bare sockets stand beside the whole road.

#include "counts_bench.h"

#include <sys/resource.h>

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
#include <system_error>
#include <vector>

#include "bare_road.h"
#include "benches.h"
#include "child_process.h"
#include "frames.h"
#include "processor.h"
#include "records.h"
#include "road_client.h"
#include "road_provider.h"

namespace bench {

namespace {

constexpr uint32_t kFew = 1000;
constexpr uint32_t kMany = 3000;
constexpr std::chrono::minutes kPatience(2);

/** What counts. */
enum class Tool { STRACE, MEMCHECK, CALLGRIND, KERNEL };

/** What each thing that is counted is for, and how many of it a frame is to have. */
struct Reason {
    const char* run;
    Tool tool;
    const char* what;
    std::optional<double> count;  ///< none: it depends on the machine
    const char* why;
};

constexpr const char* kRequest = "request";
constexpr const char* kRoad = "two processes";
constexpr const char* kBare = "bare sockets";

constexpr Reason kReasons[] = {
    {kRequest, Tool::STRACE, "fcntl", 1,
     "the queued request's own duplicate of the registered handle"},
    {kRequest, Tool::STRACE, "close", 1, "the end of that, when the provider lets go of it"},
    {kRequest,
     Tool::STRACE,
     "futex",
     {},
     "of the passing of time: the session's thread wakes 20 times a second"},
    {kRequest, Tool::STRACE, "clock_gettime", {}, "the clock, where the kernel has to be asked"},
    {kRequest, Tool::MEMCHECK, "allocation", 2.25,
     "list of buffers, duplicated handle, a quarter of a queue's node"},
    {kRoad, Tool::STRACE, "sendmsg", 4, "a request, a result, and their answers"},
    {kRoad, Tool::STRACE, "recvmsg", 4, "the same at the other ends"},
    {kRoad, Tool::STRACE, "poll", 1, "a client's answer is waited for no longer than a second"},
    {kRoad, Tool::STRACE, "fcntl", 2, "the duplicates that the queued request and result own"},
    {kRoad, Tool::STRACE, "close", 3, "the end of those, and of what the client got"},
    {kRoad,
     Tool::STRACE,
     "futex",
     {},
     "the hand-off to the session's thread, if that one has to wait"},
    {kRoad, Tool::STRACE, "clock_gettime", {}, "the clock, where the kernel has to be asked"},
    {kRoad,
     Tool::MEMCHECK,
     "allocation",
     {},
     "records and their handles on both sides, messages, queues"},
    {kRoad, Tool::CALLGRIND, "instruction", {}, "outside the kernel, of both processes"},
    {kRoad,
     Tool::KERNEL,
     "switch",
     {},
     "of threads on one processor: 4, and those that a wake-up forces"},
    {kBare, Tool::STRACE, "sendmsg", 4, "as above"},
    {kBare, Tool::STRACE, "recvmsg", 4, "as above"},
    {kBare, Tool::STRACE, "dup", 1, "the result's descriptor"},
    {kBare, Tool::STRACE, "close", 2, "the end of that on both sides"},
    {kBare, Tool::STRACE, "futex", {}, "as above"},
    {kBare, Tool::CALLGRIND, "instruction", {}, "as above"},
    {kBare, Tool::KERNEL, "switch", {}, "as above"},
};

// What comes with the passing of time, and not with each frame, stays below this.
constexpr double kNoise = 0.05;

using Counts = std::map<std::string, double>;

/** What makes a run leave its reports as files in the folder that it runs in. */
const std::vector<std::string> kStrace = {"strace", "-f", "-c", "-U", "calls,name", "-o", "calls"};
const std::vector<std::string> kMemcheck = {"valgrind", "--leak-check=no", "--trace-children=yes",
                                            "--log-file=log.%p"};
const std::vector<std::string> kCallgrind = {"valgrind", "--tool=callgrind", "--trace-children=yes",
                                             "--log-file=log.%p", "--callgrind-out-file=/dev/null"};

/** A steady run of this program, under a tool or none; false when it fails. */
bool runUnder(std::vector<std::string> words, const std::string& run, uint32_t frames) {
    words.insert(words.end(), {std::filesystem::read_symlink("/proc/self/exe").string(), "steady",
                               run, std::to_string(frames)});
    std::string problem;
    const auto child = kit::ChildProcess::start("/usr/bin/env", words, problem);
    return child != nullptr && child->waitForEnd(kPatience) == 0;
}

/** What a tool wrote of a steady run; empty: it failed. */
std::string report(const std::vector<std::string>& tool, const std::string& run, uint32_t frames) {
    char folder[] = "/tmp/fdstream-counts-XXXXXX";
    if (mkdtemp(folder) == nullptr) return {};
    std::vector<std::string> words = {"-C", folder};
    words.insert(words.end(), tool.begin(), tool.end());
    std::stringstream text;
    if (runUnder(words, run, frames)) {
        for (const auto& file : std::filesystem::directory_iterator(folder))
            text << std::ifstream(file.path()).rdbuf();
    }
    std::error_code error;
    std::filesystem::remove_all(folder, error);
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
        if (name == "gettimeofday") name = "clock_gettime";
        if (isRow && name != "total") counts[name] += calls;
    }
    return counts;
}

/** The sum of the numbers behind this text, one for each process. */
double sumOf(const std::string& text, const std::string& before) {
    double sum = 0;
    for (size_t at = text.find(before); at != std::string::npos; at = text.find(before, at + 1)) {
        const size_t first = at + before.size();
        std::string digits =
            text.substr(first, text.find_first_not_of("0123456789,", first) - first);
        digits.erase(std::remove(digits.begin(), digits.end(), ','), digits.end());
        sum += std::strtod(digits.c_str(), nullptr);
    }
    return sum;
}

/** The blocks in the summaries, "total heap usage: 1,234 allocs, ...". */
Counts allocations(const std::string& run, uint32_t frames) {
    const std::string text = report(kMemcheck, run, frames);
    if (text.empty()) return {};
    return {{"allocation", sumOf(text, "total heap usage: ")}};
}

/** Outside the kernel, "Collected : 1234". */
Counts instructions(const std::string& run, uint32_t frames) {
    const std::string text = report(kCallgrind, run, frames);
    if (text.empty()) return {};
    return {{"instruction", sumOf(text, "Collected : ")}};
}

/** Of all threads of a run's processes, which have ended with it. */
Counts switches(const std::string& run, uint32_t frames) {
    const auto soFar = [] {
        rusage usage = {};
        getrusage(RUSAGE_CHILDREN, &usage);
        return static_cast<double>(usage.ru_nvcsw + usage.ru_nivcsw);
    };
    const OnOneProcessor pinned;
    const double before = soFar();
    if (!runUnder({}, run, frames)) return {};
    return {{"switch", soFar() - before}};
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
void addExpected(Figures& figures, const std::string& run, Tool tool, Counts& counts) {
    for (const Reason& reason : kReasons) {
        if (run != reason.run || tool != reason.tool) continue;
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

void addCounts(Figures& figures, const std::string& run, Tool tool, const std::string& name,
               Counts (*count)(const std::string& run, uint32_t frames)) {
    fprintf(stderr, "counts, %s, %s ...\n", run.c_str(), name.c_str());
    const Counts few = count(run, kFew);
    const Counts many = count(run, kMany);
    if (few.empty() || many.empty()) {
        figures.leaveOut("What " + name + " counts of \"" + run +
                         "\", because it is missing or cannot run.");
        return;
    }
    Counts counts = eachFrame(few, many);
    addExpected(figures, run, tool, counts);
    for (const auto& [what, each] : counts) {
        if (each > kNoise)
            figures.faults.push_back(run + ": " + what + ", a call that has no reason");
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
    const bool right = run == kRequest ? steadyRequests(frames)
                       : run == kBare  ? BareRoad(1, false).run(frames)
                                       : steadyRoad(frames);
    return right ? EXIT_SUCCESS : EXIT_FAILURE;
}

void benchCounts(Figures& figures, const Effort& effort) {
    for (const std::string run : {kRequest, kRoad, kBare}) {
        if (!runUnder({}, run, kFew)) {
            figures.faults.push_back(run + ": a frame did not come, or was wrong");
            return;
        }
        addCounts(figures, run, Tool::STRACE, "strace", systemCalls);
        if (run != kRequest) addCounts(figures, run, Tool::KERNEL, "the kernel", switches);
        if (run != kRequest && effort.quick) continue;
        if (run != kBare) addCounts(figures, run, Tool::MEMCHECK, "valgrind", allocations);
        if (run != kRequest) addCounts(figures, run, Tool::CALLGRIND, "callgrind", instructions);
    }
    if (effort.quick) figures.leaveOut("Instructions of the roads, for which --quick has no time.");
}

}  // namespace bench
