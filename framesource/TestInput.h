#pragma once

namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation {

/**
 * The raw NV12 file that the test frame source plays, a path. Internal. The source file that
 * defines it has nothing else in it, so that a program which has a clip elsewhere can bring its
 * own.
 */
extern const char* const kTestInput;

}  // namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation
