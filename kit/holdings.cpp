#include "holdings.h"

#include <malloc.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>
#include <thread>

namespace kit {

namespace {

namespace fs = std::filesystem;

int entriesOf(const fs::path& folder) {
    std::error_code error;
    int entries = 0;
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end;
         entry.increment(error)) {
        ++entries;
    }
    return entries;
}

int bufferMappings(const fs::path& maps) {
    std::ifstream file(maps);
    int mappings = 0;
    for (std::string line; std::getline(file, line);) {
        if (line.find("memfd:fdstream-buffer") != std::string::npos) ++mappings;
    }
    return mappings;
}

}  // namespace

Holdings Holdings::of(pid_t process) {
    // A process that looks at itself has the look's own descriptor, each time alike.
    const fs::path folder = fs::path("/proc") / std::to_string(process);
    return {entriesOf(folder / "fd"), entriesOf(folder / "task"), bufferMappings(folder / "maps")};
}

Holdings Holdings::settled(pid_t process) {
    // What the provider holds for a moment in each of its passes is gone between two looks.
    constexpr std::chrono::milliseconds kPause(70);
    constexpr int kSame = 4;
    constexpr int kLooks = 60;

    Holdings holdings = of(process);
    int same = 1;
    for (int look = 1; look < kLooks && same < kSame; ++look) {
        std::this_thread::sleep_for(kPause);
        const Holdings now = of(process);
        same = now == holdings ? same + 1 : 1;
        holdings = now;
    }
    return holdings;
}

std::string Holdings::differenceFrom(const Holdings& before) const {
    std::ostringstream text;
    const auto compare = [&text](const char* what, int was, int is) {
        if (was != is) text << what << ": " << was << " before, " << is << " after. ";
    };
    compare("descriptors", before.descriptors, descriptors);
    compare("threads", before.threads, threads);
    compare("buffer mappings", before.mappings, mappings);
    return text.str();
}

size_t allocatedBytes() {
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

}  // namespace kit
