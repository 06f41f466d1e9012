#pragma once

#include <cstdint>
#include <string>

namespace bench {

/** So many frames of one kind and nothing else, for tools that count; the exit code. */
int runSteady(const std::string& run, uint32_t frames);

}  // namespace bench
