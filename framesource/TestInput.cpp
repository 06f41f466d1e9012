#include "TestInput.h"

namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation {

const char* const kTestInput = "/data/zoru/fd_stream_subst_nv12.yuv";

}  // namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation
