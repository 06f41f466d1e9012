// What a session costs while nothing happens.

#include <pthread.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <string>
#include <thread>

#include "benches.h"
#include "records.h"

namespace bench {

namespace {

/** As the kernel keeps "CaptureRequestMonitor". */
constexpr const char* kMonitorName = "CaptureRequestM";
constexpr const char* kBareName = "bare wait";

/** Does nothing but the wait, until told to end. */
void waitBare(std::future<void> end) {
    pthread_setname_np(pthread_self(), kBareName);
    const auto next = [] {
        return std::chrono::system_clock::now() + std::chrono::milliseconds(50);
    };
    while (end.wait_until(next()) == std::future_status::timeout) {
    }
}

/** What the kernel counted for a thread, or for all of a name. */
struct Use {
    double wakeUps = 0;
    double cpuMicroseconds = 0;
};

Use useOf(const std::filesystem::path& task) {
    Use use;
    std::ifstream status(task / "status");
    for (std::string word; status >> word;) {
        if (word == "voluntary_ctxt_switches:") status >> use.wakeUps;
    }
    double nanoseconds = 0;
    std::ifstream(task / "schedstat") >> nanoseconds;
    use.cpuMicroseconds = nanoseconds / 1000;
    return use;
}

/** Of the threads of this process, by their names, since they started. */
std::map<std::string, Use> useByName() {
    std::map<std::string, Use> threads;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string name;
        std::ifstream comm(task.path() / "comm");
        std::getline(comm, name);
        const Use use = useOf(task.path());
        threads[name].wakeUps += use.wakeUps;
        threads[name].cpuMicroseconds += use.cpuMicroseconds;
    }
    return threads;
}

/** Of a second, beside a bare wait. */
std::map<std::string, Use> useInASecond(std::chrono::seconds duration) {
    std::promise<void> end;
    std::thread bare(waitBare, end.get_future());
    std::this_thread::sleep_for(std::chrono::milliseconds(100));  // until all threads have names

    const std::map<std::string, Use> before = useByName();
    const auto begin = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(duration);
    std::map<std::string, Use> use = useByName();
    const std::chrono::duration<double> passed = std::chrono::steady_clock::now() - begin;
    for (auto& [name, now] : use) {
        const auto earlier = before.find(name);
        const Use start = earlier != before.end() ? earlier->second : Use();
        now.wakeUps = (now.wakeUps - start.wakeUps) / passed.count();
        now.cpuMicroseconds = (now.cpuMicroseconds - start.cpuMicroseconds) / passed.count();
    }
    end.set_value();
    bare.join();
    return use;
}

}  // namespace

void benchIdle(Figures& figures, const Effort& effort) {
    fprintf(stderr, "idle ...\n");
    const OwnSession own;
    const auto threads = useInASecond(std::chrono::seconds(effort.quick ? 2 : 5));
    if (threads.count(kMonitorName) == 0 || threads.count(kBareName) == 0) {
        figures.faults.emplace_back("An idle session: its thread was not found.");
        return;
    }
    double wakeUps = 0;
    for (const auto& [name, use] : threads)
        wakeUps += name != kBareName ? use.wakeUps : 0;
    const Use& monitor = threads.at(kMonitorName);
    const auto add = [&](const char* name, double value, const char* unit, const char* expected) {
        figures.facts.push_back({name, value, unit, expected});
    };
    add("an idle session: wake-ups of its thread", monitor.wakeUps, "a second",
        "20 (the 50 ms wait)");
    add("the same, of the whole process", wakeUps, "a second", "nothing more");
    add("an idle session: processor time of its thread", monitor.cpuMicroseconds, "us/s",
        "about that of the wait");
    add("a thread that does nothing but the 50 ms wait", threads.at(kBareName).cpuMicroseconds,
        "us/s", "");
}

}  // namespace bench
