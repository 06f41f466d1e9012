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
#include "host/mapper.h"
#include "host/unique_fd.h"
#include "support.h"
#include "support/log_lines.h"

namespace {

using namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation;  // NOLINT: its own
using kit::FrameSize;
using testing_support::Lines;

constexpr const char* kNoFile = "E file  open failed, error - No such file or directory \n";
constexpr const char* kNoHandle = "E  Invalid handle \n";

FrameSize sizeFrom(FuzzedDataProvider& data) {
    const FrameSize limits[] = {{65536, 65536}, {1, INT32_MAX / 3 + 1}, {-6, -6}};
    const auto kind = data.ConsumeIntegral<uint8_t>();
    if (kind < 3) return limits[kind];
    return {data.ConsumeIntegralInRange(0, 40), data.ConsumeIntegralInRange(0, 40)};
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
    /** Of an object that reads. */
    void putInVain() {
        fuzz::expect(mYuv.putFrame() == -1, "it serves two directions");
        expectLog({mIsFrames ? "E file writing failed, status - 0 error - Bad file descriptor \n"
                             : kNoFile});
    }

    void put() {
        const host::Buffer buffer = newBuffer();
        auto [status, lines, taken] = attempt(buffer);
        if (lines.empty() && !mIsFrames) lines = {kNoFile};
        if (lines.empty() && taken.bytes() > mMemory.size())
            lines = {"E frame is too large: " + textOf(taken) + ", file " + textOf(mSize) + " \n"};
        expectLog(lines);
        const int expected = lines.empty() ? static_cast<int>(mMemory.size()) : -1;
        fuzz::expect(status == expected, "another status than there has to be");
        if (!lines.empty()) return;
        pack(taken, buffer);
        if (!std::exchange(mIsOpen, true)) mFile.clear();
        mFile.insert(mFile.end(), mMemory.begin(), mMemory.end());
    }

    void end(bool isReading) {
        mAt = mIsOpen ? mFile.size() : 0;
        if (!isReading) get();
        kit::Frame bytes(mFile.size() + 1);
        bytes.resize(static_cast<size_t>(pread(mFd.get(), bytes.data(), bytes.size(), 0)));
        fuzz::expect(bytes == mFile, "the file has other bytes");
    }

private:
    /** One form of putFrame(): its answer, how it refuses what it is given, of which size it is. */
    struct Attempt {
        int status;
        Lines refusal;
        FrameSize taken;
    };

    void expectLog(const Lines& lines) {
        fuzz::expect(mLog.take("zoruutil") == lines, "the log says something else");
    }

    /** What this frame leaves in the frame memory, the rest of which stays. */
    void pack(FrameSize size, const host::Buffer& buffer) {
        auto to = mMemory.begin();
        const auto height = static_cast<uint32_t>(size.height);
        for (uint32_t y = 0; y < size.rows(); ++y)
            to = std::copy_n(y < height ? buffer.lumaRow(y) : buffer.chromaRow(y - height),
                             size.width, to);
    }

    /** Of this file's size, or of any. */
    host::Buffer newBuffer() {
        FrameSize size = {mData.ConsumeIntegralInRange(1, 40), mData.ConsumeIntegralInRange(1, 40)};
        if (mIsFrames && mData.ConsumeBool()) size = mSize;
        host::BufferGeometry geometry;
        geometry.stride = static_cast<uint32_t>((size.width + 1) / 2 * 2) +
                          2 * mData.ConsumeIntegralInRange(0U, 9U);
        if (mData.ConsumeBool()) geometry.order = host::ChromaOrder::CrFirst;
        host::Buffer buffer = kit::allocate(size, geometry);
        const kit::Frame noise =
            kit::patternOf({static_cast<int>(buffer.size()), 1}, mData.ConsumeIntegral<uint8_t>());
        std::copy(noise.begin(), noise.end(), buffer.bytes());
        return buffer;
    }

    Attempt attempt(const host::Buffer& buffer) {
        const FrameSize size = kit::sizeOf(buffer);
        const sp<GraphicBuffer> wrapped =
            new GraphicBuffer(buffer.handle(), GraphicBuffer::CLONE_HANDLE, buffer.geometry().width,
                              buffer.geometry().height, 35, 1, 0x33, 0);
        auto* const handle = const_cast<native_handle_t*>(buffer.handle());
        // A larger buffer is taken for one of the file's size.
        const bool isLarge = mIsFrames && size.width >= mSize.width && size.height >= mSize.height;
        Lines lines;
        switch (mData.ConsumeIntegralInRange(0, 5)) {
            case 0:
                return {mYuv.putFrame(), {}, {}};
            case 1:
                return {mYuv.putFrame(sp<GraphicBuffer>()), {"E invalid Graphics buffer \n"}, {}};
            case 2:
                return {mYuv.putFrame(static_cast<native_handle*>(nullptr)), {kNoHandle}, {}};
            case 3:
                if (!isLarge) lines = {"E Failed to get Graphics buffer \n"};
                return {mYuv.putFrame(handle), lines, mSize};
            case 4:
                if (!mIsFrames)
                    lines = {"E Invalid params: buffer((nil)) \n",
                             "E Failed to from Graphics buffer \n"};
                return {mYuv.putFrame(wrapped), lines, size};
            default:
                return putRecord(buffer, size);
        }
    }
    Attempt putRecord(const host::Buffer& buffer, FrameSize size) {
        // None without an extent, or with a product of 0 in 32 bits.
        const FrameSize claims[] = {size, size, size, {65536, 65536}, {-6, -6}, {0, 3}, {3, 0}};
        const FrameSize claim = mData.PickValueInArray(claims);
        zoru_ycbcr frame(buffer.bytes(), claim.width, claim.height);
        frame.cb = buffer.chromaRow(0);
        frame.cr = buffer.chromaRow(0) + 1;
        if (buffer.geometry().order == host::ChromaOrder::CrFirst) std::swap(frame.cb, frame.cr);
        frame.ystride = buffer.geometry().stride;
        frame.cstride = buffer.geometry().chromaStride;
        void** const planes[] = {&frame.y, &frame.cb, &frame.cr};
        const auto lost = mData.ConsumeIntegralInRange<size_t>(0, 12);
        if (lost < 3) *planes[lost] = nullptr;
        const bool isTaken = mIsFrames && lost >= 3;
        const bool hasRows = claim.width >= 1 && claim.height >= 1;
        return {mYuv.putFrame(frame), isTaken ? Lines() : Lines{kNoHandle},
                hasRows ? claim : FrameSize{}};
    }

    FuzzedDataProvider& mData;
    const FrameSize mSize;
    const bool mIsFrames =
        std::min(mSize.width, mSize.height) >= 1 && std::max(mSize.width, mSize.height) <= 40;
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
    const host::MapperCounters counted = host::mapperCounters();
    {
        const bool isReading = data.ConsumeBool();
        Play play(data, sizeFrom(data));
        for (int steps = 0; data.remaining_bytes() > 0 && steps < 32; ++steps) {
            isReading ? play.get() : play.put();
            if (isReading && data.ConsumeIntegral<uint8_t>() < 16) play.putInVain();
        }
        play.end(isReading);
    }
    const host::MapperCounters now = host::mapperCounters();
    fuzz::expect(now.locks - counted.locks == now.unlocks - counted.unlocks, "a lock is left");
    fuzz::expectOpen(before);
    return 0;
}
