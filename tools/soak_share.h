#pragma once

#include <string>

namespace tools {

/**
 * Measures what one client can take of the provider, a row for each way, and prints the table.
 * Each row has a provider of its own. Empty, or a sentence when something could not be measured.
 */
std::string printShare();

}  // namespace tools
