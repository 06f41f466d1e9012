#pragma once

#include <pthread.h>

#include <system_error>
#include <thread>
#include <utility>

#include "host/threads.h"

namespace host::detail {

/**
 * Runs `body` on a new thread of this name. False, and `body` is destroyed, when none can be made.
 * failNextThreadStart() has no effect on it.
 */
template <typename Body>
[[nodiscard]] bool startThreadAlways(std::thread& thread, const char* name, Body body) {
    try {
        thread = std::thread([name, body = std::move(body)] {
            pthread_setname_np(pthread_self(), name);
            body();
        });
    } catch (const std::system_error&) {
        return false;
    }
    return true;
}

/** The same, but fails when failNextThreadStart() says so. */
template <typename Body>
[[nodiscard]] bool startThread(std::thread& thread, const char* name, Body body) {
    return !takeThreadStartFailure() && startThreadAlways(thread, name, std::move(body));
}

}  // namespace host::detail
