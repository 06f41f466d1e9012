#pragma once

namespace host::detail {

void threadStarted();
void threadEnded();

}  // namespace host::detail
