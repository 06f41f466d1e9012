#pragma once

#include <string>

#include "figures.h"
#include "stream_client.h"

namespace tools {

/** One object for scripts, as docs/client-json.md has it. */
std::string jsonOf(const Figures& figures, const StreamSettings& settings);

}  // namespace tools
