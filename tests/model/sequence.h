#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "model/operands.h"

namespace testing_support {

/** One of Subject::kKinds, and any bytes: what they stand for is up to the kind. */
struct Operation {
    uint8_t kind;
    Args args;
};
using Sequence = std::vector<Operation>;

/** The number of the kind that this byte stands for: of the frequent ones by many. */
uint8_t kindAt(uint8_t byte);
/** 20 to 60 operations, always the same ones for a seed. */
Sequence sequenceOf(uint64_t seed);
/** Operations from arbitrary bytes, 60 at most. */
Sequence sequenceFrom(const uint8_t* data, size_t size);
/** What the session and its model, one after the other with the same memories, do not agree on
 * first, and the sequence as code for a test; empty when they agree on all of it. */
std::string disagreement(const FileSet& files, const Sequence& sequence);
/** Without operations, and bytes of them, that this does not need to hold. */
Sequence shrunk(Sequence sequence, const std::function<bool(const Sequence&)>& holds);

}  // namespace testing_support
