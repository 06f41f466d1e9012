// The raw YUV file: arbitrary files, geometries and sources, against a plain model of what is read
// and written, and of each line of the log.

#include <android/log.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "YUVFile.h"
#include "frame.h"
#include "host/buffer.h"
#include "host/log.h"
#include "host/mapper.h"
#include "host/unique_fd.h"
#include "support.h"

namespace {

using namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation;  // NOLINT: its own
using kit::FrameSize;
using Lines = std::vector<std::string>;

enum Place : int { NOWHERE, A_FOLDER, IN_MEMORY };
constexpr const char* kNoFile = "No such file or directory";
constexpr const char* kNoHandle = " Invalid handle \n";

bool isFrames(FrameSize size) {
    return size.width >= 1 && size.height >= 1 &&
           int64_t{size.width} * size.height <= INT32_MAX / 3;
}
int frameBytes(FrameSize size) {
    return size.width * size.height * 3 / 2;
}

FrameSize sizeFrom(FuzzedDataProvider& data) {
    const FrameSize limits[] = {
        {65536, 65536}, {1, INT32_MAX / 3}, {1, INT32_MAX / 3 + 1}, {-6, -6}};
    const auto kind = data.ConsumeIntegral<uint8_t>();
    if (kind < 4) return limits[kind];
    const int most = kind > 250 ? 1 << 15 : 40;
    return {data.ConsumeIntegralInRange(0, most), data.ConsumeIntegralInRange(0, most)};
}

std::string textOf(FrameSize size) {
    return "width(" + std::to_string(size.width) + ") height(" + std::to_string(size.height) + ")";
}

class Play {
public:
    Play(FuzzedDataProvider& data, FrameSize size, Place place)
        : mData(data), mSize(size), mPlace(place), mIsFrames(isFrames(size)) {
        fuzz::expect(mLog.lines().empty() == mIsFrames, "a geometry is refused in silence");
        mLog.clear();
        if (mIsFrames && isShort()) mMemory.resize(static_cast<size_t>(frameBytes(size)));
        mFile = kit::patternOf({data.ConsumeIntegralInRange(0, 10000), 1});
        fuzz::expect(write(mFd.get(), mFile.data(), mFile.size()) >= 0, "no file");
    }

    /** Else it takes too long, and is only made. */
    bool isShort() const { return !mIsFrames || frameBytes(mSize) <= 1 << 17; }

    void get() {
        errno = EIO;
        const uint8_t* const frame = mYuv.getFrame();
        const size_t bytes = mMemory.size();
        const bool isRead = mIsFrames && mPlace == IN_MEMORY && mFile.size() >= bytes;
        fuzz::expect((frame != nullptr) == isRead, "a frame too many or too few");
        Lines lines;
        if (mPlace == NOWHERE)
            lines = {notOpened(kNoFile)};
        else if (mPlace == A_FOLDER)
            lines = {"file reading failed, status - 0 error - Is a directory \n"};
        else if (!isRead)
            lines = {"file reading failed, status - " + std::to_string(mFile.size()) +
                     " error - Success \n"};
        expectLog(mIsFrames ? lines : Lines());
        if (!isRead) return;
        if (mAt + bytes > mFile.size()) mAt = 0;
        fuzz::expect(std::equal(frame, frame + bytes, &mFile[mAt]), "another frame than the next");
        mAt += bytes;
    }
    /** Of an object that reads. */
    void putInVain() {
        const bool isOpen = mIsFrames && mPlace != NOWHERE;
        fuzz::expect(mYuv.putFrame() == -1, "it serves two directions");
        expectLog({isOpen ? "file writing failed, status - 0 error - Bad file descriptor \n"
                          : notOpened(kNoFile)});
    }

    void put() {
        const host::Buffer buffer = newBuffer();
        const FrameSize size = kit::sizeOf(buffer);
        const sp<GraphicBuffer> wrapped =
            new GraphicBuffer(buffer.handle(), GraphicBuffer::CLONE_HANDLE, buffer.geometry().width,
                              buffer.geometry().height, 35, 1, 0x33, 0);
        auto* const handle = const_cast<native_handle_t*>(buffer.handle());
        const bool isLarge = mIsFrames && size.width >= mSize.width && size.height >= mSize.height;
        Lines lines;
        switch (mData.ConsumeIntegralInRange(0, 5)) {
            case 0:
                return expectPut(mYuv.putFrame(), {});
            case 1:
                return expectPut(mYuv.putFrame(sp<GraphicBuffer>()),
                                 {"invalid Graphics buffer \n"});
            case 2:
                return expectPut(mYuv.putFrame(static_cast<native_handle*>(nullptr)), {kNoHandle});
            case 3:  // a larger buffer is taken for one of the file's size
                if (isLarge) pack(mSize, buffer);
                if (!isLarge) lines = {"Failed to get Graphics buffer \n"};
                return expectPut(mYuv.putFrame(handle), lines);
            case 4:
                lines = tooLarge(size);
                if (!mIsFrames)
                    lines = {"Invalid params: buffer((nil)) \n",
                             "Failed to from Graphics buffer \n"};
                if (lines.empty()) pack(size, buffer);
                return expectPut(mYuv.putFrame(wrapped), lines);
            default:
                return putRecord(buffer, size);
        }
    }

