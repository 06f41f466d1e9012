#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "FDSession.h"
#include "model/files.h"

/** The records that operations carry, from their arguments. */
namespace testing_support {

namespace fdstream = vendor::zoru::zoruprovider::fdstream::V1_0;
namespace product = vendor::zoru::zoruprovider::fdstream::V1_0::implementation;

using Args = std::array<uint8_t, 11>;

/** One of these, by the argument. */
template <typename T, size_t N>
T oneOf(const T (&choices)[N], uint8_t arg) {
    return choices[arg % N];
}

product::CaptureRequest requestOf(const Args& args, const FileSet& files);
product::CaptureResult resultOf(const Args& args, const FileSet& files);
product::StreamConfiguration configurationOf(const Args& args);
product::SceneControl sceneOf(const Args& args);
/** A buffer by its two ids. */
product::StreamBuffer nameOf(const Args& args);

}  // namespace testing_support
