#pragma once

#include <android/hardware/camera/device/3.2/types.h>
#include <utils/Mutex.h>
#include <utils/StrongPointer.h>
#include <utils/Thread.h>

#include "FDSession.h"
#include "YUVFile.h"

namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation {

/**
 * A thread that takes the camera provider's place: it answers each of the client's requests with
 * the next frame of a raw NV12 file of 1280 x 720, at most one in 50 ms.
 *
 * Make it with `new` and hold it in an `sp`; it runs at once. To stop it: requestExit(), join(),
 * and then let go of the pointer. (requestExit() and letting go is enough where join() also returns
 * for a thread that found its object gone; the thread then ends after the pass under way.)
 *
 * The thread runs before the maker holds its reference. What keeps the object alive until then is
 * the thread's own reference during its first pass, which ends with a pause of 50 ms.
 */
class [[gnu::visibility("default")]] FDSessionTest : public ::android::Thread {
public:
    FDSessionTest();
    ~FDSessionTest() override;

    /** One pass: takes the configuration, serves at most one request, pauses. Always true. */
    bool threadLoop() override;

private:
    // REQUIRES: mLoopLock is held.
    bool updateConfiguration();
    void serve(CaptureRequest & request);
    /** Copies the next frame into the buffer, as far as both are there; returns its wrapper. */
    sp<GraphicBuffer> fill(const StreamBuffer& buffer);

    // Held for each pass, but for its pause.
    ::android::Mutex mLoopLock;
    // Guarded by mLoopLock.
    sp<FDSession> mFdSession;
    YUVFile mFile;
    StreamConfiguration mLastConfiguration;
};

}  // namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation
