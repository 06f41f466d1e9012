#include "face_sheet.h"

#include <libyuv.h>

#include <algorithm>
#include <string>

namespace tools {

namespace {

using camera::FrameSize;

constexpr FrameSize kCell = {320, 180};
constexpr int kColumns = 2;
constexpr int kRows = 4;
constexpr Colour kView = {250, 140, 20};
constexpr Colour kFace = {90, 220, 90};
constexpr int kThick = 6;

/** Puts it into a cell of a page, smaller. */
void paste(Picture& page, size_t cell, const Picture& picture) {
    const auto argbOf = [](FrameSize size) { return std::vector<uint8_t>(4 * size.lumaBytes()); };
    const FrameSize size = {picture.width, picture.height};
    std::vector<uint8_t> large = argbOf(size);
    std::vector<uint8_t> small = argbOf(kCell);
    libyuv::RAWToARGB(picture.rgb.data(), 3 * size.width, large.data(), 4 * size.width, size.width,
                      size.height);
    libyuv::ARGBScale(large.data(), 4 * size.width, size.width, size.height, small.data(),
                      4 * kCell.width, kCell.width, kCell.height, libyuv::kFilterBox);
    const int left = static_cast<int>(cell % kColumns) * kCell.width;
    const int top = static_cast<int>(cell / kColumns) * kCell.height;
    libyuv::ARGBToRAW(small.data(), 4 * kCell.width,
                      &page.rgb[size_t{3} * static_cast<size_t>(top * page.width + left)],
                      3 * page.width, kCell.width, kCell.height);
}

}  // namespace

Picture faceSheet(const std::vector<Look>& looks, const FaceClip& clip, bool isTurned,
                  const PictureFolder& pictures) {
    constexpr size_t kCells = size_t{kColumns} * kRows;
    Picture whole(kColumns * kCell.width, kRows * kCell.height);
    Picture got = whole;
    for (size_t cell = 0; cell < kCells && !looks.empty(); ++cell) {
        const Look& look = looks[cell * (looks.size() - 1) / (kCells - 1)];
        Picture picture = clip.picture(look.clipFrame, isTurned);
        outline(picture, look.view, kView, kThick);
        outline(picture, look.truth, kFace, kThick);
        paste(whole, cell, picture);
        std::string ignored;  // a picture that is missing stays black
        if (const auto frame = readPng(pictures.pictureOf(look.frame), ignored))
            paste(got, cell, *frame);
    }
    return sideBySide(whole, "WHOLE PICTURE", got, "WHAT THE CLIENT SEES");
}

}  // namespace tools
