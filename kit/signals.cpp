#include "signals.h"

#include <fcntl.h>
#include <unistd.h>

#include <ctime>

namespace kit {

Signals::Signals(std::initializer_list<int> numbers) : mSet() {
    sigemptyset(&mSet);
    for (const int number : numbers)
        sigaddset(&mSet, number);
    pthread_sigmask(SIG_BLOCK, &mSet, nullptr);
}

int Signals::wait() const {
    int number = 0;
    while (sigwait(&mSet, &number) != 0) {
    }
    return number;
}

int Signals::wait(std::chrono::milliseconds patience) const {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(patience);
    const timespec time = {seconds.count(), std::chrono::nanoseconds(patience - seconds).count()};
    const int number = sigtimedwait(&mSet, nullptr, &time);
    return number > 0 ? number : 0;
}

int Signals::poll() const {
    return wait(std::chrono::milliseconds(0));
}

void openStandardStreams() {
    int fd = open("/dev/null", O_RDWR | O_CLOEXEC);
    while (fd >= 0 && fd <= STDERR_FILENO)
        fd = open("/dev/null", O_RDWR | O_CLOEXEC);  // the one before stays
    if (fd >= 0) close(fd);
}

}  // namespace kit
