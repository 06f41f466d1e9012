#include "face_clip.h"

#include <libyuv.h>

#include <algorithm>
#include <cmath>

namespace tools {

namespace {

using camera::Rect;

constexpr int kSide = 384;  ///< of the photograph in the clip
constexpr double kPi = 3.14159265358979;

/** The face in the photograph, as a share of its side: from the eyebrows to the chin. */
constexpr double kFaceX = 176 / 512.0;
constexpr double kFaceY = 66 / 512.0;
constexpr double kFaceSide = 96 / 512.0;

constexpr int kLumaBytes = FaceClip::kSize.width * FaceClip::kSize.height;
constexpr int kChromaStride = FaceClip::kSize.width / 2;

struct Planes {
    explicit Planes(std::string& bytes)
        : y(reinterpret_cast<uint8_t*>(bytes.data())), u(y + kLumaBytes), v(u + kLumaBytes / 4) {}
    uint8_t* y;
    uint8_t* u;
    uint8_t* v;
};

/** A wall in a plain colour, darker to the right. */
void paintWall(const Planes& planes) {
    for (int row = 0; row < FaceClip::kSize.height; ++row) {
        for (int x = 0; x < FaceClip::kSize.width; ++x)
            planes.y[row * FaceClip::kSize.width + x] =
                static_cast<uint8_t>(150 - 60 * x / FaceClip::kSize.width);
    }
    std::fill_n(planes.u, kLumaBytes / 4, uint8_t{138});
    std::fill_n(planes.v, kLumaBytes / 4, uint8_t{122});
}

}  // namespace

std::optional<FaceClip> FaceClip::of(const std::filesystem::path& photo, std::string& problem) {
    const std::optional<Picture> picture = readPng(photo, problem);
    return picture ? std::optional(FaceClip(*picture)) : std::nullopt;
}

FaceClip::FaceClip(const Picture& photo) : mPhoto(size_t{4} * kSide * kSide) {
    std::vector<uint8_t> argb(size_t{4} * static_cast<size_t>(photo.width * photo.height));
    libyuv::RAWToARGB(photo.rgb.data(), 3 * photo.width, argb.data(), 4 * photo.width, photo.width,
                      photo.height);
    libyuv::ARGBScale(argb.data(), 4 * photo.width, photo.width, photo.height, mPhoto.data(),
                      4 * kSide, kSide, kSide, libyuv::kFilterBox);
}

Rect FaceClip::place(int frame) const {
    // At its fastest 2 pi x 246 pixels in 14 seconds, which is 110 a second of 1280.
    const double turn = 2 * kPi * frame / kFrames;
    const double x = (kSize.width - kSide) / 2.0 * (1 + 0.55 * std::sin(turn));
    const double y = (kSize.height - kSide) / 2.0 * (1 + 0.5 * std::sin(2 * turn));
    return {static_cast<int>(std::lround(x)) & ~1, static_cast<int>(std::lround(y)) & ~1, kSide,
            kSide};
}

Rect FaceClip::face(int frame) const {
    const Rect at = place(frame);
    const auto scaled = [](double share) { return static_cast<int>(std::lround(share * kSide)); };
    return {at.x + scaled(kFaceX), at.y + scaled(kFaceY), scaled(kFaceSide), scaled(kFaceSide)};
}

std::string FaceClip::header() const {
    return "YUV4MPEG2 W" + std::to_string(kSize.width) + " H" + std::to_string(kSize.height) +
           " F" + std::to_string(kRate) + ":1 Ip A1:1 C420mpeg2 XCOLORRANGE=LIMITED\n";
}

std::string FaceClip::planes(int number, bool isTurned) const {
    std::string upright(kLumaBytes * 3 / 2, '\0');
    const Planes to(upright);
    paintWall(to);
    const Rect at = place(number);
    const int chroma = at.y / 2 * kChromaStride + at.x / 2;
    libyuv::ARGBToI420(mPhoto.data(), 4 * kSide, to.y + at.y * kSize.width + at.x, kSize.width,
                       to.u + chroma, kChromaStride, to.v + chroma, kChromaStride, kSide, kSide);
    if (!isTurned) return upright;
    std::string turned(upright.size(), '\0');
    const Planes target(turned);
    libyuv::I420Rotate(to.y, kSize.width, to.u, kChromaStride, to.v, kChromaStride, target.y,
                       kSize.width, target.u, kChromaStride, target.v, kChromaStride, kSize.width,
                       kSize.height, libyuv::kRotate180);
    return turned;
}

std::string FaceClip::frame(int number, bool isTurned) const {
    return "FRAME\n" + planes(number, isTurned);
}

Picture FaceClip::picture(int number, bool isTurned) const {
    std::string bytes = planes(number, isTurned);
    const Planes from(bytes);
    Picture picture(kSize.width, kSize.height);
    libyuv::I420ToRAW(from.y, kSize.width, from.u, kChromaStride, from.v, kChromaStride,
                      picture.rgb.data(), 3 * kSize.width, kSize.width, kSize.height);
    return picture;
}

}  // namespace tools
