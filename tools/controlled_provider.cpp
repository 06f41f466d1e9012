#include "controlled_provider.h"

#include <err.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "command_line.h"

namespace tools {

namespace {

/** Whether who reads the standard output has gone. */
bool isUnread() {
    pollfd output = {STDOUT_FILENO, 0, 0};
    return poll(&output, 1, 0) > 0 && (output.revents & POLLERR) != 0;
}

}  // namespace

int ControlledProvider::setScene(Return<Answer> (IFDControl::*put)(const SceneControl&),
                                 const SceneWords& words) const {
    FrameSides of = words.of.value_or(FrameSides{});
    if (!words.of && !words.crops.empty()) {
        std::optional<control::CameraStatus> status;
        const int code = getStatus(status);
        if (code != kDone) return code;
        if (!status) {
            warnx("%s; say with --of WxH what the rectangles are in",
                  control::inWords(Answer::NO_PICTURE));
            return kRefused;
        }
        of = {status->width, status->height};
    }
    return set(put, words.record(of));
}

int ControlledProvider::showStatus() const {
    std::optional<control::CameraStatus> status;
    const int code = getStatus(status);
    return code == kDone ? print(json(status)) : code;
}

int ControlledProvider::observe(std::optional<uint64_t> count) const {
    uint64_t seen = 0;
    bool isFirst = true;
    while (!count || seen < *count) {
        control::Event event;
        const int code = codeOf(mControl->watch(event));
        if (code != kDone) return code;
        const bool isCall = event.kind != control::Event::Kind::NONE;
        if (isFirst) printf("{\"event\":\"observing\"}\n");
        if (event.missed > 0) {
            printf("{\"event\":\"missed\",\"count\":%llu}\n",
                   static_cast<unsigned long long>(event.missed));
        }
        if (isCall) puts(json(event).c_str());
        isFirst = false;
        seen += isCall ? 1 : 0;
        if (isUnread()) return kDone;
        if (fflush(stdout) == 0) continue;
        if (errno == EPIPE) return kDone;
        warn("standard output cannot be written");
        return kRefused;
    }
    return kDone;
}

int ControlledProvider::codeOf(const Return<Answer>& answer) const {
    if (!answer.isOk()) {
        warnx("%s", answer.description().c_str());
        return mControl->ping().isOk() ? kRefused : kNoProvider;
    }
    if (static_cast<Answer>(answer) == Answer::OK) return kDone;
    warnx("%s", control::inWords(answer));
    return kRefused;
}

int ControlledProvider::getStatus(std::optional<control::CameraStatus>& status) const {
    control::CameraStatus now;
    const Return<Answer> answer = mControl->getStatus(now);
    if (answer.isOk() && static_cast<Answer>(answer) == Answer::NO_PICTURE) return kDone;
    const int code = codeOf(answer);
    if (code == kDone) status = now;
    return code;
}

int ControlledProvider::print(const std::string& line) {
    puts(line.c_str());
    return kit::finishStandardOutput() ? kDone : kRefused;
}

}  // namespace tools
