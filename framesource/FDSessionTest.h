#pragma once

#include <android-base/thread_annotations.h>
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
 * Make it with `new` and hold it in an `sp`; the thread starts at once. To stop it: requestExit(),
 * join(), and then drop the pointer. (On a platform whose join() also returns when the thread has
 * found its object gone, requestExit() and dropping the pointer is enough: the thread ends after
 * its current pass.)
 *
 * The thread starts inside the constructor, before the caller of `new` holds a reference. Until
 * then the thread's own reference keeps the object alive, for its first pass and the pause of 50 ms
 * that ends it.
 */
class [[gnu::visibility("default")]] FDSessionTest : public ::android::Thread {
public:
    FDSessionTest();
    ~FDSessionTest() override;

    /** One pass: takes the configuration, serves at most one request, pauses. Always true. */
    bool threadLoop() override;

private:
    bool updateConfiguration() REQUIRES(mLoopLock);
    void serve(CaptureRequest && request) REQUIRES(mLoopLock);
    /** Wraps the buffer and copies the next frame into it, if both exist. Returns the wrapper. */
    sp<GraphicBuffer> fill(const StreamBuffer& buffer) REQUIRES(mLoopLock);

    // Held during each pass, except for its pause.
    ::android::Mutex mLoopLock;
    sp<FDSession> mFdSession GUARDED_BY(mLoopLock);
    YUVFile mFile GUARDED_BY(mLoopLock);
    StreamConfiguration mLastConfiguration GUARDED_BY(mLoopLock);
};

}  // namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation
