#include "soak_ledger.h"

#include <algorithm>
#include <cinttypes>
#include <cstddef>
#include <cstdio>
#include <string_view>

namespace tools {

namespace {

constexpr size_t kSettled = 2;  // the third pause: by then the allocator has had its usual peaks
constexpr int64_t kMostGrowthKiB = 2048;

// A sanitizer keeps what was freed and a shadow of what was ever touched: there memory says
// nothing.
constexpr bool kMemoryIsJudged = std::string_view(SANITIZERS).empty();

std::string inMiB(int64_t kib) {
    char text[32];
    snprintf(text, sizeof(text), "%.1f MB", static_cast<double>(kib) / 1024);
    return text;
}

std::string timeInWords(std::chrono::seconds time) {
    char text[32];
    snprintf(text, sizeof(text), "%d:%02d", static_cast<int>(time.count() / 60),
             static_cast<int>(time.count() % 60));
    return text;
}

}  // namespace

void SoakLedger::printHead() {
    printf(
        "             clients so far of each kind       they got  the provider has\n"
        " time order chang  hang flood noise killed  frames errors fds  thr map buf    MB\n");
}

std::string SoakLedger::add(const SoakPause& pause) {
    const StormCounts& counts = pause.counts;
    printf("%5s", timeInWords(pause.time).c_str());
    for (const uint64_t started : counts.started)
        printf(" %5" PRIu64, started);
    printf(" %6" PRIu64 " %7" PRIu64 " %6" PRIu64, counts.killed, counts.frames, counts.errors);
    const kit::Holdings& kernel = pause.holdings.kernel;
    printf(" %3d %4d %3d %3" PRId64 " %5.1f\n", kernel.descriptors, kernel.threads, kernel.mappings,
           pause.holdings.buffers, static_cast<double>(pause.holdings.residentKiB) / 1024);
    fflush(stdout);
    std::string fault = faultOf(pause);
    mPauses.push_back(pause);
    return fault;
}

std::string SoakLedger::faultOf(const SoakPause& pause) const {
    SoakHoldings before = mPauses.empty() ? pause.holdings : mPauses.front().holdings;
    before.buffers = before.kernel.mappings = 0;  // the last client has had all let go of
    std::string fault = pause.holdings.kernel.differenceFrom(before.kernel);
    if (pause.holdings.buffers != before.buffers) {
        fault += "imported buffers: " + std::to_string(before.buffers) + " before, " +
                 std::to_string(pause.holdings.buffers) + " after. ";
    }
    if (!fault.empty()) return "since the first pause\n" + fault;
    if (!kMemoryIsJudged || mPauses.size() <= kSettled) return {};
    const int64_t settled = mPauses[kSettled].holdings.residentKiB;
    if (pause.holdings.residentKiB <= settled + kMostGrowthKiB) return {};
    return "since the third pause\nresident memory: " + inMiB(settled) + " before, " +
           inMiB(pause.holdings.residentKiB) + " after.";
}

std::optional<SoakHoldings> SoakLedger::first() const {
    if (mPauses.empty()) return std::nullopt;
    return mPauses.front().holdings;
}

std::string SoakLedger::verdict() const {
    const SoakPause& last = mPauses.back();
    const kit::Holdings& kernel = last.holdings.kernel;
    char text[400];
    snprintf(text, sizeof(text),
             "ALL HELD: %" PRIu64 " clients came, %" PRIu64 " of them were killed, %" PRIu64
             " frames were right.\nAt each of %zu pauses the provider had %d descriptors, %d "
             "threads, %d buffer mappings\nand %" PRId64 " imported buffers",
             last.counts.clients(), last.counts.killed, last.counts.frames, mPauses.size(),
             kernel.descriptors, kernel.threads, kernel.mappings, last.holdings.buffers);
    std::string words = text;
    if (!kMemoryIsJudged) return words + "; its memory is not judged, because of the sanitizer.";
    if (mPauses.size() <= kSettled) return words + ".";
    const auto most = std::max_element(mPauses.begin() + kSettled, mPauses.end(),
                                       [](const SoakPause& a, const SoakPause& b) {
                                           return a.holdings.residentKiB < b.holdings.residentKiB;
                                       });
    return words + ". It had " + inMiB(mPauses[kSettled].holdings.residentKiB) +
           " of memory at the third, and at\nmost " + inMiB(most->holdings.residentKiB) +
           " from then on.";
}

}  // namespace tools
