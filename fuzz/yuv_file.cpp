// The raw YUV file: arbitrary files, geometries and sources, against a plain model of what is read
// and written.

#include <hardware/gralloc.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "YUVFile.h"
#include "host/buffer.h"
#include "host/log.h"
#include "host/unique_fd.h"
#include "support.h"

namespace {

using namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation;  // NOLINT: its own
using Bytes = std::vector<uint8_t>;

enum Place : int { IN_MEMORY, NOWHERE, A_FOLDER, FULL };

struct Size {
    int width;
    int height;

    bool isFrames() const {
        return width >= 1 && height >= 1 && int64_t{width} * height <= INT32_MAX / 3;
    }
    size_t frameBytes() const { return static_cast<size_t>(width * height * 3 / 2); }
    size_t packedBytes() const {
        return static_cast<size_t>(width) * static_cast<size_t>(height + height / 2);
    }
};

Size sizeFrom(FuzzedDataProvider& data) {
    const auto kind = data.ConsumeIntegral<uint8_t>();
    if (kind == 1) return {data.ConsumeIntegral<int>(), data.ConsumeIntegral<int>()};
    const int most = kind > 250 ? 1 << 15 : 40;  // about where a product has too many bits
    return {data.ConsumeIntegralInRange(0, most), data.ConsumeIntegralInRange(0, most)};
}

void fillFrom(FuzzedDataProvider& data, uint8_t* bytes, size_t size) {
    auto next = data.ConsumeIntegral<uint8_t>();
    for (size_t i = 0; i < size; ++i)
        bytes[i] = next = static_cast<uint8_t>(next * 5U + 1U + i / 256U);
}

class Play {
public:
    Play(FuzzedDataProvider& data, Size size, Place place)
        : mData(data), mSize(size), mPlace(place), mYuv(path().c_str(), size.width, size.height) {
        mIsFrames = mSize.isFrames();
        if (mIsFrames) mMemory.resize(mSize.frameBytes());
        mFile.resize(mData.ConsumeIntegralInRange<size_t>(0, 10000));
        fillFrom(mData, mFile.data(), mFile.size());
        fuzz::expect(write(mFd.get(), mFile.data(), mFile.size()) >= 0, "no file");
    }

    void get() {
        const uint8_t* const frame = mYuv.getFrame();
        const size_t bytes = mMemory.size();
        const bool isPlayed = mIsFrames && mPlace == IN_MEMORY && mFile.size() >= bytes;
        fuzz::expect((frame != nullptr) == isPlayed, "a frame too many or too few");
        if (!isPlayed) return;
        if (mAt + bytes > mFile.size()) mAt = 0;
        fuzz::expect(std::equal(frame, frame + bytes, &mFile[mAt]), "another frame than the next");
        mAt += bytes;
    }
    /** Of an object that reads. */
    void putInVain() { fuzz::expect(mYuv.putFrame() == -1, "it serves two directions"); }

    void put() {
        switch (mData.ConsumeIntegralInRange(0, 3)) {
            case 0:
                return expectPut(mYuv.putFrame(), true);
            case 1:
                return putBuffer();
            case 2:
                return putHandle();
            default:
                return putDescribed();
        }
    }

    void expectFile() const {
        struct stat status = {};
        fstat(mFd.get(), &status);
        Bytes bytes(static_cast<size_t>(status.st_size));
        fuzz::expect(
            pread(mFd.get(), bytes.data(), bytes.size(), 0) == status.st_size && bytes == mFile,
            "the file has other bytes");
    }

private:
    std::string path() const {
        const char* const elsewhere[] = {"", "/tmp/no/such/file", "/tmp", "/dev/full"};
        return mPlace != IN_MEMORY ? elsewhere[mPlace]
                                   : "/proc/self/fd/" + std::to_string(mFd.get());
    }

    /** What this frame leaves in the frame memory, the rest of which stays. */
    void pack(Size size, const uint8_t* luma, size_t stride, const uint8_t* chroma,
              size_t chromaStride) {
        auto to = mMemory.begin();
        for (int row = 0; row < size.height; ++row, luma += stride)
            to = std::copy(luma, luma + size.width, to);
        for (int row = 0; row < size.height / 2; ++row, chroma += chromaStride)
            to = std::copy(chroma, chroma + size.width, to);
    }
    void pack(Size size, const host::Buffer& buffer) {
        const host::BufferGeometry& geometry = buffer.geometry();
        pack(size, buffer.lumaRow(0), geometry.stride, buffer.chromaRow(0), geometry.chromaStride);
    }

    /** Of a form that has a frame, unless it has refused its source. */
    void expectPut(int status, bool hasFrame) {
        const bool isWritten = mIsFrames && hasFrame && mPlace == IN_MEMORY;
        const int expected = isWritten ? static_cast<int>(mMemory.size()) : -1;
        fuzz::expect(status == expected, "another status than there has to be");
        if (!isWritten) return;
        if (!std::exchange(mIsOpen, true)) mFile.clear();
        mFile.insert(mFile.end(), mMemory.begin(), mMemory.end());
    }

    bool holds(Size size) const { return mIsFrames && size.packedBytes() <= mMemory.size(); }

