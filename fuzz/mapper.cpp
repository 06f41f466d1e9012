// The mapper, over the life of several imports of memory that its client grows, cuts, seals and
// punches. What may be locked is written and read to its end: the bytes have to be the file's.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <iterator>
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
using host::UniqueFd;

constexpr int kWords = 9;
constexpr int kMagic = 0x46444231;
enum Word { MAGIC, WIDTH, HEIGHT, STRIDE, CHROMA_STRIDE, ORDER, CHROMA_STEP };

/** What a handle claims, by the format's description. */
struct Claim {
    bool isBuffer = false;
    int64_t width = 0, height = 0;
    int64_t chroma = 0;  ///< where it begins
    int64_t total = 0;
};

Claim claimOf(const native_handle_t& handle) {
    const int* const words = &handle.data[handle.numFds];
    if (handle.numFds != 1 || handle.numInts != kWords || words[MAGIC] != kMagic) return {};
    const int64_t width = words[WIDTH], height = words[HEIGHT], step = words[CHROMA_STEP];
    const auto isWithin = [](int64_t value, int64_t least, int64_t most) {
        return value >= least && value <= most;
    };
    const int64_t pairs = (width + 1) / 2;
    const int64_t stride = words[STRIDE] != 0 ? words[STRIDE] : 2 * pairs;
    const int64_t usual = std::max(stride / 2 * step, pairs * step);
    const int64_t chromaStride = words[CHROMA_STRIDE] != 0 ? words[CHROMA_STRIDE] : usual;
    const bool isWithinLimits = isWithin(width, 1, 1 << 15) && isWithin(height, 1, 1 << 15) &&
                                isWithin(step, 1, 8) && isWithin(words[ORDER], 0, 1) &&
                                isWithin(stride, width, 1 << 20) &&
                                words[CHROMA_STRIDE] <= 1 << 20 && chromaStride >= pairs * step;
    if (!isWithinLimits) return {};
    Claim claim;
    claim.width = width;
    claim.height = height;
    claim.chroma = stride * height;
    claim.total = claim.chroma + (step == 1 ? 2 : 1) * chromaStride * ((height + 1) / 2);
    claim.isBuffer = claim.total <= static_cast<int64_t>(host::kMaxBufferBytes);
    return claim;
}

int64_t sizeOf(int fd) {
    struct stat status = {};
    fuzz::expect(fstat(fd, &status) == 0, "fstat fails");
    return status.st_size;
}

/** The client's memory. */
class Memory {
public:
    explicit Memory(FuzzedDataProvider& data) {
        change(data);
        // Else hardly any import would be allowed.
        if (data.ConsumeIntegral<uint8_t>() != 0) fcntl(fd(), F_ADD_SEALS, F_SEAL_SHRINK);
    }
    int fd() const { return mFd.get(); }

    void change(FuzzedDataProvider& data) {
        const auto size = data.ConsumeBool() ? data.ConsumeIntegralInRange<off_t>(0, 1 << 14)
                                             : data.ConsumeIntegralInRange<off_t>(0, kMost);
        switch (data.ConsumeIntegralInRange(0, 3)) {
            case 0:
            case 1:
                (void)!ftruncate(fd(), size);  // which a seal may forbid
                break;
            case 2:
                fallocate(fd(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, size & 4095, 1 + size);
                break;
            default:
                fcntl(fd(), F_ADD_SEALS, data.ConsumeIntegral<uint8_t>() & 0x1f);
        }
    }

private:
    static constexpr auto kMost = static_cast<off_t>(host::kMaxBufferBytes) + 4096;
    const UniqueFd mFd{memfd_create("fdstream-buffer", MFD_CLOEXEC | MFD_ALLOW_SEALING)};
};

struct Import {
    void* handle;
    int fd;  ///< the client's, to look at the same memory
    Claim claim;
    int locks;
};

class Life {
public:
    explicit Life(FuzzedDataProvider& data) : mData(data), mMemories{Memory(data), Memory(data)} {}

