// A raw YUV file that is written and then played, first with a fault and then without.

#include <algorithm>
#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "YUVFile.h"
#include "fault_scenarios.h"
#include "frame.h"
#include "holdings.h"
#include "support/log_lines.h"
#include "temporary_folder.h"

namespace faults {

namespace {

using vendor::zoru::zoruprovider::fdstream::V1_0::implementation::YUVFile;

constexpr kit::FrameSize kSize = {4, 4};
constexpr const char* kNoMemory = "E pBuffer allocation failed, size - 24 \n";

/** A file in one direction, by an operation that gives a frame or does not. */
class Direction {
public:
    Direction(std::string path, std::function<bool(YUVFile&)> operation)
        : mPath(std::move(path)), mOperation(std::move(operation)) {
        asProvider([this] { mFile.emplace(mPath.c_str(), kSize.width, kSize.height); });
    }

    /** Three frames. Each one that fails while it may says why; no other one may fail. */
    void go(bool mayFail) {
        if (!mayFail && mLog.timesSaid(kNoMemory) != 0)
            mFile.emplace(mPath.c_str(), kSize.width, kSize.height);
        for (int i = 0; i < 3; ++i) {
            bool isDone = false;
            asProvider([&] { isDone = mOperation(*mFile); });
            if (isDone) continue;
            if (!mayFail) fail("no frame although the fault is over");
            const auto lines = mLog.said();
            const auto isError = [](const std::string& line) { return line[0] == 'E'; };
            if (lines.empty() || !std::all_of(lines.begin(), lines.end(), isError))
                fail("nobody was told why there is no frame");
        }
    }

private:
    testing_support::LogLines mLog;
    const std::string mPath;
    const std::function<bool(YUVFile&)> mOperation;
    std::optional<YUVFile> mFile;
};

}  // namespace

void runFile(const Fault& fault, int n) {
    const kit::TemporaryFolder folder;
    const host::Buffer buffer = kit::allocate(kSize);
    const kit::Frame frame = kit::patternOf(kSize);
    kit::fill(buffer, frame);
    auto* const handle = const_cast<native_handle_t*>(buffer.handle());  // NOLINT
    const kit::Holdings before = kit::Holdings::of();
    arm(fault, n);
    {
        Direction writing(folder / "frames", [&](YUVFile& file) {
            return file.putFrame(handle) == static_cast<int>(frame.size());
        });
        writing.go(true);
        heal();
        writing.go(false);
        arm(fault, n);
        Direction reading(folder / "frames", [&](YUVFile& file) {
            const uint8_t* const bytes = file.getFrame();
            if (bytes != nullptr && !std::equal(frame.begin(), frame.end(), bytes))
                fail("another frame than was written");
            return bytes != nullptr;
        });
        reading.go(true);
        heal();
        reading.go(false);
    }
    if (!(kit::Holdings::of() == before)) fail("something is left");
}

}  // namespace faults