    /** Of this file's size, or of any. */
    Size sourceSize() {
        const Size any = {mData.ConsumeIntegralInRange(-1, 40),
                          mData.ConsumeIntegralInRange(-1, 40)};
        // No buffer is longer.
        const bool isPossible = mIsFrames && std::max(mSize.width, mSize.height) <= 1 << 15;
        return isPossible && mData.ConsumeBool() ? mSize : any;
    }
    host::Buffer bufferFor(Size size) {
        host::BufferGeometry geometry;
        geometry.width = static_cast<uint32_t>(std::max(size.width, 1));
        geometry.height = static_cast<uint32_t>(std::max(size.height, 1));
        geometry.stride = (geometry.width + 1) / 2 * 2 + 2 * mData.ConsumeIntegralInRange(0U, 9U);
        if (mData.ConsumeBool()) geometry.order = host::ChromaOrder::CrFirst;
        if (mData.ConsumeIntegral<uint8_t>() == 1) geometry.chromaStep = 1;
        std::optional<host::Buffer> buffer = host::Buffer::allocate(geometry);
        fuzz::expect(buffer.has_value(), "no buffer");
        fillFrom(mData, buffer->bytes(), buffer->size());
        return std::move(*buffer);
    }

    void putBuffer() {
        const host::Buffer buffer = bufferFor(sourceSize());
        const auto [width, height] = std::pair(buffer.geometry().width, buffer.geometry().height);
        const Size size = {static_cast<int>(width), static_cast<int>(height)};
        const bool isTaken = holds(size) && buffer.geometry().chromaStep == 2;
        if (isTaken) pack(size, buffer);
        const sp<GraphicBuffer> wrapped =
            new GraphicBuffer(buffer.handle(), GraphicBuffer::CLONE_HANDLE, width, height, 35, 1,
                              GRALLOC_USAGE_SW_READ_OFTEN, width);
        expectPut(mYuv.putFrame(wrapped), isTaken);
    }

    /** A larger buffer is taken for one of the file's size. */
    void putHandle() {
        const host::Buffer buffer = bufferFor(sourceSize());
        const host::BufferGeometry& geometry = buffer.geometry();
        const bool isTaken = mIsFrames && static_cast<int>(geometry.width) >= mSize.width &&
                             static_cast<int>(geometry.height) >= mSize.height &&
                             geometry.chromaStep == 2;
        if (isTaken) pack(mSize, buffer);
        expectPut(mYuv.putFrame(const_cast<native_handle_t*>(buffer.handle())), isTaken);
    }

    void putDescribed() {
        const Size size = sourceSize();
        const bool isEmpty = size.width < 1 || size.height < 1;
        const auto [width, height] = std::pair<size_t, size_t>(size.width, size.height);
        const size_t stride = width + mData.ConsumeIntegralInRange<size_t>(0, 9);
        const size_t rows = height + height / 2;
        // Ends with the last row's last byte, so that one more is seen.
        Bytes bytes(isEmpty ? 2 : stride * (rows - 1) + width + 1);
        fillFrom(mData, bytes.data(), bytes.size());
        zoru_ycbcr frame(bytes.data(), size.width, size.height);
        uint8_t* const chroma = &bytes[isEmpty || size.height == 1 ? 0 : stride * height];
        frame.cb = chroma;
        frame.cr = chroma + 1;
        frame.ystride = frame.cstride = stride;
        if (mData.ConsumeBool()) std::swap(frame.cb, frame.cr);
        const bool isNull = mData.ConsumeIntegral<uint8_t>() == 1;
        if (isNull) (mData.ConsumeBool() ? frame.cb : frame.cr) = nullptr;
        const bool isTaken = !isNull && (isEmpty || holds(size));
        if (isTaken && !isEmpty && mIsFrames) pack(size, bytes.data(), stride, chroma, stride);
        expectPut(mYuv.putFrame(frame), isTaken);
    }

    FuzzedDataProvider& mData;
    const host::UniqueFd mFd{memfd_create("file", MFD_CLOEXEC)};
    const Size mSize;
    const Place mPlace;
    YUVFile mYuv;
    bool mIsFrames = false;
    bool mIsOpen = false;
    Bytes mMemory;   ///< as the object's has to be
    Bytes mFile;     ///< what has to be in the file
    size_t mAt = 0;  ///< where the next frame to be played begins
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    const host::LogCapture quiet;
    FuzzedDataProvider data(bytes, size);
    const fuzz::Descriptors before = fuzz::openDescriptors();
    {
        const bool isReading = data.ConsumeBool();
        const auto place = static_cast<Place>(data.ConsumeIntegralInRange(0, 15));
        const Size geometry = sizeFrom(data);
        if (geometry.isFrames() && geometry.frameBytes() > 1 << 17) return 0;  // takes too long
        Play play(data, geometry, place > FULL || (isReading && place == FULL) ? IN_MEMORY : place);
        for (int steps = 0; data.remaining_bytes() > 0 && steps < 32; ++steps) {
            isReading ? play.get() : play.put();
            if (isReading && data.ConsumeIntegral<uint8_t>() == 1) play.putInVain();
        }
        play.expectFile();
    }
    fuzz::expectOpen(before);
    return 0;
}
