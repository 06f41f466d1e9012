#pragma once

#include <sched.h>
#include <sys/types.h>

#include <string>

namespace bench {

/**
 * Keeps this thread, and what it starts, on one processor for the scope of this object. Ends the
 * program when that cannot be.
 */
class OnOneProcessor {
public:
    OnOneProcessor();
    ~OnOneProcessor();
    OnOneProcessor(const OnOneProcessor&) = delete;
    OnOneProcessor& operator=(const OnOneProcessor&) = delete;

private:
    cpu_set_t mBefore;
};

/**
 * The time that a process has spent on processors so far, in microseconds; 0: this one. Ends the
 * program when there is no such process.
 */
double processorMicroseconds(pid_t process = 0);

/** What the figures were measured with: processor, its largest cache, compiler. */
std::string machine();

}  // namespace bench
