#pragma once

namespace host {

/** Lets the next Thread::run() of this process fail as if no thread could be made. */
void failNextThreadStart();

/** The platform's threads that were started and have not ended. Any thread may ask. */
int threadCount();

}  // namespace host
