#include "source/stop_signal.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <cerrno>
#include <ctime>
#include <system_error>

namespace camera {

namespace {

timespec untilThen(StopSignal::Clock::time_point deadline) {
    const auto now = StopSignal::Clock::now();
    const auto left = deadline > now ? deadline - now : StopSignal::Clock::duration(0);
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
    return {seconds.count(), std::chrono::nanoseconds(left - seconds).count()};
}

}  // namespace

StopSignal::StopSignal() : mEvent(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!mEvent.isValid()) throw std::system_error(errno, std::generic_category(), "eventfd");
}

void StopSignal::raise() const {
    eventfd_write(mEvent.get(), 1);
}

bool StopSignal::isRaised() const {
    return wait(-1, Clock::time_point()) == Woken::STOPPED;
}

bool StopSignal::sleepUntil(Clock::time_point when) const {
    return wait(-1, when) != Woken::STOPPED;
}

StopSignal::Woken StopSignal::waitToRead(int fd, Clock::time_point deadline) const {
    return wait(fd, deadline);
}

StopSignal::Woken StopSignal::wait(int fd, Clock::time_point deadline) const {
    pollfd entries[] = {{mEvent.get(), POLLIN, 0}, {fd, POLLIN, 0}};  // a negative one is left out
    for (;;) {
        const timespec left = untilThen(deadline);
        const int ready = ppoll(entries, 2, &left, nullptr);
        if (ready < 0 && errno == EINTR) continue;
        if (ready > 0) return entries[0].revents != 0 ? Woken::STOPPED : Woken::READY;
        return Woken::LATE;
    }
}

}  // namespace camera
