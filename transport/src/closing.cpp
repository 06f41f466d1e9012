#include "closing.h"

#include <android-base/thread_annotations.h>

#include <deque>
#include <mutex>
#include <thread>
#include <utility>

#include "descriptor_kind.h"
#include "host/limits.h"
#include "start_thread.h"

namespace host::detail {

namespace {

/** Never destroyed: its threads may outlive main(). */
struct Closing {
    std::mutex mutex;
    std::deque<UniqueFd> waiting GUARDED_BY(mutex);
    size_t threads GUARDED_BY(mutex) = 0;
};

Closing& closing() {
    static auto* const instance = new Closing;
    return *instance;
}

/** The next one that waits. Invalid when there is none; the calling thread must then end. */
UniqueFd takeNext() {
    const std::lock_guard<std::mutex> lock(closing().mutex);
    if (closing().waiting.empty()) {
        --closing().threads;
        return {};
    }
    UniqueFd next = std::move(closing().waiting.front());
    closing().waiting.pop_front();
    return next;
}

void closeAll() {
    while (takeNext().isValid()) {
    }
}

}  // namespace

void closeLater(UniqueFd fd) {
    if (!fd.isValid()) return;
    const std::lock_guard<std::mutex> lock(closing().mutex);
    closing().waiting.push_back(std::move(fd));
    if (closing().threads == kClosingThreads) return;
    std::thread thread;
    // When no thread can be made, a later call of closeLater() or a running thread closes it.
    if (!startThreadAlways(thread, "closing", closeAll)) return;
    thread.detach();
    ++closing().threads;
}

void closeUnused(std::vector<UniqueFd>& fds) {
    for (UniqueFd& fd : fds) {
        if (!fd.isValid() || isFence(fd.get()) || isMemory(fd.get())) {
            fd.reset();
        } else {
            closeLater(std::move(fd));
        }
    }
    fds.clear();
}

bool isClosingBehind() {
    const std::lock_guard<std::mutex> lock(closing().mutex);
    return closing().waiting.size() >= kMaxWaitingToClose;
}

}  // namespace host::detail
