// The mapper, over the life of several imports of memory that its client grows, cuts, seals and
// punches, against a plain model. What may be locked is written: its bytes have to be the file's.

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <tuple>
#include <vector>

#include "buffer_format.h"
#include "buffer_mapper.h"
#include "host/buffer.h"
#include "host/mapper.h"
#include "host/unique_fd.h"
#include "host/unique_handle.h"
#include "support.h"

namespace {

using host::detail::MapperLayout;
using Error = host::detail::MapperError;

constexpr int kWords = 9;  // the last two are the usage's
constexpr int kMagic = 0x46444231;
constexpr std::tuple<int, int, int> kUsual(sizeof(native_handle_t), 1, kWords);
constexpr uint32_t kLimits[] = {0, 1, 2, 9, 1 << 15, 32769, 1 << 20, 1048577, UINT32_MAX};
constexpr int kMost = host::kMaxBufferBytes;

bool isWithin(int64_t value, int64_t least, int64_t most) {
    return value >= least && value <= most;
}

/** What a handle claims, by the format's description; a total of 0 when it is no buffer's. */
struct Claim {
    int64_t width = 0, height = 0, stride = 0, chromaStride = 0, step = 0, cb = 0, cr = 0,
            total = 0;
};

Claim claimOf(const native_handle_t* handle) {
    if (handle == nullptr || std::tie(handle->version, handle->numFds, handle->numInts) != kUsual)
        return {};
    std::array<int64_t, kWords> words = {};
    std::copy_n(&handle->data[1], kWords, words.begin());
    const auto [magic, width, height, givenStride, givenChroma, order, step, low, high] = words;
    const int64_t pairs = (width + 1) / 2;
    const int64_t stride = givenStride != 0 ? givenStride : 2 * pairs;
    const int64_t row = givenChroma != 0 ? givenChroma : std::max(stride / 2, pairs) * step;
    const bool isWithinLimits = magic == kMagic && isWithin(width, 1, 1 << 15) &&
                                isWithin(height, 1, 1 << 15) && isWithin(step, 1, 8) &&
                                isWithin(order, 0, 1) && isWithin(stride, width, 1 << 20) &&
                                givenChroma <= 1 << 20 && row >= pairs * step;
    if (!isWithinLimits) return {};
    const int64_t first = stride * height, plane = row * ((height + 1) / 2);
    const int64_t second = first + (step == 1 ? plane : 1);
    const int64_t total = first + (step == 1 ? 2 : 1) * plane;
    if (total > kMost) return {};
    const int64_t cb = order == 0 ? first : second;
    return {width, height, stride, row, step, cb, first + second - cb, total};
}

struct Import {
    buffer_handle_t handle;
    int file;
    Claim claim;
};

struct Life {
    FuzzedDataProvider& data;
    host::detail::BufferMapper& mapper = host::detail::BufferMapper::get();
    host::MapperCounters counts = host::mapperCounters();  ///< as they have to be
    /** The last one has no seals. */
    const host::UniqueFd files[3] = {
        host::UniqueFd(memfd_create("one", MFD_CLOEXEC | MFD_ALLOW_SEALING)),
        host::UniqueFd(memfd_create("other", MFD_CLOEXEC | MFD_ALLOW_SEALING)),
        host::UniqueFd(open("/tmp", O_RDWR | O_TMPFILE | O_CLOEXEC, 0600))};
    std::vector<Import> imports = {};

    void run() {
        for (int steps = 0; data.remaining_bytes() > 0 && steps < 64; ++steps) {
            const int kind = data.ConsumeIntegralInRange(0, 5);
            if (kind < 2 || imports.empty())
                imports.size() < 8 ? import() : free();
            else if (kind == 2)
                change(pick(imports).file, data.ConsumeIntegralInRange(0, kMost));
            else if (kind < 5)
                lock(pick(imports), kind == 3);
            else
                free();
        }
        while (!imports.empty())
            free();
        host::MapperCounters now = host::mapperCounters();
        now.maps = counts.maps;
        fuzz::expect(memcmp(&now, &counts, sizeof(now)) == 0, "another count, or a mapping left");
    }

    /** Also how it is counted. Whether it was granted. */
    bool expectAnswer(Error answer, Error expected, int64_t& granted) {
        fuzz::expect(answer == expected, "a wrong answer");
        ++(expected == Error::NONE ? granted : counts.refusals);
        return expected == Error::NONE;
    }
    template <typename Container>
    auto pick(Container& from) -> decltype(from[0]) {
        return from[data.ConsumeIntegralInRange<size_t>(0, std::size(from) - 1)];
    }
    /** Mostly what is usual, else one of the limits. */
    int nearly(int64_t usual, const std::vector<int64_t>& limits) {
        const auto kind = data.ConsumeIntegralInRange<size_t>(0, 8 * limits.size());
        return static_cast<int>(kind < limits.size() ? limits[kind] : usual);
    }

