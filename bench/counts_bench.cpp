// What one frame costs in system calls, allocations, instructions and switches, counted: the same
// steady run is made twice, of two lengths, and what the longer one has more is what its frames
// have cost. The bare sockets stand beside the whole road.

#include <sys/resource.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>

#include "bench.h"
#include "child_process.h"
#include "roads.h"
#include "session.h"
#include "temporary_folder.h"

namespace bench {

namespace {

constexpr uint32_t kFew = 1000;
constexpr uint32_t kMany = 3000;

constexpr const char* kRequest = "request";
constexpr const char* kRoad = "two processes";
constexpr const char* kBare = "bare sockets";

/** What each thing that is counted is for, and how many of it a frame is to have. */
struct Reason {
    const char* kind;
    const char* what;
    std::optional<double> count;
    const char* why;
};

constexpr std::nullopt_t kVaries = std::nullopt;  // with the machine

// The system calls, and what other tools count.
constexpr Reason kCalls[] = {
    {kRequest, "fcntl", 1, "the queued request's own duplicate of the registered handle"},
    {kRequest, "close", 1, "the end of that, when the provider lets go of it"},
    {kRequest, "futex", kVaries, "the session's thread wakes 20 times a second"},
    {kRequest, "clock_gettime", kVaries, "the clock, where the kernel has to be asked"},
    {kRoad, "sendmsg", 4, "a request, a result, and their answers"},
    {kRoad, "recvmsg", 4, "the same at the other ends"},
    {kRoad, "poll", 1, "a client's answer is waited for no longer than a second"},
    {kRoad, "fcntl", 2, "the duplicates that the queued request and result own"},
    {kRoad, "close", 3, "the end of those, and of what the client got"},
    {kRoad, "futex", kVaries, "the hand-off to the session's thread, if that one has to wait"},
    {kRoad, "clock_gettime", kVaries, "the clock, where the kernel has to be asked"},
    {kBare, "sendmsg", 4, "as above"},
    {kBare, "recvmsg", 4, "as above"},
    {kBare, "dup", 1, "the result's descriptor"},
    {kBare, "close", 2, "the end of that on both sides"},
    {kBare, "futex", kVaries, "as above"},
};
constexpr Reason kOthers[] = {
    {kRequest, "allocation", 2.25,
     "list of buffers, duplicated handle, a quarter of a queue's node"},
    {kRoad, "allocation", kVaries, "records and their handles on both sides, messages, queues"},
    {kRoad, "instruction", kVaries, "outside the kernel, of both processes"},
    {kRoad, "switch", kVaries, "of threads on one processor: 4, and those that a wake-up forces"},
    {kBare, "instruction", kVaries, "as above"},
    {kBare, "switch", kVaries, "as above"},
};

// What comes with the passing of time, and not with each frame, stays below this.
constexpr double kNoise = 0.05;

using Counts = std::map<std::string, double>;

// What makes a run leave its reports as files in the folder that it runs in.
const Arguments kStrace = {"strace", "-f", "-c", "-U", "calls,name", "-o", "calls"};
const Arguments kValgrind = {"valgrind", "--trace-children=yes", "--log-file=log.%p"};

/** A steady run of this program, under a tool or none; false when it fails. */
bool runUnder(Arguments words, const std::string& kind, uint32_t frames,
              const kit::ChildOptions& options = {}) {
    words.insert(words.end(), {thisProgram(), "steady", kind, std::to_string(frames)});
    std::string problem;
    const auto child = kit::ChildProcess::start("/usr/bin/env", words, problem, options);
    return child != nullptr && child->exitCode(std::chrono::minutes(2)) == 0;
}

/** What a tool wrote of a steady run; empty: it failed. */
std::string report(const Arguments& tool, const std::string& kind, uint32_t frames) {
    const kit::TemporaryFolder folder;
    kit::ChildOptions there;
    there.folder = folder.path();
    std::stringstream text;
    if (!runUnder(tool, kind, frames, there)) return {};
    for (const auto& file : std::filesystem::directory_iterator(folder.path()))
        text << std::ifstream(file.path()).rdbuf();
    return text.str();
}

/** The calls in strace's table, by their names. */
Counts systemCalls(const std::string& kind, uint32_t frames) {
    std::istringstream lines(report(kStrace, kind, frames));
    Counts counts;
    if (lines.str().empty()) return counts;
    for (const Reason& reason : kCalls)
        counts[reason.what] = 0;
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

/** The sum of the numbers behind this text, one for each process; nothing without a report. */
Counts valgrind(Arguments options, const std::string& kind, uint32_t frames, const char* what,
                const std::string& before) {
    options.insert(options.begin(), kValgrind.begin(), kValgrind.end());
    const std::string text = report(options, kind, frames);
    Counts counts;
    const std::regex number(before + "([0-9,]+)");
    for (std::sregex_iterator found(text.begin(), text.end(), number), end; found != end; ++found) {
        std::string digits = (*found)[1];
        digits.erase(std::remove(digits.begin(), digits.end(), ','), digits.end());
        counts[what] += std::stod(digits);
    }
    return counts;
}

Counts allocations(const std::string& kind, uint32_t frames) {
    return valgrind({"--leak-check=no"}, kind, frames, "allocation", "total heap usage: ");
}

/** Outside the kernel. */
Counts instructions(const std::string& kind, uint32_t frames) {
    return valgrind({"--tool=callgrind", "--callgrind-out-file=/dev/null"}, kind, frames,
                    "instruction", "Collected : ");
}

/** Of all threads of a run's processes, which have ended with it. */
Counts switches(const std::string& kind, uint32_t frames) {
    const OnOneProcessor pinned;
    rusage before = {};
    rusage after = {};
    getrusage(RUSAGE_CHILDREN, &before);
    if (!runUnder({}, kind, frames)) return {};
    getrusage(RUSAGE_CHILDREN, &after);
    const auto all = [](const rusage& use) { return use.ru_nvcsw + use.ru_nivcsw; };
    return {{"switch", static_cast<double>(all(after) - all(before))}};
}

/** Adds what has a reason, and takes it out of the counts; another number of it is a fault. */
void addExpected(Run& run, const std::string& kind, const Reason& reason, Counts& counts) {
    const auto found = counts.find(reason.what);
    if (kind != reason.kind || found == counts.end()) return;
    const double each = found->second;
    counts.erase(found);
    if (reason.count && std::abs(each - *reason.count) > kNoise) {
        run.faults.push_back(kind + ": " + std::to_string(each) + " " + reason.what +
                             " a frame, where " + std::to_string(*reason.count) + " have a reason");
    }
    if (reason.count || each > kNoise)
        run.facts.push_back({kind + ": " + reason.what, each, "a frame", reason.why});
}

/** What the longer run has more, for each frame. */
void addCounts(Run& run, const std::string& kind, const std::string& name,
               Counts (*count)(const std::string& kind, uint32_t frames)) {
    fprintf(stderr, "counts, %s, %s ...\n", kind.c_str(), name.c_str());
    Counts few = count(kind, kFew);
    Counts counts = count(kind, kMany);
    if (few.empty() || counts.empty()) {
        run.leaveOut("What " + name + " counts of \"" + kind +
                     "\", because it is missing or cannot run.");
        return;
    }
    for (auto& [what, each] : counts)
        each = (each - few[what]) / (kMany - kFew);
    for (const Reason& reason : kCalls)
        addExpected(run, kind, reason, counts);
    for (const Reason& reason : kOthers)
        addExpected(run, kind, reason, counts);
    for (const auto& [what, each] : counts) {
        if (each > kNoise) run.faults.push_back(kind + ": " + what + ", a call that has no reason");
    }
}

/** Requests for one known buffer, each queued and taken. */
void steadyRequests(uint32_t frames) {
    const host::Buffer buffer = kit::allocate(kTiny);
    const OwnSession session;
    CaptureRequest taken;
    expect(session.pass(kit::requestFor(0, 1, buffer.handle()), taken));
    const CaptureRequest known = kit::requestFor(1, 1);
    while (frames-- > 0)
        expect(session.pass(known, taken));
}

}  // namespace

int runSteady(const Arguments& arguments) {
    const std::string& kind = arguments.at(0);
    const auto frames = static_cast<uint32_t>(std::stoul(arguments.at(1)));
    if (kind == kRequest) {
        steadyRequests(frames);
    } else if (kind == kBare) {
        startBareRoad(1, false)->run(frames);
    } else {
        startOurRoad(1, Asking::InCallback, false)->run(frames);
    }
    return EXIT_SUCCESS;
}

void benchCounts(Run& run) {
    for (const std::string kind : {kRequest, kRoad, kBare}) {
        expect(runUnder({}, kind, kFew));
        addCounts(run, kind, "strace", systemCalls);
        if (kind != kRequest) addCounts(run, kind, "the kernel", switches);
        if (kind != kRequest && run.quick) continue;
        if (kind != kBare) addCounts(run, kind, "valgrind", allocations);
        if (kind != kRequest) addCounts(run, kind, "callgrind", instructions);
    }
    if (run.quick) run.leaveOut("Instructions of the roads, for which --quick has no time.");
}

}  // namespace bench
