#pragma once

#include <array>
#include <climits>
#include <cstdint>
#include <memory>
#include <string>

#include "FDSession.h"
#include "model/files.h"

/** The records that operations carry, from their arguments, and in words to be compared. */
namespace testing_support {

namespace fdstream = vendor::zoru::zoruprovider::fdstream::V1_0;
namespace product = vendor::zoru::zoruprovider::fdstream::V1_0::implementation;

using Args = std::array<uint8_t, 11>;

/** Of the descriptors that can be duplicated from now on. */
constexpr int kNoLimit = INT_MAX;

/** A graphics buffer; all numbers 0 when it could not be made. */
struct PlainGraphicBuffer {
    File file = kNoHandle;
    int width = 0;
    int height = 0;
    int stride = 0;
    int format = 0;
    uint64_t usage = 0;
    int initCheck = 0;
    android::sp<android::GraphicBuffer> real;  // which the model has not
};

/** One of these, by the argument. */
template <typename T, size_t N>
T oneOf(const T (&choices)[N], uint8_t arg) {
    return choices[arg % N];
}

product::CaptureRequest requestOf(const Args& args, const Handles& handles);
product::CaptureResult resultOf(const Args& args, const Handles& handles);
product::StreamConfiguration configurationOf(const Args& args);
product::SceneControl sceneOf(const Args& args);
product::TrackControl trackOf(const Args& args);
fdstream::FDNotifyMsg messageOf(const Args& args);
/** A buffer by its two ids. */
product::StreamBuffer nameOf(const Args& args);

std::string inWords(const Files& files, const product::CaptureRequest& request);
std::string inWords(const Files& files, const product::CaptureResult& result);
std::string inWords(const PlainGraphicBuffer& buffer);
std::string inWords(const product::StreamConfiguration& configuration);
std::string inWords(const product::SceneControl& control);
std::string inWords(const product::TrackControl& control);
std::string inWords(const fdstream::FDNotifyMsg& message);

}  // namespace testing_support
