#include "processor.h"

#include <time.h>

#include <fstream>
#include <thread>

namespace bench {

OnOneProcessor::OnOneProcessor() {
    CPU_ZERO(&mBefore);
    sched_getaffinity(0, sizeof(mBefore), &mBefore);
    const int here = sched_getcpu();
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(static_cast<size_t>(here < 0 ? 0 : here), &one);
    sched_setaffinity(0, sizeof(one), &one);
}

OnOneProcessor::~OnOneProcessor() {
    sched_setaffinity(0, sizeof(mBefore), &mBefore);
}

double processorMicroseconds(pid_t process) {
    clockid_t clock = CLOCK_PROCESS_CPUTIME_ID;
    timespec time = {};
    if (process != 0 && clock_getcpuclockid(process, &clock) != 0) return 0;
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) / 1e3;
}

std::string machine() {
    std::ifstream file("/proc/cpuinfo");
    std::string name = "an unnamed processor";
    for (std::string line; std::getline(file, line);) {
        if (line.rfind("model name", 0) != 0) continue;
        name = line.substr(line.find(": ") + 2);
        break;
    }
#ifdef __clang__
    const char* const compiler = "clang " __clang_version__;
#else
    const char* const compiler = "g++ " __VERSION__;
#endif
    return name + " x " + std::to_string(std::thread::hardware_concurrency()) + ", " + compiler;
}

}  // namespace bench
