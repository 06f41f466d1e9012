// The session against a model of it, in random sequences of what all its users and bad luck do.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "host/mapper.h"
#include "model/sequence.h"

namespace testing_support {

static uint64_t numberFrom(const char* variable, uint64_t otherwise) {
    const char* const text = getenv(variable);
    return text != nullptr ? std::stoull(text) : otherwise;
}

// FDSTREAM_MODEL_SEQUENCES and FDSTREAM_MODEL_SEED choose how many, and which is the first.
TEST(SessionModelTest, AgreesWithTheSessionOnEverythingThatCanBeSeen) {
    const FileSet files;
    const host::MapperCounters before = host::mapperCounters();
    const uint64_t first = numberFrom("FDSTREAM_MODEL_SEED", 0);
    const uint64_t count = numberFrom("FDSTREAM_MODEL_SEQUENCES", 1000);
    for (uint64_t seed = first; seed < first + count; ++seed) {
        const Sequence sequence = sequenceOf(seed);
        if (disagreement(files, sequence).empty()) continue;
        const Sequence shortest = shrunk(
            sequence, [&](const Sequence& tried) { return !disagreement(files, tried).empty(); });
        FAIL() << "seed " << seed << ", " << disagreement(files, shortest);
    }
    if (count < 1000) return;
    // Sequences that get nowhere agree, too: most have to know buffers, and some to turn frames.
    const host::MapperCounters now = host::mapperCounters();
    EXPECT_GT(now.imports - before.imports, static_cast<int64_t>(5 * count));
    EXPECT_GT(now.locks - before.locks, static_cast<int64_t>(count / 8));
}

}  // namespace testing_support
