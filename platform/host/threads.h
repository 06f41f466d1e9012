#pragma once

namespace host {

/** Lets the next start of a thread, a Thread's or the transport's, fail as if none could be made.
 */
void failNextThreadStart();

/** True once for each failNextThreadStart(): for who starts a thread. */
bool takeThreadStartFailure();

/** The platform's threads that were started and have not ended. Any thread may ask. */
int threadCount();

}  // namespace host
