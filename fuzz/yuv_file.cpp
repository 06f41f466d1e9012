// The raw YUV file: arbitrary files, geometries, frames and orders of calls, against a plain model
// of what is read and written, of each status and of each line of the log.

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
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

constexpr size_t kLarge = 1 << 16;  // a larger frame is not moved, as that takes long
constexpr int kMost = 20000;        // of a file at first
constexpr int kTooMany = INT32_MAX / 3 + 1;
constexpr int kLimits[] = {INT32_MIN, -6, 0, 1, 2, 65536, 1 << 24, kTooMany, INT32_MAX};
/** Of a record that has no rows, or more than any file. */
constexpr FrameSize kImpossible[] = {{0, 1}, {1, 0}, {-6, -6}, {65536, 65536}, {INT32_MAX, 1}};

const std::string kInvalid = "E  Invalid handle \n";
const std::string kNoFile = "E file  open failed, error - No such file or directory \n";
const Lines kUncopied = {"E Invalid params: buffer((nil)) \n",
                         "E Failed to from Graphics buffer \n"};

FrameSize sizeFrom(FuzzedDataProvider& data) {
    return {data.ConsumeIntegralInRange(1, 64), data.ConsumeIntegralInRange(1, 64)};
}
bool hasRows(FrameSize size) {
    return size.width > 0 && size.height > 0;
}
std::string textOf(FrameSize size) {
    return "width(" + std::to_string(size.width) + ") height(" + std::to_string(size.height) + ")";
}

struct Play {
    FuzzedDataProvider& data;
    const FrameSize geometry =
        data.ConsumeIntegral<uint8_t>() < 192
            ? sizeFrom(data)
            : FrameSize{data.PickValueInArray(kLimits), data.PickValueInArray(kLimits)};
    const bool hasPath = data.ConsumeIntegral<uint8_t>() < 240;
    const bool isFull = data.ConsumeIntegral<uint8_t>() < 32;  ///< and only written
    const int64_t samples = int64_t{geometry.width} * geometry.height;
    const bool isFrame = hasPath && hasRows(geometry) && samples < kTooMany;
    const size_t bytes = isFrame ? static_cast<size_t>(samples * 3 / 2) : 0;
    const host::UniqueFd fd{memfd_create("file", MFD_CLOEXEC)};
    const std::string name = isFull ? "/dev/full" : "/proc/self/fd/" + std::to_string(fd.get());
    /** Of which the first 255 characters count. */
    const std::string path = std::string(255 - name.size(), '/') + name + "beyond";
    testing_support::LogLines log = {};
    YUVFile yuv{hasPath ? path.c_str() : nullptr, geometry.width, geometry.height};
    enum { CLOSED, READING, WRITING } state = CLOSED;
    kit::Frame memory = kit::Frame(std::min(bytes, kLarge));  ///< as the object's begins
    kit::Frame file = kit::patternOf({data.ConsumeIntegralInRange(0, kMost), 1});
    size_t at = 0;  ///< where the file is read or written next

    void run() {
        char text[32];
        snprintf(text, sizeof(text), "%p", static_cast<const void*>(hasPath ? &path[0] : nullptr));
        const std::string refusal = std::string("E invalid args: inFile(") + text + ") ";
        expectLog(isFrame ? Lines() : Lines{refusal + textOf(geometry) + " \n"});
        if (isFrame && data.ConsumeBool()) file.resize(file.size() / bytes * bytes);
        fuzz::expect(write(fd.get(), file.data(), file.size()) >= 0, "no file");
        for (int steps = 0; data.remaining_bytes() > 0 && steps < 32; ++steps)
            (isFull || (bytes <= kLarge && data.ConsumeBool())) ? put() : get();
        kit::Frame read(file.size() + 1);
        read.resize(static_cast<size_t>(pread(fd.get(), read.data(), read.size(), 0)));
        fuzz::expect(isFull || read == file, "the file has other bytes");
    }

    void get() {
        errno = EIO;
        const uint8_t* const frame = yuv.getFrame();
        if (!isFrame) return fuzz::expect(frame == nullptr && log.take().empty(), "a frame");
        if (state == CLOSED) state = READING;
        if (file.size() - at < bytes) at = 0;
        const size_t count = std::min(bytes, file.size() - at);
        const bool isRead = count == bytes;
        std::copy_n(file.data() + at, count, memory.begin());
        at += count;
        expectLog(isRead ? Lines() : Lines{failed("reading", count, "Success")});
        fuzz::expect((frame != nullptr) == isRead, "a frame too many or too few");
        fuzz::expect(!isRead || std::equal(memory.begin(), memory.end(), frame), "another frame");
        if (state == WRITING || at < file.size()) return;
        // Nothing is read ahead: the file may shrink or, when the stream has seen its end, grow.
        at = data.ConsumeIntegralInRange<size_t>(0, isRead ? at : kMost);
        file.resize(at);
        fuzz::expect(ftruncate(fd.get(), static_cast<off_t>(at)) == 0, "no file");
    }

