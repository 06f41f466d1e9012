// The session against a model of it, in random sequences of what all its users and bad luck do.

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "model/sequence.h"

namespace testing_support {

static uint64_t numberFrom(const char* variable, uint64_t otherwise) {
    const char* const text = getenv(variable);
    return text != nullptr ? std::stoull(text) : otherwise;
}

// FDSTREAM_MODEL_SEQUENCES and FDSTREAM_MODEL_SEED choose how many, and which is the first.
TEST(SessionModelTest, AgreesWithTheSessionOnEverythingThatCanBeSeen) {
    const FileSet files;
    const uint64_t first = numberFrom("FDSTREAM_MODEL_SEED", 0);
    const uint64_t count = numberFrom("FDSTREAM_MODEL_SEQUENCES", 1000);
    for (uint64_t seed = first; seed < first + count; ++seed) {
        const Sequence sequence = sequenceOf(seed);
        if (disagreement(files, sequence).empty()) continue;
        const Sequence shortest = shrunk(
            sequence, [&](const Sequence& tried) { return !disagreement(files, tried).empty(); });
        FAIL() << "seed " << seed << ", " << disagreement(files, shortest) << asCode(shortest);
    }
}

}  // namespace testing_support
