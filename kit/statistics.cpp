#include "statistics.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <utility>

namespace kit {

double percentile(std::vector<double> values, double percent) {
    const auto rank = std::ceil(static_cast<double>(values.size()) * percent / 100);
    const size_t index = static_cast<size_t>(std::max(rank, 1.0)) - 1;
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(index),
                     values.end());
    return values[index];
}

double median(std::vector<double> values) {
    return percentile(std::move(values), 50);
}

}  // namespace kit
