// A fuzzer's target without the fuzzer, for every build: its corpus, and so many random inputs,
// which are the same each time.

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <vector>

#include "support.h"

/** The arguments are a corpus and a number of random inputs. */
int main(int /*count*/, char** argv) {
    for (const auto& entry : std::filesystem::directory_iterator(argv[1])) {
        std::ifstream file(entry.path(), std::ios::binary);
        const std::vector<uint8_t> input(std::istreambuf_iterator<char>(file), {});
        LLVMFuzzerTestOneInput(input.data(), input.size());
    }
    std::mt19937 random;  // NOLINT(cert-msc51-cpp): the same each time
    for (long left = strtol(argv[2], nullptr, 10); left > 0; --left) {
        std::vector<uint8_t> input(random() % 512);
        std::generate(input.begin(), input.end(), [&] { return static_cast<uint8_t>(random()); });
        LLVMFuzzerTestOneInput(input.data(), input.size());
    }
    return 0;
}
