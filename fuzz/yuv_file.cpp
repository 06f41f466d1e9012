// The raw YUV file: arbitrary files, geometries and sources, against a plain model of what is read
// and written, and of each line of the log.

#include <android/log.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
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

enum Place : int { NOWHERE, A_FOLDER, FULL, NO_PATH, IN_MEMORY };
constexpr const char* kPaths[] = {"/tmp/no/such/file", "/tmp", "/dev/full", ""};
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

[[gnu::format(printf, 1, 2)]] std::string format(const char* pattern, ...) {
    char text[400];
    va_list values;
    va_start(values, pattern);
    vsnprintf(text, sizeof(text), pattern, values);
    va_end(values);
    return text;
}

class Play {
public:
    Play(FuzzedDataProvider& data, FrameSize size, Place place)
        : mData(data), mSize(size), mPlace(place), mIsFrames(isFrames(size) && place != NO_PATH) {
        const void* const name = place == NO_PATH ? nullptr : mPath.c_str();
        const std::string refused = format("invalid args: inFile(%p) width(%d) height(%d) \n", name,
                                           size.width, size.height);
        expectLog(mIsFrames ? Lines() : Lines{refused});
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
        if (!mIsFrames || isRead) {
            expectLog({});
        } else if (mPlace == NOWHERE) {
            expectLog({notOpened(kNoFile)});
        } else {
            const bool isFolder = mPlace == A_FOLDER;
            expectLog(
                {format("file reading failed, status - %zu error - %s \n",
                        isFolder ? 0 : mFile.size(), isFolder ? "Is a directory" : "Success")});
        }
        if (!isRead) return;
        if (mAt + bytes > mFile.size()) mAt = 0;
        fuzz::expect(std::equal(frame, frame + bytes, &mFile[mAt]), "another frame than the next");
        mAt += bytes;
    }
    /** Of an object that reads. */
    void putInVain() {
        const bool isOpen = mIsFrames && mPlace != NOWHERE;
        fuzz::expect(mYuv.putFrame() == -1, "it serves two directions");
        expectLog({isOpen ? notWritten(0, "Bad file descriptor") : notOpened(kNoFile)});
    }

    void put() {
        const host::Buffer buffer = newBuffer();
        const FrameSize size = kit::sizeOf(buffer);
        const uint64_t usages[] = {0x3, 0x33, 0xF00};
        const auto usage = mData.PickValueInArray(usages);
        const sp<GraphicBuffer> wrapped =
            new GraphicBuffer(buffer.handle(), GraphicBuffer::CLONE_HANDLE, buffer.geometry().width,
                              buffer.geometry().height, 35, 1, usage, 0);
        auto* const handle = const_cast<native_handle_t*>(buffer.handle());
        const bool isLarge = mSize.width >= 1 && mSize.height >= 1 && size.width >= mSize.width &&
                             size.height >= mSize.height;
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
                lines = {"Failed to get Graphics buffer \n"};
                if (isLarge) lines = copied(buffer, mSize, wrapped, true);
                return expectPut(mYuv.putFrame(handle), lines);
            case 4:
                lines = tooLarge(size);
                if (lines.empty()) lines = copied(buffer, size, wrapped, usage != 0xF00);
                return expectPut(mYuv.putFrame(wrapped), lines);
            default:
                return putRecord(buffer, size);
        }
    }

    void end(bool isReading) {
        mAt = mIsOpen ? mFile.size() : 0;
        if (!isReading && mPlace != FULL) get();
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
    std::string notOpened(const char* error) const {
        return format("file %s open failed, error - %s \n", mIsFrames ? mPath.c_str() : "", error);
    }
    static std::string notWritten(size_t count, const char* error) {
        return format("file writing failed, status - %zu error - %s \n", count, error);
    }
    Lines tooLarge(FrameSize size) const {
        if (!mIsFrames || size.bytes() <= mMemory.size()) return {};
        return {format("frame is too large: width(%d) height(%d), file width(%d) height(%d) \n",
                       size.width, size.height, mSize.width, mSize.height)};
    }

    /** Of a form that says this about its source; else it appends the frame memory. */
    void expectPut(int status, Lines lines) {
        host::failNextUnlock(0);
        if (lines.empty() && (!mIsFrames || mPlace == NOWHERE)) lines = {notOpened(kNoFile)};
        if (lines.empty() && mPlace == A_FOLDER) lines = {notOpened("Is a directory")};
        if (lines.empty() && mPlace == FULL)
            lines = {notWritten(mMemory.size(), "No space left on device")};
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

    /** What the log says of a buffer that is copied now. */
    Lines copied(const host::Buffer& buffer, FrameSize size, const sp<GraphicBuffer>& wrapped,
                 bool isLockable) {
        Lines lines;
        android_ycbcr at = {};
        fuzz::expect(wrapped->lockYCbCr(0x3, &at) + wrapped->unlock() == 0, "no lock");
        const bool isUnlocked = mData.ConsumeIntegral<uint8_t>() > 32;
        host::failNextUnlock(isUnlocked ? 0 : -8);
        if (!mIsFrames) {
            lines = {"Invalid params: buffer((nil)) \n"};
        } else if (!isLockable) {
            lines = {"lockYCbCr failed, error (3) \n"};
        } else {
            if (at.chroma_step == 1) lines = {"420 planar format is not handled \n"};
            if (at.chroma_step > 2)
                lines = {
                    format(" unhanlded buffer format: y(%p) cb(%p) cr(%p) ystride(%zu) "
                           "cstride(%zu) chroma_step(%zu) \n",
                           at.y, at.cb, at.cr, at.ystride, at.cstride, at.chroma_step)};
            if (at.chroma_step == 2) pack(size, buffer);
            if (!isUnlocked) lines.push_back("unlock failed, error (-8) \n");
        }
        if (!lines.empty()) lines.push_back("Failed to from Graphics buffer \n");
        return lines;
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
        if (mData.ConsumeIntegral<uint8_t>() < 64)
            geometry.chromaStep = mData.ConsumeIntegralInRange(1U, 4U);
        host::Buffer buffer = kit::allocate(size, geometry);
        const kit::Frame noise =
            kit::patternOf({static_cast<int>(buffer.size()), 1}, mData.ConsumeIntegral<uint8_t>());
        std::copy(noise.begin(), noise.end(), buffer.bytes());
        return buffer;
    }

    /** A record's chroma is interleaved whatever it says. */
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
        frame.chroma_step = buffer.geometry().chromaStep;
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
    const std::string mPath =
        mPlace == IN_MEMORY ? "/proc/self/fd/" + std::to_string(mFd.get()) : kPaths[mPlace];
    host::LogCapture mLog;
    YUVFile mYuv{mPlace == NO_PATH ? nullptr : mPath.c_str(), mSize.width, mSize.height};
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
        auto place = static_cast<Place>(data.ConsumeIntegralInRange(0, 15));
        const FrameSize geometry = sizeFrom(data);
        // What a full disk does not take stays in a stream, until that has no room for more.
        const bool isFull = isFrames(geometry) && frameBytes(geometry) <= 128 && !isReading;
        if (place > IN_MEMORY || (place == FULL && !isFull)) place = IN_MEMORY;
        Play play(data, geometry, place);
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
