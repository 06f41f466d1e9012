#pragma once

#include <chrono>
#include <csignal>
#include <initializer_list>

namespace kit {

/**
 * Signals that are taken when the program is ready for them, instead of breaking in. Made before
 * the first thread, which would otherwise get them. A value; signals stay blocked.
 */
class Signals {
public:
    Signals(std::initializer_list<int> numbers);

    /** Waits for the next one. */
    int wait() const;
    /** Waits for so long only; 0 when none has come. */
    int wait(std::chrono::milliseconds patience) const;
    /** Takes one that has come; 0 when none has. */
    int poll() const;

private:
    sigset_t mSet;
};

/**
 * Gives a program that was started without its standard streams empty ones, so that no socket gets
 * their numbers and takes what is printed.
 */
void openStandardStreams();

}  // namespace kit
