// The mapper, over the life of several imports of memory that its client grows, cuts, seals and
// punches, against a plain model. What may be locked is written: its bytes have to be the file's.

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <vector>

#include "host/buffer.h"
#include "host/mapper.h"
#include "host/unique_fd.h"
#include "host/unique_handle.h"
#include "support.h"

namespace {

using android::sp;
using android::hardware::graphics::mapper::V3_0::Error;
using android::hardware::graphics::mapper::V3_0::IMapper;
using android::hardware::graphics::mapper::V3_0::YCbCrLayout;
using Mapping = std::shared_ptr<const int64_t>;  // its size

constexpr int kWords = 9;  // the last two are the usage's
constexpr int kMagic = 0x46444231;
constexpr int kVersion = sizeof(native_handle_t);
constexpr int kMost = host::kMaxBufferBytes;

bool isWithin(int64_t value, int64_t least, int64_t most) {
    return value >= least && value <= most;
}

/** What a handle claims, by the format's description; a width of 0 when it is no buffer's. */
struct Claim {
    int64_t width = 0, height = 0, stride = 0, chromaStride = 0, step = 0;
    int64_t cb = 0, cr = 0, total = 0;  ///< where they begin, and the end
};

Claim claimOf(const native_handle_t* handle) {
    if (handle == nullptr || handle->version != kVersion || handle->numFds != 1 ||
        handle->numInts != kWords) {
        return {};
    }
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

/** The client's memory, or a file that has no seals, and what the mapper is to know of it. */
struct Memory {
    const host::UniqueFd fd;
    std::weak_ptr<const int64_t> mapped;  ///< the newest mapping
};

struct Import {
    void* handle;
    std::shared_ptr<Memory> memory;
    Mapping mapping;
    Claim claim;
    int locks;
};

class Life {
public:
    explicit Life(FuzzedDataProvider& data) : mData(data) {}

    void run() {
        for (int steps = 0; mData.remaining_bytes() > 0 && steps < 64; ++steps) {
            expectCounts();
            step();
        }
        while (!mImports.empty())
            free(0);
        expectCounts();
    }

private:
    void step() {
        const int kind = mData.ConsumeIntegralInRange(0, 6);
        if (kind == 1 || kind == 2 || mImports.empty()) return import();
        if (kind == 0) change(pick(mImports).memory->fd.get());
        if (kind == 3 || kind == 4) lock(pick(mImports), kind == 3);
        if (kind == 5) unlock(pick(mImports));
        if (kind == 6) free(mData.ConsumeIntegralInRange<size_t>(0, mImports.size() - 1));
    }
    void expectCounts() {
        host::MapperCounters now = host::mapperCounters();
        if (!mImports.empty()) now.mappings = mCounts.mappings;  // in the end none is left
        fuzz::expect(memcmp(&now, &mCounts, sizeof(now)) == 0, "another count, or mapping");
    }
    template <typename Container>
    typename Container::value_type& pick(Container& from) {
        return from[mData.ConsumeIntegralInRange<size_t>(0, from.size() - 1)];
    }
    /** Mostly what is usual, else one of the limits. */
    int nearly(int64_t usual, std::initializer_list<int64_t> limits) {
        const auto kind = mData.ConsumeIntegralInRange<size_t>(0, 8 * limits.size());
        return static_cast<int>(kind < limits.size() ? limits.begin()[kind] : usual);
    }
    Error count(Error error, int64_t& granted) {
        ++(error == Error::NONE ? granted : mCounts.refusals);
        return error;
    }

    void change(int fd) {
        const auto size = mData.ConsumeIntegralInRange<off_t>(0, kMost + 4096);
        const int kind = mData.ConsumeIntegralInRange(0, 3);
        if (kind == 0)
            fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, size & 4095, 1 + size);
        if (kind == 1) fcntl(fd, F_ADD_SEALS, mData.ConsumeIntegral<uint8_t>() & 0x1f);
        if (kind > 1) (void)!ftruncate(fd, size);  // which a seal may forbid
    }

    std::shared_ptr<Memory> memoryFor(const Claim& claim) {
        std::shared_ptr<Memory>& memory = pick(mMemories);
        if (memory != nullptr && mData.ConsumeBool()) return memory;
        constexpr int kFlags = MFD_CLOEXEC | MFD_ALLOW_SEALING;
        const int file = nearly(0, {1}) == 0 ? memfd_create("fdstream-buffer", kFlags)
                                             : open("/tmp", O_RDWR | O_TMPFILE | O_CLOEXEC, 0600);
        memory.reset(new Memory{host::UniqueFd(file), {}});
        constexpr int kSealed = F_SEAL_SHRINK;
        (void)!ftruncate(file, nearly(claim.total, {claim.total - 1, claim.total + 5000, kMost - 1,
                                                    kMost, kMost + 1}));
        fcntl(file, F_ADD_SEALS,
              nearly(kSealed, {0, F_SEAL_GROW, kSealed | F_SEAL_WRITE, kSealed | F_SEAL_SEAL}));
        return memory;
    }
    host::UniqueHandle forge() {
        host::UniqueHandle handle(
            native_handle_create(nearly(1, {0, 2}), nearly(kWords, {kWords - 1, kWords + 1})));
        handle->version = nearly(kVersion, {kVersion - 1});
        const auto extent = [this] {
            return nearly(mData.ConsumeIntegralInRange(1, 128), {0, -1, 1, 1 << 15, (1 << 15) + 1});
        };
        const int width = extent(), height = extent();
        const int step = nearly(2, {0, 1, 1, 3, 8, 9});
        const int row = (width + 1) / 2 * step;
        const int stride = nearly(mData.ConsumeBool() ? 0 : width + 5,
                                  {-1, width, width - 1, 1 << 20, (1 << 20) + 1});
        const int chromaStride = nearly(0, {-1, row, row - 1, row + 3, 1 << 20, (1 << 20) + 1});
        std::array<int, kWords> words = {
            nearly(kMagic, {kMagic + 1}), width, height, stride, chromaStride,
            nearly(0, {1, 1, 2, -1}),     step};
        if (mData.ConsumeIntegral<uint8_t>() < 8)  // of just the most bytes, or more
            words = {kMagic, 2, 255, 1 << 20, 8192 + mData.ConsumeIntegralInRange(0, 1), 0, 2};
        if (mData.ConsumeIntegral<uint8_t>() < 8) pick(words) = mData.ConsumeIntegral<int>();
        std::copy_n(words.begin(), std::min(handle->numInts, kWords),
                    &handle->data[handle->numFds]);
        return handle;
    }

    void import() {
        if (mImports.size() == 8) return free(0);
        if (!mImports.empty() && mData.ConsumeBool()) {
            const Import& known = pick(mImports);
            return import(static_cast<const native_handle_t*>(known.handle), known.memory);
        }
        if (mData.ConsumeIntegral<uint8_t>() == 0) return import(nullptr, nullptr);
        const host::UniqueHandle forged = forge();
        const std::shared_ptr<Memory> memory = memoryFor(claimOf(forged.get()));
        std::generate_n(&forged->data[0], forged->numFds,
                        [&memory] { return fcntl(memory->fd.get(), F_DUPFD_CLOEXEC, 0); });
        import(forged.get(), memory);
        forged->version = kVersion;  // else it would not be closed
    }
    void import(const native_handle_t* raw, std::shared_ptr<Memory> memory) {
        const Claim claim = claimOf(raw);
        fuzz::expect(host::claimedBytes(raw) == static_cast<uint64_t>(claim.total),
                     "another claim");
        Mapping mapping;
        const Error expected = count(map(claim, raw, memory.get(), mapping), mCounts.imports);
        const auto take = [&](Error error, void* handle) {
            fuzz::expect(error == expected, "a wrong answer to an import");
            const bool isNew = handle != nullptr && handle != raw;
            fuzz::expect(isNew == (error == Error::NONE), "no handle, or one of nothing");
            if (isNew) mImports.push_back({handle, memory, mapping, claim, 0});
        };
        mMapper->importBuffer(raw, take);
    }
    /** As the mapper is to: memory that is known is not mapped again. */
    Error map(const Claim& claim, const native_handle_t* raw, Memory* memory, Mapping& mapping) {
        if (claim.width == 0) return Error::BAD_BUFFER;
        const int fd = raw->data[0];
        const int seals = fcntl(fd, F_GET_SEALS);
        const off_t size = lseek(fd, 0, SEEK_END);
        if (seals < 0 || (seals & F_SEAL_SHRINK) == 0 || !isWithin(size, claim.total, kMost))
            return Error::BAD_BUFFER;
        mapping = memory->mapped.lock();
        if (mapping != nullptr && *mapping >= claim.total) return Error::NONE;
        if ((seals & (F_SEAL_WRITE | F_SEAL_FUTURE_WRITE)) != 0) return Error::BAD_BUFFER;
        memory->mapped = mapping = std::make_shared<const int64_t>(size);
        ++mCounts.maps;
        return Error::NONE;
    }

    /** A few places of the claim: both ends, where the chroma begins, between. */
    static void touch(const Import& import, void* memory) {
        const int64_t last = import.claim.total - 1;
        const int64_t chroma = std::min(import.claim.cb, import.claim.cr);
        for (const int64_t at : {int64_t{0}, chroma - 1, chroma, last / 2, last & ~4095L, last}) {
            const uint8_t byte = ++static_cast<uint8_t*>(memory)[at];
            uint8_t inFile = 0;
            const bool isRead = pread(import.memory->fd.get(), &inFile, 1, at) == 1;
            fuzz::expect(isRead && inFile == byte, "locked memory is not the client's");
        }
    }

    void lock(Import& import, bool isPlain) {
        const Claim& claim = import.claim;
        const int left = nearly(0, {1, -1}), top = nearly(0, {1, -1});
        const int width = nearly(claim.width, {0, claim.width - 1, claim.width + 1, claim.total,
                                               claim.total + 1, -1, INT32_MAX});
        const int height = nearly(claim.height, {0, 1, 1, 2, claim.height + 1, -1, INT32_MAX});
        const IMapper::Rect region = {left, top, width, height};
        const auto usage = static_cast<uint64_t>(nearly(0x33, {0, 0x3, 0x30, 0xF00}));
        const bool isInside = left >= 0 && top >= 0 && isWithin(width, 0, claim.width - left) &&
                              isWithin(height, 0, claim.height - top);
        const bool isRow =
            isPlain && left == 0 && top == 0 && height == 1 && isWithin(width, 0, claim.total);
        const bool mayLock = (isInside || isRow) && (usage & 0xff) != 0;
        const Error expected = count(mayLock ? Error::NONE : Error::BAD_VALUE, mCounts.locks);
        const auto locked = [&](Error error, void* memory, int32_t perPixel, int32_t perStride) {
            fuzz::expect(error == expected, "a wrong answer to a lock");
            fuzz::expect(perPixel == -1 && perStride == -1, "a stride of a planar buffer");
            if (mayLock) touch(import, memory);
        };
        const auto lockedYCbCr = [&](Error error, const YCbCrLayout& at) {
            locked(error, at.y, -1, -1);
            if (!mayLock) return;
            auto* const y = static_cast<uint8_t*>(at.y);
            fuzz::expect(at.cb == y + claim.cb && at.cr == y + claim.cr, "the chroma is elsewhere");
            const bool isSame = at.yStride == claim.stride && at.cStride == claim.chromaStride &&
                                at.chromaStep == claim.step;
            fuzz::expect(isSame, "another stride, or step");
        };
        if (mayLock) ++import.locks;
        if (isPlain)
            mMapper->lock(import.handle, usage, region, nullptr, locked);
        else
            mMapper->lockYCbCr(import.handle, usage, region, nullptr, lockedYCbCr);
    }

    static auto expects(Error expected) {
        return [expected](Error error, auto&&...) {
            fuzz::expect(error == expected, "a wrong answer");
        };
    }
    void unlock(Import& import) {
        const Error expected = import.locks > 0 ? Error::NONE : Error::BAD_BUFFER;
        if (import.locks > 0) --import.locks;
        mMapper->unlock(import.handle, expects(count(expected, mCounts.unlocks)));
    }
    void free(size_t which) {
        void* const handle = mImports[which].handle;
        mImports.erase(mImports.begin() + static_cast<ptrdiff_t>(which));
        expects(Error::NONE)(mMapper->freeBuffer(handle));
        ++mCounts.frees;
        // From now on nobody knows it.
        const auto unknown = expects(Error::BAD_BUFFER);
        unknown(mMapper->freeBuffer(handle));
        mMapper->lock(handle, 3, {0, 0, 1, 1}, nullptr, unknown);
        mMapper->unlock(handle, unknown);
        mCounts.refusals += 3;
    }

    FuzzedDataProvider& mData;
    const sp<IMapper> mMapper = host::realMapper3();
    host::MapperCounters mCounts = host::mapperCounters();  ///< as they have to be
    std::array<std::shared_ptr<Memory>, 2> mMemories;
    std::vector<Import> mImports;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    FuzzedDataProvider data(bytes, size);
    const fuzz::Descriptors before = fuzz::openDescriptors();
    Life(data).run();
    fuzz::expectOpen(before);
    return 0;
}
