#include "holdings.h"

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>
#include <thread>

namespace kit {

namespace {

namespace fs = std::filesystem;

size_t entriesOf(const fs::path& folder) {
    std::error_code error;
    size_t entries = 0;
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end;
         entry.increment(error)) {
        ++entries;
    }
    return entries;
}

size_t bufferMappings(const fs::path& maps) {
    std::ifstream file(maps);
    size_t mappings = 0;
    for (std::string line; std::getline(file, line);) {
        if (line.find("memfd:fdstream-buffer") != std::string::npos) ++mappings;
    }
    return mappings;
}

Holdings holdingsOf(pid_t process) {
    const fs::path folder = fs::path("/proc") / std::to_string(process);
    return {entriesOf(folder / "fd"), bufferMappings(folder / "maps"), entriesOf(folder / "task")};
}

}  // namespace

Holdings settledHoldings(pid_t process) {
    // What the provider holds for a moment in each of its passes is gone between two looks.
    constexpr std::chrono::milliseconds kPause(70);
    constexpr int kSame = 4;
    constexpr int kLooks = 60;

    Holdings holdings = holdingsOf(process);
    int same = 1;
    for (int look = 1; look < kLooks && same < kSame; ++look) {
        std::this_thread::sleep_for(kPause);
        const Holdings now = holdingsOf(process);
        same = now == holdings ? same + 1 : 1;
        holdings = now;
    }
    return holdings;
}

void printHoldings(const std::vector<NamedHoldings>& rows) {
    printf("%-30s %11s %15s %7s\n", "the provider has", "descriptors", "buffer mappings",
           "threads");
    for (const NamedHoldings& row : rows) {
        printf("%-30s %11zu %15zu %7zu\n", row.name.c_str(), row.holdings.descriptors,
               row.holdings.mappings, row.holdings.threads);
    }
}

}  // namespace kit
