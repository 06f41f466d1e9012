// A fuzzer's target without the fuzzer, for every build: its corpus, and random bytes that are the
// same each time.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <set>
#include <vector>

#include "support.h"

namespace {

void tryInput(const std::vector<char>& input) {
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(input.data()), input.size());
}

size_t tryCorpus(const char* folder) {
    std::set<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        files.insert(entry.path());
    for (const auto& path : files) {
        std::ifstream file(path, std::ios::binary);
        tryInput({std::istreambuf_iterator<char>(file), {}});
    }
    return files.size();
}

void tryRandom(long inputs) {
    std::mt19937 random;  // NOLINT(cert-msc51-cpp): the same each time
    for (long i = 0; i < inputs; ++i) {
        std::vector<char> input(random() % 512);
        for (char& byte : input)
            byte = static_cast<char>(random());
        tryInput(input);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        fprintf(stderr, "Usage: %s CORPUS RANDOM_INPUTS\n", argv[0]);
        return 2;
    }
    const size_t known = tryCorpus(argv[1]);
    tryRandom(strtol(argv[2], nullptr, 10));
    printf("%zu inputs of the corpus, %s random ones: nothing found\n", known, argv[2]);
    return 0;
}
