// What one frame costs in system calls and allocations, counted by strace and valgrind: the same
// steady run is made twice, of two lengths, and what the longer one has more is what its frames
// have cost.

#include "counts_bench.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "benches.h"
#include "child_process.h"
#include "frames.h"
#include "records.h"
#include "road_client.h"
#include "road_provider.h"

namespace bench {

namespace {

constexpr uint32_t kFew = 1000;
constexpr uint32_t kMany = 3000;
constexpr std::chrono::minutes kPatience(2);

/** What each thing that is counted is for. */
struct Reason {
    const char* run;
    const char* what;
    const char* why;
};

constexpr Reason kReasons[] = {
    {"request", "fcntl", "the queued request's own duplicate of the registered handle"},
    {"request", "close", "the end of that, when the provider lets go of it"},
    {"request", "allocation", "list of buffers, duplicated handle, a quarter of a queue's node"},
    {"request", "futex", "of the passing of time: the session's thread wakes 20 times a second"},
    {"two processes", "sendmsg", "a request, a result, and their answers"},
    {"two processes", "recvmsg", "the same at the other ends"},
    {"two processes", "poll", "an answer is waited for no longer than a second"},
    {"two processes", "fcntl", "the duplicates that the queued request and result own"},
    {"two processes", "close", "the end of those, and of what the client got"},
    {"two processes", "futex", "the hand-off to the session's thread, when that one has to wait"},
};

const char* reasonFor(const std::string& run, const std::string& what) {
    const auto* const found = std::find_if(
        std::begin(kReasons), std::end(kReasons),
        [&](const Reason& reason) { return run == reason.run && what == reason.what; });
    return found != std::end(kReasons) ? found->why : "not expected";
}

using Counts = std::map<std::string, double>;

/** Runs a tool on a steady run of this program and gives what the tool wrote; empty: it could not.
 */
std::string report(std::vector<std::string> tool, const std::string& run, uint32_t frames) {
    const std::filesystem::path file =
        std::filesystem::temp_directory_path() / ("fdstream-bench-" + std::to_string(getpid()));
    for (std::string& word : tool) {
        const size_t at = word.find("FILE");
        if (at != std::string::npos) word.replace(at, 4, file.string());
    }
    tool.insert(tool.end(), {std::filesystem::read_symlink("/proc/self/exe").string(), "steady",
                             run, std::to_string(frames)});
    const std::string program = "/usr/bin/" + tool.front();
    tool.erase(tool.begin());
    std::string problem;
    const auto child = tools::ChildProcess::start(program, tool, problem);
    const bool ran = child != nullptr && child->waitForEnd(kPatience) == 0;
    std::stringstream text;
    if (ran) text << std::ifstream(file).rdbuf();
    std::filesystem::remove(file);
    return text.str();
}

/** The calls in strace's table, by their names. */
Counts systemCalls(const std::string& run, uint32_t frames) {
    std::istringstream lines(
        report({"strace", "-f", "-c", "-U", "calls,name", "-o", "FILE"}, run, frames));
    Counts counts;
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        double calls = 0;
        std::string name;
        const bool isRow = words >> calls >> name && isalpha(name.front()) != 0;
        if (isRow && name != "total") counts[name] = calls;
    }
    return counts;
}

/** The blocks in valgrind's summary, "total heap usage: 1,234 allocs, ...". */
Counts allocations(const std::string& run, uint32_t frames) {
    const std::string text =
        report({"valgrind", "--log-file=FILE", "--leak-check=no"}, run, frames);
    const std::string before = "total heap usage: ";
    const size_t at = text.find(before);
    if (at == std::string::npos) return {};
    std::string digits;
    for (size_t i = at + before.size(); text[i] != ' '; ++i) {
        if (text[i] != ',') digits += text[i];
    }
    return {{"allocation", std::stod(digits)}};
}

void addCounts(Figures& figures, const std::string& run, const std::string& tool,
               Counts (*count)(const std::string& run, uint32_t frames)) {
    fprintf(stderr, "counts, %s, %s ...\n", run.c_str(), tool.c_str());
    const Counts few = count(run, kFew);
    const Counts many = count(run, kMany);
    if (few.empty() || many.empty()) {
        figures.leaveOut("What " + tool + " counts, because it is missing or cannot run.");
        return;
    }
    double rest = 0;
    for (const auto& [name, calls] : many) {
        const auto before = few.find(name);
        const double each = (calls - (before != few.end() ? before->second : 0)) / (kMany - kFew);
        // What comes with the passing of time, and not with each frame, is not told one by one.
        if (each < 0.05) {
            rest += each;
        } else {
            figures.facts.push_back({run + ": " + name, each, "a frame", reasonFor(run, name)});
        }
    }
    if (many.size() > 1) {
        figures.facts.push_back(
            {run + ": every other call", rest, "a frame", "about 0: of the passing of time"});
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
    addCounts(figures, "request", "strace", systemCalls);
    addCounts(figures, "request", "valgrind", allocations);
    addCounts(figures, "two processes", "strace", systemCalls);
}

}  // namespace bench
