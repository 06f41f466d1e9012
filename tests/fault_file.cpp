// A raw YUV file that is written and then played, first with a fault and then without.

#include <algorithm>
#include <functional>
#include <optional>
#include <string>

#include "YUVFile.h"
#include "fault_scenarios.h"
#include "frame.h"
#include "holdings.h"
#include "support/log_lines.h"
#include "temporary_folder.h"

namespace faults {

namespace {

using vendor::zoru::zoruprovider::fdstream::V1_0::implementation::YUVFile;
using Operation = std::function<bool(YUVFile&)>;

constexpr kit::FrameSize kSize = {4, 4};
constexpr const char* kNoMemory = "E pBuffer allocation failed, size - 24 \n";

/** Three frames, twice. Each one that fails while there is a fault says why; no other one fails. */
void play(const std::string& path, const Operation& operation) {
    const testing_support::LogLines log;
    std::optional<YUVFile> file;
    const auto open = [&] { file.emplace(path.c_str(), kSize.width, kSize.height); };
    arm();
    asProvider(open);
    for (int i = 0; i < 6; ++i) {
        if (i == 3) heal();
        if (i == 3 && log.timesSaid(kNoMemory) != 0) open();
        bool isDone = false;
        asProvider([&] { isDone = operation(*file); });
        if (isDone) continue;
        if (i >= 3) fail("no frame although the fault is over");
        const auto lines = log.said();
        const auto isError = [](const std::string& line) { return line[0] == 'E'; };
        if (lines.empty() || !std::all_of(lines.begin(), lines.end(), isError))
            fail("nobody was told why there is no frame");
    }
}

}  // namespace

void runFile() {
    const kit::TemporaryFolder folder;
    const host::Buffer buffer = kit::allocate(kSize);
    const kit::Frame frame = kit::patternOf(kSize);
    kit::fill(buffer, frame);
    auto* const handle = const_cast<native_handle_t*>(buffer.handle());  // NOLINT
    const kit::Holdings before = kit::Holdings::of();
    play(folder / "frames",
         [&](YUVFile& file) { return file.putFrame(handle) == static_cast<int>(frame.size()); });
    play(folder / "frames", [&](YUVFile& file) {
        const uint8_t* const bytes = file.getFrame();
        if (bytes != nullptr && !std::equal(frame.begin(), frame.end(), bytes))
            fail("another frame than was written");
        return bytes != nullptr;
    });
    if (!(kit::Holdings::of() == before)) fail("something is left");
}

}  // namespace faults
