#pragma once

namespace host::detail {

/** True once for each failNextThreadStart(). */
bool takeThreadStartFailure();
void threadStarted();
void threadEnded();

}  // namespace host::detail
