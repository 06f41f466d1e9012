#pragma once

namespace host {

/** Makes the next start of a thread fail, a Thread's or the transport's. */
void failNextThreadStart();

/** For whoever starts a thread: true once for each failNextThreadStart(). */
[[nodiscard]] bool takeThreadStartFailure();

/** How many of the platform's threads are running. Any thread. */
int threadCount();

}  // namespace host