    void end(bool isReading) {
        mAt = mIsOpen ? mFile.size() : 0;
        if (!isReading) get();
        kit::Frame bytes(mFile.size() + 1);
        const ssize_t count = pread(mFd.get(), bytes.data(), bytes.size(), 0);
        bytes.resize(static_cast<size_t>(count));
        fuzz::expect(bytes == mFile, "the file has other bytes");
    }

private:
    void expectLog(const Lines& lines) {
        Lines said;
        for (const host::LogLine& line : mLog.lines()) {
            fuzz::expect(line.priority == ANDROID_LOG_ERROR && line.tag == "zoruutil",
                         "a line of another kind");
            said.push_back(line.text);
        }
        fuzz::expect(said == lines, "the log says something else");
        mLog.clear();
    }
    std::string notOpened(const std::string& error) const {
        return "file " + (mIsFrames ? mPath : "") + " open failed, error - " + error + " \n";
    }
    Lines tooLarge(FrameSize size) const {
        if (!mIsFrames || size.bytes() <= mMemory.size()) return {};
        return {"frame is too large: " + textOf(size) + ", file " + textOf(mSize) + " \n"};
    }

    /** Of a form that says this about its source; else it appends the frame memory. */
    void expectPut(int status, Lines lines) {
        if (lines.empty() && (!mIsFrames || mPlace == NOWHERE)) lines = {notOpened(kNoFile)};
        if (lines.empty() && mPlace == A_FOLDER) lines = {notOpened("Is a directory")};
        expectLog(lines);
        const int expected = lines.empty() ? static_cast<int>(mMemory.size()) : -1;
        fuzz::expect(status == expected, "another status than there has to be");
        if (!lines.empty()) return;
        if (!std::exchange(mIsOpen, true)) mFile.clear();
        mFile.insert(mFile.end(), mMemory.begin(), mMemory.end());
    }

    /** What this frame leaves in the frame memory, the rest of which stays. */
    void pack(FrameSize size, const host::Buffer& buffer) {
        auto to = mMemory.begin();
        const auto rows = static_cast<uint32_t>(size.height);
        for (uint32_t row = 0; row < rows; ++row)
            to = std::copy_n(buffer.lumaRow(row), size.width, to);
        for (uint32_t row = 0; row < rows / 2; ++row)
            to = std::copy_n(buffer.chromaRow(row), size.width, to);
    }

    /** Of this file's size, or of any. */
    host::Buffer newBuffer() {
        FrameSize size = {mData.ConsumeIntegralInRange(1, 40), mData.ConsumeIntegralInRange(1, 40)};
        const bool isPossible = mIsFrames && std::max(mSize.width, mSize.height) <= 1 << 15;
        if (isPossible && mData.ConsumeBool()) size = mSize;  // no buffer is longer
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

    void putRecord(const host::Buffer& buffer, FrameSize size) {
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
        Lines lines = {kNoHandle};
        if (isTaken) lines = hasRows ? tooLarge(claim) : Lines();
        if (isTaken && hasRows && lines.empty()) pack(claim, buffer);
        expectPut(mYuv.putFrame(frame), lines);
    }

    FuzzedDataProvider& mData;
    const FrameSize mSize;
    const Place mPlace;
    const bool mIsFrames;
    const host::UniqueFd mFd{memfd_create("file", MFD_CLOEXEC)};
    const std::string mPath = mPlace == NOWHERE    ? "/tmp/no/such/file"
                              : mPlace == A_FOLDER ? "/tmp"
                                                   : "/proc/self/fd/" + std::to_string(mFd.get());
    host::LogCapture mLog;
    YUVFile mYuv{mPath.c_str(), mSize.width, mSize.height};
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
        const auto place = static_cast<Place>(std::min(data.ConsumeIntegralInRange(0, 15), 2));
        Play play(data, sizeFrom(data), place);
        for (int steps = 0; play.isShort() && data.remaining_bytes() > 0 && steps < 32; ++steps) {
            isReading ? play.get() : play.put();
            if (isReading && data.ConsumeIntegral<uint8_t>() < 16) play.putInVain();
        }
        if (play.isShort()) play.end(isReading);
    }
    const host::MapperCounters now = host::mapperCounters();
    fuzz::expect(now.locks - counted.locks == now.unlocks - counted.unlocks, "a lock is left");
    fuzz::expectOpen(before);
    return 0;
}
