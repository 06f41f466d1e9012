#pragma once

#include <cstdint>

#include "FDSession.h"
#include "frames.h"

/** A session of the bench's own, and what a client and a provider say to it. */
namespace bench {

using namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation;  // NOLINT

constexpr FrameSize kTiny = {"tiny", 64, 32};

StreamConfiguration streamOf(FrameSize size);

/** A request for a frame in this buffer; without a handle for one that is known. */
CaptureRequest requestFor(uint32_t frameNumber, uint64_t bufferId,
                          const native_handle_t* handle = nullptr);

/** A session that ends, its thread too, with this object. */
class OwnSession {
public:
    OwnSession() : mSession(new FDSessionImpl) {}
    ~OwnSession();
    OwnSession(const OwnSession&) = delete;
    OwnSession& operator=(const OwnSession&) = delete;

    FDSessionImpl* operator->() const { return mSession.get(); }
    FDSessionImpl& operator*() const { return *mSession; }

private:
    const sp<FDSessionImpl> mSession;
};

/** The provider's answer to a request that it took: its buffer, filled. */
CaptureResult resultFor(CaptureRequest request);

}  // namespace bench
