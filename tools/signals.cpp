#include "signals.h"

#include <fcntl.h>
#include <unistd.h>

#include <ctime>

namespace tools {

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

int Signals::poll() const {
    const timespec now = {};
    const int number = sigtimedwait(&mSet, nullptr, &now);
    return number > 0 ? number : 0;
}

void openStandardStreams() {
    int fd = open("/dev/null", O_RDWR | O_CLOEXEC);
    while (fd >= 0 && fd <= STDERR_FILENO)
        fd = open("/dev/null", O_RDWR | O_CLOEXEC);  // the one before stays
    if (fd >= 0) close(fd);
}

}  // namespace tools
