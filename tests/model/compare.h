#pragma once

#include <functional>
#include <string>

#include "model/operation.h"

namespace testing_support {

class Files;

/** What the session and its model do not agree on first; empty when they agree on all of it. */
std::string disagreement(const Files& files, const Sequence& sequence);

/** The fewest operations, and the fewest of their bytes, for which this still holds. */
Sequence shrunk(Sequence sequence, const std::function<bool(const Sequence&)>& holds);

}  // namespace testing_support
