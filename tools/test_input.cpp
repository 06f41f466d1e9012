// In the place of the device's path: a host's programs play a file of their working directory.

#include "TestInput.h"

namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation {

const char* const kTestInput = "fd_stream_subst_nv12.yuv";

}  // namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation
