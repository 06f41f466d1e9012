#pragma once

#include <string>

#include "face_finder.h"

namespace tools {

/**
 * One object in one line, as docs/client-json.md has it. `sight` is null for a frame that was not
 * looked at.
 */
std::string lineOf(const Answer& answer, const Sight* sight);

}  // namespace tools
