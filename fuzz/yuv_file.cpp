// The raw YUV file: arbitrary files, geometries and sources, against a plain model of what is read
// and written, and of each line of the log.

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <utility>

#include "YUVFile.h"
#include "frame.h"
#include "host/buffer.h"
#include "host/unique_fd.h"
#include "support.h"
#include "support/log_lines.h"

namespace {

using namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation;  // NOLINT: its own
using kit::FrameSize;
using testing_support::Lines;

constexpr const char* kNoFile = "E file  open failed, error - No such file or directory \n";

FrameSize sizeFrom(FuzzedDataProvider& data, int least) {
    return {data.ConsumeIntegralInRange(least, 40), data.ConsumeIntegralInRange(least, 40)};
}

std::string textOf(FrameSize size) {
    return "width(" + std::to_string(size.width) + ") height(" + std::to_string(size.height) + ")";
}

struct Play {
    FuzzedDataProvider& data;
    const bool isReading;
    const FrameSize geometry;
    const bool isFrames = std::min(geometry.width, geometry.height) > 0;
    const host::UniqueFd fd{memfd_create("file", MFD_CLOEXEC)};
    testing_support::LogLines log = {};
    YUVFile yuv{("/proc/self/fd/" + std::to_string(fd.get())).c_str(), geometry.width,
                geometry.height};
    bool isOpen = false;     ///< for writing
    kit::Frame memory = {};  ///< as the object's has to be
    kit::Frame file = {};    ///< what has to be in the file
    size_t at = 0;           ///< where the next frame to be played begins

    void run() {
        fuzz::expect(log.take().empty() == isFrames, "a geometry is refused in silence");
        if (isFrames) memory.resize(static_cast<size_t>(geometry.width * geometry.height * 3 / 2));
        file = kit::patternOf({data.ConsumeIntegralInRange(0, 10000), 1});
        fuzz::expect(write(fd.get(), file.data(), file.size()) >= 0, "no file");
        for (int steps = 0; data.remaining_bytes() > 0 && steps < 32; ++steps)
            isReading ? get() : put();
        // What was written can be played, too.
        at = isOpen ? file.size() : 0;
        if (!isReading) get();
        kit::Frame bytes(file.size() + 1);
        bytes.resize(static_cast<size_t>(pread(fd.get(), bytes.data(), bytes.size(), 0)));
        fuzz::expect(bytes == file, "the file has other bytes");
    }

    void get() {
        errno = EIO;
        const uint8_t* const frame = yuv.getFrame();
        const size_t bytes = memory.size();
        const bool isRead = isFrames && file.size() >= bytes;
        fuzz::expect((frame != nullptr) == isRead, "a frame too many or too few");
        const std::string line = "E file reading failed, status - " + std::to_string(file.size()) +
                                 " error - Success \n";
        expectLog(isFrames && !isRead ? Lines{line} : Lines());
        if (!isRead) return;
        if (at + bytes > file.size()) at = 0;
        fuzz::expect(std::equal(frame, frame + bytes, &file[at]), "another frame than the next");
        at += bytes;
    }
    /** A buffer's frame, or once more what the frame memory has. */
    void put() {
        if (data.ConsumeBool())
            return expectPut(yuv.putFrame(), isFrames ? Lines() : Lines{kNoFile}, {});
        const FrameSize size = isFrames && data.ConsumeBool() ? geometry : sizeFrom(data, 1);
        const kit::Frame frame = kit::patternOf(size, data.ConsumeIntegral<uint8_t>());
        const host::Buffer buffer = kit::allocate(size);
        kit::fill(buffer, frame);
        const sp<GraphicBuffer> wrapped =
            new GraphicBuffer(buffer.handle(), GraphicBuffer::CLONE_HANDLE, buffer.geometry().width,
                              buffer.geometry().height, 35, 1, 0x33, 0);
        Lines lines;
        if (!isFrames)
            lines = {"E Invalid params: buffer((nil)) \n", "E Failed to from Graphics buffer \n"};
        else if (frame.size() > memory.size())
            lines = {"E frame is too large: " + textOf(size) + ", file " + textOf(geometry) +
                     " \n"};
        expectPut(yuv.putFrame(wrapped), lines, frame);
    }

    void expectLog(const Lines& lines) {
        fuzz::expect(log.take("zoruutil") == lines, "the log says something else");
    }
    void expectPut(int status, const Lines& lines, const kit::Frame& frame) {
        expectLog(lines);
        const int expected = lines.empty() ? static_cast<int>(memory.size()) : -1;
        fuzz::expect(status == expected, "another status than there has to be");
        if (!lines.empty()) return;
        std::copy(frame.begin(), frame.end(), memory.begin());  // the rest of it stays
        if (!std::exchange(isOpen, true)) file.clear();
        file.insert(file.end(), memory.begin(), memory.end());
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    FuzzedDataProvider data(bytes, size);
    const fuzz::Descriptors before = fuzz::openDescriptors();
    Play{data, data.ConsumeBool(), sizeFrom(data, 0)}.run();
    fuzz::expectOpen(before);
    return 0;
}
