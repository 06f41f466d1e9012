#pragma once

#include <cstdint>
#include <string>

#include "host/unique_fd.h"

namespace tools {

/** The most that is taken from a pipe: 4 GiB. */
constexpr uint64_t kMostSpooled = uint64_t{4} << 30;

/**
 * Reads to the end, into a file without a name in the folder for temporary files, so that nothing
 * is left behind however this program ends. Invalid, and the reason in `problem`, when that cannot
 * be or when there is more than `most` bytes.
 */
host::UniqueFd spool(int from, uint64_t most, std::string& problem);

}  // namespace tools