    void step() {
        switch (mData.ConsumeIntegralInRange(0, 6)) {
            case 0:
                return pick(mMemories).change(mData);
            case 1:
            case 2:
                return import();
            case 3:
            case 4:
                return mImports.empty() ? import() : lock(pick(mImports));
            case 5:
                return unlock();
            default:
                return free();
        }
    }
    void end() {
        while (!mImports.empty())
            free();
    }

private:
    template <typename Container>
    typename Container::value_type& pick(Container& from) {
        return from[mData.ConsumeIntegralInRange<size_t>(0, from.size() - 1)];
    }

    host::UniqueHandle forge(int fd) {
        const int numFds = mData.ConsumeIntegral<uint8_t>() != 7 ? 1 : 2;
        const int numInts = mData.ConsumeIntegral<uint8_t>() != 7 ? kWords : kWords - 1;
        host::UniqueHandle handle(native_handle_create(numFds, numInts));
        for (int i = 0; i < numFds; ++i)
            handle->data[i] = fcntl(fd, F_DUPFD_CLOEXEC, 0);
        int* const words = &handle->data[numFds];
        words[MAGIC] = kMagic;
        words[CHROMA_STEP] = 2;
        for (const Word word : {WIDTH, HEIGHT})
            words[word] = mData.ConsumeIntegralInRange(1, mData.ConsumeBool() ? 128 : 1 << 15);
        if (mData.ConsumeBool()) words[CHROMA_STEP] = mData.ConsumeIntegralInRange(0, 9);
        if (mData.ConsumeBool()) words[STRIDE] = mData.ConsumeIntegralInRange(0, 1 << 21);
        if (mData.ConsumeBool()) words[CHROMA_STRIDE] = mData.ConsumeIntegralInRange(0, 1 << 21);
        if (mData.ConsumeBool()) words[ORDER] = 1;
        if (mData.ConsumeIntegral<uint8_t>() < 8)
            words[mData.ConsumeIntegralInRange(0, 6)] = mData.ConsumeIntegral<int>();
        return handle;
    }

    void import() {
        if (mImports.size() == 8) return free();
        const bool isAgain = !mImports.empty() && mData.ConsumeBool();
        const Import* const known = isAgain ? &pick(mImports) : nullptr;
        const int fd = isAgain ? known->fd : pick(mMemories).fd();
        const host::UniqueHandle forged = isAgain ? nullptr : forge(fd);
        const auto* const raw =
            isAgain ? static_cast<const native_handle_t*>(known->handle) : forged.get();
        const Claim claim = claimOf(*raw);
        const int64_t size = sizeOf(fd);
        const int seals = fcntl(fd, F_GET_SEALS);
        const bool mayImport = claim.isBuffer && (seals & F_SEAL_SHRINK) != 0 &&
                               claim.total <= size &&
                               size <= static_cast<int64_t>(host::kMaxBufferBytes);
        const bool isWritable = (seals & (F_SEAL_WRITE | F_SEAL_FUTURE_WRITE)) == 0;
        const auto take = [&](Error error, void* handle) {
            // Sealed against further writing it is still taken where it is mapped already.
            fuzz::expect(mayImport || error == Error::BAD_BUFFER, "no buffer, and imported");
            fuzz::expect(!mayImport || !isWritable || error == Error::NONE, "a buffer is refused");
            if (error == Error::NONE) mImports.push_back({handle, fd, claim, 0});
        };
        fuzz::expect(mMapper->importBuffer(raw, take).isOk(), "no answer");
    }

    /** Whatever the size, a few places of the claim: both ends, where the chroma begins, between.
     */
    static void touch(const Import& import, uint8_t* memory) {
        const int64_t last = import.claim.total - 1;
        for (const int64_t at : {int64_t{0}, import.claim.chroma - 1, import.claim.chroma, last / 2,
                                 last & ~int64_t{4095}, last}) {
            const uint8_t byte = static_cast<uint8_t>(memory[at] + 1);
            memory[at] = byte;
            uint8_t inFile = 0;
            fuzz::expect(pread(import.fd, &inFile, 1, at) == 1 && inFile == byte,
                         "locked memory is not the client's");
        }
    }