    void put() {
        const bool isSame = isFrame && bytes <= kLarge && data.ConsumeBool();
        const FrameSize size = isSame ? geometry : sizeFrom(data);
        const auto stride = static_cast<uint32_t>(size.width + data.ConsumeIntegralInRange(1, 3));
        const host::Buffer buffer = kit::allocate(size, {0, 0, stride, stride + 7});
        kit::fill(buffer, kit::patternOf(size, data.ConsumeIntegral<uint8_t>()));
        const sp<GraphicBuffer> wrapped = new GraphicBuffer(
            buffer.handle(), GraphicBuffer::CLONE_HANDLE, static_cast<uint32_t>(size.width),
            static_cast<uint32_t>(size.height), 35, 1, 0x33, 0);
        auto* const handle = const_cast<native_handle_t*>(buffer.handle());
        const int way = data.ConsumeIntegralInRange(0, 8);
        if (way == 0)
            return says(yuv.putFrame(sp<GraphicBuffer>()), {"E invalid Graphics buffer \n"});
        if (way == 1) return says(yuv.putFrame(static_cast<native_handle*>(nullptr)), {kInvalid});
        if (way == 2) return says(yuv.putFrame(), isFrame ? append() : Lines{kNoFile});
        if (way < 5) return says(yuv.putFrame(wrapped), isFrame ? append(buffer, size) : kUncopied);
        if (way < 7) return putRecord(buffer, size);
        // Of a larger buffer a handle gives the part that is the file's.
        if (!hasRows(geometry) || geometry.width > size.width || geometry.height > size.height)
            return says(yuv.putFrame(handle), {"E Failed to get Graphics buffer \n"});
        says(yuv.putFrame(handle), isFrame ? append(buffer, geometry) : kUncopied);
    }
    void putRecord(const host::Buffer& buffer, FrameSize size) {
        if (data.ConsumeIntegral<uint8_t>() < 32) size = data.PickValueInArray(kImpossible);
        zoru_ycbcr record(buffer.bytes(), size.width, size.height);
        record.cb = buffer.chromaRow(0);
        record.cr = buffer.chromaRow(0) + 1;
        record.ystride = buffer.geometry().stride;
        record.cstride = buffer.geometry().chromaStride;
        record.chroma_step = data.ConsumeIntegral<uint8_t>();  // which nobody looks at
        void** const planes[] = {&record.y, &record.cb, &record.cr, nullptr, nullptr, nullptr};
        void** const lost = data.PickValueInArray(planes);
        if (lost != nullptr) *lost = nullptr;
        says(yuv.putFrame(record),
             isFrame && lost == nullptr ? append(buffer, size) : Lines{kInvalid});
    }

    /** Nothing of an impossible size. */
    Lines append(const host::Buffer& buffer, FrameSize size) {
        if (!hasRows(size)) return append();
        if (size.bytes() > bytes)
            return {"E frame is too large: " + textOf(size) + ", file " + textOf(geometry) + " \n"};
        const auto height = static_cast<uint32_t>(size.height);
        for (uint32_t y = 0; y < size.rows(); ++y)
            std::copy_n(y < height ? buffer.lumaRow(y) : buffer.chromaRow(y - height), size.width,
                        memory.data() + y * static_cast<size_t>(size.width));
        return append();
    }
    /** What the log says of it. */
    Lines append() {
        if (state == READING) return {failed("writing", 0, "Bad file descriptor")};
        const bool isFirst = std::exchange(state, WRITING) == CLOSED;
        if (isFirst) file.clear();
        // So much a stream keeps, unless it has nothing yet and more comes at once.
        const size_t kept = isFirst && bytes >= 4096 ? 0 : std::min<size_t>(bytes, 4096);
        if (isFull) return {failed("writing", kept, "No space left on device")};
        file.resize(std::max(file.size(), at + bytes));
        std::copy(memory.begin(), memory.end(), file.data() + at);
        at += bytes;
        return {};
    }
    void says(int status, const Lines& lines) {
        expectLog(lines);
        fuzz::expect(status == (lines.empty() ? static_cast<int>(bytes) : -1), "another status");
    }
    void expectLog(const Lines& lines) {
        fuzz::expect(log.take("zoruutil") == lines, "the log says something else");
    }
    static std::string failed(const char* what, size_t count, const char* reason) {
        return std::string("E file ") + what + " failed, status - " + std::to_string(count) +
               " error - " + reason + " \n";
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    FuzzedDataProvider data(bytes, size);
    const fuzz::SameDescriptors same;
    Play{data}.run();
    return 0;
}
