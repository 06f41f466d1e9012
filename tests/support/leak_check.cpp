#include "support/leak_check.h"

#include <sched.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace testing_support {

namespace {

int countEntries(const char* folder) {
    // The iterator's own descriptor is one of the entries of /proc/self/fd, each time alike.
    int count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(folder))
        ++count;
    return count;
}

int countBufferMappings() {
    std::ifstream maps("/proc/self/maps");
    int count = 0;
    for (std::string line; std::getline(maps, line);) {
        if (line.find("memfd:fdstream-buffer") != std::string::npos) ++count;
    }
    return count;
}

}  // namespace

Holdings Holdings::now() {
    return {countEntries("/proc/self/fd"), countEntries("/proc/self/task"), countBufferMappings()};
}

std::string Holdings::differenceFrom(const Holdings& before) const {
    std::ostringstream text;
    const auto compare = [&text](const char* what, int was, int is) {
        if (was != is) text << what << ": " << was << " before, " << is << " after. ";
    };
    compare("descriptors", before.descriptors, descriptors);
    compare("threads", before.threads, threads);
    compare("buffer mappings", before.bufferMappings, bufferMappings);
    return text.str();
}

void LeakCheck::OnTestStart(const testing::TestInfo& /*info*/) {
    mBefore = Holdings::now();
}

void LeakCheck::OnTestEnd(const testing::TestInfo& /*info*/) {
    // A thread that dropped the last reference to its own object still has a few steps to its end.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    // Looked at twice, because the list of threads can miss one while another ends.
    const auto look = [this] {
        const std::string once = Holdings::now().differenceFrom(mBefore);
        return once.empty() ? Holdings::now().differenceFrom(mBefore) : once;
    };
    std::string difference = look();
    while (!difference.empty() && std::chrono::steady_clock::now() < deadline) {
        sched_yield();
        difference = look();
    }
    EXPECT_EQ(difference, "");
}

}  // namespace testing_support
