#include "thread_registry.h"

#include <atomic>

#include "host/threads.h"

namespace host {

namespace {
std::atomic<int> failures{0};
std::atomic<int> threads{0};
}  // namespace

void failNextThreadStart() {
    failures.fetch_add(1);
}

int threadCount() {
    return threads.load();
}

bool takeThreadStartFailure() {
    int left = failures.load();
    while (left > 0) {
        if (failures.compare_exchange_weak(left, left - 1)) return true;
    }
    return false;
}

namespace detail {

void threadStarted() {
    threads.fetch_add(1);
}

void threadEnded() {
    threads.fetch_sub(1);
}

}  // namespace detail
}  // namespace host