    /** Which a seal, or having none, may forbid. */
    void change(int file, int64_t size) {
        (void)!ftruncate(file, nearly(size, {size - 1, size + 5000, kMost - 1, kMost, kMost + 1}));
        fcntl(file, F_ADD_SEALS, nearly(F_SEAL_SHRINK, {0, 0, F_SEAL_WRITE, F_SEAL_SEAL}));
        if (data.ConsumeIntegral<uint8_t>() < 32)
            fallocate(file, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, size & 4095, 1 + size);
    }
    /** Of a small buffer, often with another word, or two, or not the usual counts. */
    void import() {
        if (data.ConsumeIntegral<uint8_t>() == 0) return import(nullptr, 0);
        const auto width = data.ConsumeIntegralInRange(1U, 128U);
        const auto height = data.ConsumeIntegralInRange(1U, 128U);
        const auto order = static_cast<host::ChromaOrder>(data.ConsumeBool());
        const auto step = static_cast<uint32_t>(nearly(2, {1, 1, 3, 8}));
        const int file = pick(files).get();
        const host::UniqueHandle forged = host::detail::encode(
            host::UniqueFd(fcntl(file, F_DUPFD_CLOEXEC, 0)), {width, height, 0, 0, order, step});
        for (int others = data.ConsumeIntegralInRange(-2, 2); others > 0; --others) {
            const uint32_t words[] = {pick(kLimits),
                                      width + data.ConsumeIntegralInRange(0U, 8U) - 2,
                                      data.ConsumeIntegral<uint32_t>()};
            forged->data[data.ConsumeIntegralInRange(1, kWords)] = static_cast<int>(pick(words));
        }
        int* const header[] = {&forged->version, &forged->numFds, &forged->numInts};
        if (data.ConsumeIntegral<uint8_t>() < 32) *pick(header) += data.ConsumeBool() ? 1 : -1;
        if (data.ConsumeBool()) change(file, claimOf(forged.get()).total);
        import(forged.get(), file);
        // Else it would not be closed.
        std::tie(forged->version, forged->numFds, forged->numInts) = kUsual;
    }
    void import(buffer_handle_t raw, int file) {
        Import made = {nullptr, file, claimOf(raw)};
        const int64_t total = made.claim.total;
        fuzz::expect(host::claimedBytes(raw) == static_cast<uint64_t>(total), "another claim");
        // What may not be written cannot be mapped. A file that knows no seals gives -1, with the
        // bits of both.
        const int seals = fcntl(file, F_GET_SEALS) & (F_SEAL_SHRINK | F_SEAL_WRITE);
        const bool isBuffer =
            total > 0 && seals == F_SEAL_SHRINK && isWithin(lseek(file, 0, SEEK_END), total, kMost);
        const Error expected = isBuffer ? Error::NONE : Error::BAD_BUFFER;
        if (!expectAnswer(mapper.import(raw, made.handle), expected, counts.imports)) return;
        imports.push_back(made);
        expectAnswer(mapper.unlock(made.handle), Error::BAD_BUFFER, counts.unlocks);
        // Memory that is known is not mapped again.
        const int64_t maps = host::mapperCounters().maps;
        buffer_handle_t again = nullptr;
        expectAnswer(mapper.import(made.handle, again), Error::NONE, counts.imports);
        fuzz::expect(made.handle != raw && again != made.handle, "no handle of its own");
        expectAnswer(mapper.free(again), Error::NONE, counts.frees);
        fuzz::expect(host::mapperCounters().maps == maps, "it is mapped once more");
    }

    void lock(const Import& import, bool isPlain) {
        const Claim& claim = import.claim;
        const int left = nearly(0, {1, -1}), top = nearly(0, {1, -1});
        const int width = nearly(claim.width, {0, claim.width - 1, claim.width + 1, claim.total,
                                               claim.total + 1, -1, INT32_MAX});
        const int height = nearly(claim.height, {0, 1, 1, 2, claim.height + 1, -1, INT32_MAX});
        const auto usage = static_cast<uint64_t>(nearly(0x33, {0, 0x3, 0x30, 0xF00}));
        const bool isInside = left >= 0 && top >= 0 && isWithin(width, 0, claim.width - left) &&
                              isWithin(height, 0, claim.height - top);
        const bool isRow =
            isPlain && left == 0 && top == 0 && height == 1 && isWithin(width, 0, claim.total);
        const bool mayLock = (isInside || isRow) && (usage & 0xff) != 0;
        const Error expected = mayLock ? Error::NONE : Error::BAD_VALUE;
        MapperLayout at = {};
        const Error answer =
            isPlain ? mapper.lock(import.handle, usage, {left, top, width, height}, at.y)
                    : mapper.lockYCbCr(import.handle, usage, {left, top, width, height}, at);
        if (!expectAnswer(answer, expected, counts.locks)) return;
        auto* const bytes = static_cast<uint8_t*>(at.y);
        for (const int64_t place : {int64_t{0}, claim.total / 2, claim.total - 1}) {
            uint8_t inFile = 0;
            ++bytes[place];
            const bool isRead = pread(import.file, &inFile, 1, place) == 1;
            fuzz::expect(isRead && inFile == bytes[place], "locked memory is not the client's");
        }
        const std::tuple planes(bytes + claim.cb, bytes + claim.cr, claim.stride,
                                claim.chromaStride, claim.step);
        const std::tuple said(at.cb, at.cr, at.yStride, at.cStride, at.chromaStep);
        fuzz::expect(isPlain || planes == said, "other planes");
        expectAnswer(mapper.unlock(import.handle), Error::NONE, counts.unlocks);
    }
    void free() {
        std::swap(pick(imports), imports.back());
        const buffer_handle_t handle = imports.back().handle;
        imports.pop_back();
        expectAnswer(mapper.free(handle), Error::NONE, counts.frees);
        // From now on nobody knows it.
        void* memory = nullptr;
        expectAnswer(mapper.free(handle), Error::BAD_BUFFER, counts.frees);
        expectAnswer(mapper.lock(handle, 3, {0, 0, 1, 1}, memory), Error::BAD_BUFFER, counts.locks);
        expectAnswer(mapper.unlock(handle), Error::BAD_BUFFER, counts.unlocks);
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    FuzzedDataProvider data(bytes, size);
    const fuzz::SameDescriptors same;
    Life{data}.run();
    return 0;
}
