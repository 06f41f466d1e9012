#pragma once

#include <string>
#include <vector>

#include "source/ffmpeg.h"
#include "view/geometry.h"

/** Small clips, made with FFmpeg itself. */
namespace testing_support {

/** One picture of a clip: of one grey. */
struct ClipFrame {
    camera::FrameSize size;
    int luma;
};

/** The picture of limited range. */
camera::FramePtr pictureOf(const ClipFrame& frame, AVPixelFormat format = AV_PIX_FMT_YUV420P);

/**
 * Writes them, 25 a second, in a container and with an encoder of these names; fails the test when
 * that cannot be. With the container "data" pictures may be of several sizes.
 */
void writeClip(const std::string& path, const std::string& container, const std::string& encoder,
               const std::vector<ClipFrame>& frames);

}  // namespace testing_support
