#pragma once

#include <vector>

namespace kit {

/**
 * The smallest of the values that at least this share of all does not exceed. REQUIRES: there is at
 * least one.
 */
double percentile(std::vector<double> values, double percent);
double median(std::vector<double> values);

}  // namespace kit