    void lock(Import& import) {
        const auto side = [&](int64_t extent) {
            if (mData.ConsumeIntegral<uint8_t>() > 240) return mData.ConsumeIntegral<int32_t>();
            const int64_t near[] = {extent, extent, 0, 1, import.claim.total};
            constexpr int kBeside[] = {0, 0, 0, 1, -1};
            return static_cast<int32_t>(mData.PickValueInArray(near)) +
                   mData.PickValueInArray(kBeside);
        };
        const IMapper::Rect region = {side(0), side(0), side(import.claim.width),
                                      side(import.claim.height)};
        const uint64_t usage = mData.ConsumeBool() ? 0x33 : mData.ConsumeIntegral<uint64_t>();
        const bool isInside = region.left >= 0 && region.top >= 0 && region.width >= 0 &&
                              region.height >= 0 &&
                              int64_t{region.left} + region.width <= import.claim.width &&
                              int64_t{region.top} + region.height <= import.claim.height;
        const bool isRow = region.left == 0 && region.top == 0 && region.width >= 0 &&
                           region.height == 1 && region.width <= import.claim.total;
        const auto check = [&](Error error, bool isWithin, void* memory) {
            const bool mayLock = isWithin && (usage & 0xff) != 0;
            fuzz::expect(error == (mayLock ? Error::NONE : Error::BAD_VALUE), "a wrong answer");
            if (!mayLock) return;
            ++import.locks;
            touch(import, static_cast<uint8_t*>(memory));
        };
        const auto locked = [&](Error error, void* memory, int32_t, int32_t) {
            check(error, isInside || isRow, memory);
        };
        const auto lockedYCbCr = [&](Error error, const YCbCrLayout& layout) {
            check(error, isInside, layout.y);
            if (error != Error::NONE) return;
            auto* const chroma = static_cast<uint8_t*>(std::min(layout.cb, layout.cr));
            fuzz::expect(chroma == static_cast<uint8_t*>(layout.y) + import.claim.chroma,
                         "the chroma is elsewhere");
        };
        const bool isPlain = mData.ConsumeBool();
        const auto answer =
            isPlain ? mMapper->lock(import.handle, usage, region, nullptr, locked)
                    : mMapper->lockYCbCr(import.handle, usage, region, nullptr, lockedYCbCr);
        fuzz::expect(answer.isOk(), "no answer");
    }

    void unlock() {
        if (mImports.empty()) return;
        Import& import = pick(mImports);
        const bool isLocked = import.locks > 0;
        if (isLocked) --import.locks;
        const auto check = [isLocked](Error error, auto&&) {
            fuzz::expect(error == (isLocked ? Error::NONE : Error::BAD_BUFFER), "a wrong answer");
        };
        fuzz::expect(mMapper->unlock(import.handle, check).isOk(), "no answer");
    }

    void free() {
        if (mImports.empty()) return;
        const size_t which = mData.ConsumeIntegralInRange<size_t>(0, mImports.size() - 1);
        void* const handle = mImports[which].handle;
        mImports.erase(mImports.begin() + static_cast<ptrdiff_t>(which));
        for (const Error expected : {Error::NONE, Error::BAD_BUFFER})
            fuzz::expect(Error(mMapper->freeBuffer(handle)) == expected, "not freed once");
    }

    FuzzedDataProvider& mData;
    const sp<IMapper> mMapper = host::realMapper3();
    std::array<Memory, 2> mMemories;
    std::vector<Import> mImports;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    FuzzedDataProvider data(bytes, size);
    const fuzz::Descriptors before = fuzz::openDescriptors();
    const host::MapperCounters counted = host::mapperCounters();
    {
        Life life(data);
        for (int steps = 0; data.remaining_bytes() > 0 && steps < 64; ++steps)
            life.step();
        life.end();
    }
    const host::MapperCounters now = host::mapperCounters();
    fuzz::expect(now.imports - counted.imports == now.frees - counted.frees, "imports are left");
    fuzz::expect(now.mappings == counted.mappings, "mappings are left");
    fuzz::expectOpen(before);
    return 0;
}
