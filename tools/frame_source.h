#pragma once

#include <utils/StrongPointer.h>

#include "FDSessionTest.h"

namespace tools {

/** The test frame source, for the scope of this object. */
class FrameSource {
public:
    FrameSource() : mSource(new Source) {}
    FrameSource(const FrameSource&) = delete;
    FrameSource& operator=(const FrameSource&) = delete;
    ~FrameSource() {
        mSource->requestExit();
        mSource->join();
    }

private:
    using Source = vendor::zoru::zoruprovider::fdstream::V1_0::implementation::FDSessionTest;

    const android::sp<Source> mSource;
};

}  // namespace tools
