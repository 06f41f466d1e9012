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

class Play {
public:
    Play(FuzzedDataProvider& data, FrameSize size) : mData(data), mSize(size) {
        fuzz::expect(mLog.take().empty() == mIsFrames, "a geometry is refused in silence");
        if (mIsFrames) mMemory.resize(static_cast<size_t>(size.width * size.height * 3 / 2));
        mFile = kit::patternOf({data.ConsumeIntegralInRange(0, 10000), 1});
        fuzz::expect(write(mFd.get(), mFile.data(), mFile.size()) >= 0, "no file");
    }

    void get() {
        errno = EIO;
        const uint8_t* const frame = mYuv.getFrame();
        const size_t bytes = mMemory.size();
        const bool isRead = mIsFrames && mFile.size() >= bytes;
        fuzz::expect((frame != nullptr) == isRead, "a frame too many or too few");
        const std::string line = "E file reading failed, status - " + std::to_string(mFile.size()) +
                                 " error - Success \n";
        expectLog(mIsFrames && !isRead ? Lines{line} : Lines());
        if (!isRead) return;
        if (mAt + bytes > mFile.size()) mAt = 0;
        fuzz::expect(std::equal(frame, frame + bytes, &mFile[mAt]), "another frame than the next");
        mAt += bytes;
    }
    /** A buffer's frame, or once more what the frame memory has. */
    void put() {
        if (mData.ConsumeBool())
            return expectPut(mYuv.putFrame(), mIsFrames ? Lines() : Lines{kNoFile}, {});
        const FrameSize size = mIsFrames && mData.ConsumeBool() ? mSize : sizeFrom(mData, 1);
        const kit::Frame frame = kit::patternOf(size, mData.ConsumeIntegral<uint8_t>());
        const host::Buffer buffer = kit::allocate(size);
        kit::fill(buffer, frame);
        const sp<GraphicBuffer> wrapped =
            new GraphicBuffer(buffer.handle(), GraphicBuffer::CLONE_HANDLE, buffer.geometry().width,
                              buffer.geometry().height, 35, 1, 0x33, 0);
        Lines lines;
        if (!mIsFrames)
            lines = {"E Invalid params: buffer((nil)) \n", "E Failed to from Graphics buffer \n"};
        else if (frame.size() > mMemory.size())
            lines = {"E frame is too large: " + textOf(size) + ", file " + textOf(mSize) + " \n"};
        expectPut(mYuv.putFrame(wrapped), lines, frame);
    }

    void end(bool isReading) {
        mAt = mIsOpen ? mFile.size() : 0;
        if (!isReading) get();
        kit::Frame bytes(mFile.size() + 1);
        bytes.resize(static_cast<size_t>(pread(mFd.get(), bytes.data(), bytes.size(), 0)));
        fuzz::expect(bytes == mFile, "the file has other bytes");
    }

private:
    void expectLog(const Lines& lines) {
        fuzz::expect(mLog.take("zoruutil") == lines, "the log says something else");
    }
    void expectPut(int status, const Lines& lines, const kit::Frame& frame) {
        expectLog(lines);
        const int expected = lines.empty() ? static_cast<int>(mMemory.size()) : -1;
        fuzz::expect(status == expected, "another status than there has to be");
        if (!lines.empty()) return;
        std::copy(frame.begin(), frame.end(), mMemory.begin());  // the rest of it stays
        if (!std::exchange(mIsOpen, true)) mFile.clear();
        mFile.insert(mFile.end(), mMemory.begin(), mMemory.end());
    }

    FuzzedDataProvider& mData;
    const FrameSize mSize;
    const bool mIsFrames = std::min(mSize.width, mSize.height) > 0;
    const host::UniqueFd mFd{memfd_create("file", MFD_CLOEXEC)};
    testing_support::LogLines mLog;
    YUVFile mYuv{("/proc/self/fd/" + std::to_string(mFd.get())).c_str(), mSize.width, mSize.height};
    bool mIsOpen = false;  ///< for writing
    kit::Frame mMemory;    ///< as the object's has to be
    kit::Frame mFile;      ///< what has to be in the file
    size_t mAt = 0;        ///< where the next frame to be played begins
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    FuzzedDataProvider data(bytes, size);
    const fuzz::Descriptors before = fuzz::openDescriptors();
    {
        const bool isReading = data.ConsumeBool();
        Play play(data, sizeFrom(data, 0));
        for (int steps = 0; data.remaining_bytes() > 0 && steps < 32; ++steps)
            isReading ? play.get() : play.put();
        play.end(isReading);
    }
    fuzz::expectOpen(before);
    return 0;
}
