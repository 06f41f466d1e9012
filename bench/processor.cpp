#include "processor.h"

#include <err.h>
#include <time.h>

#include <cstddef>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>

namespace bench {

OnOneProcessor::OnOneProcessor() {
    CPU_ZERO(&mBefore);
    const bool known = sched_getaffinity(0, sizeof(mBefore), &mBefore) == 0;
    const int here = sched_getcpu();
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(static_cast<size_t>(here < 0 ? 0 : here), &one);
    if (!known || sched_setaffinity(0, sizeof(one), &one) != 0)
        err(EXIT_FAILURE, "no thread can be kept on one processor");
}

OnOneProcessor::~OnOneProcessor() {
    if (sched_setaffinity(0, sizeof(mBefore), &mBefore) != 0)
        err(EXIT_FAILURE, "the thread cannot be let go again");
}

double processorMicroseconds(pid_t process) {
    clockid_t clock = CLOCK_PROCESS_CPUTIME_ID;
    timespec time = {};
    if ((process != 0 && clock_getcpuclockid(process, &clock) != 0) ||
        clock_gettime(clock, &time) != 0) {
        errx(EXIT_FAILURE, "the processor time of process %d cannot be read", process);
    }
    return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) / 1e3;
}

namespace {

/** The processor's name, where the kernel gives one; else the number of its maker's model. */
std::string processorName() {
    std::ifstream file("/proc/cpuinfo");
    std::string name = "an unnamed processor";
    for (std::string line; std::getline(file, line);) {
        const size_t value = line.find(": ");
        if (value == std::string::npos) continue;
        if (line.rfind("CPU part", 0) == 0) name = "processor part " + line.substr(value + 2);
        if (line.rfind("model name", 0) == 0) return line.substr(value + 2);
    }
    return name;
}

/** As the kernel writes it, "32768K"; the third level is the largest. */
std::string cacheSize() {
    std::ifstream file("/sys/devices/system/cpu/cpu0/cache/index3/size");
    std::string size;
    return file >> size ? ", third-level cache " + size : "";
}

}  // namespace

std::string machine() {
#ifdef __clang__
    const char* const compiler = "clang " __clang_version__;
#else
    const char* const compiler = "g++ " __VERSION__;
#endif
    return processorName() + " x " + std::to_string(std::thread::hardware_concurrency()) +
           cacheSize() + ", " + compiler;
}

}  // namespace bench
