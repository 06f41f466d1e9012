#include "picture.h"

#include <err.h>
#include <libyuv.h>
#include <png.h>

#include <algorithm>
#include <string>

#include "font.h"

namespace tools {

namespace {

struct Rgb {
    uint8_t red;
    uint8_t green;
    uint8_t blue;
};

constexpr Rgb kPaper = {32, 34, 38};
constexpr Rgb kMissing = {64, 66, 72};
constexpr Rgb kInk = {225, 225, 225};

constexpr int kThumbWidth = 256;
constexpr int kThumbHeight = 144;
constexpr int kPerRow = 8;
constexpr int kGap = 8;
constexpr int kLabelScale = 2;
constexpr int kLabelHeight = font::kHeight * kLabelScale + 8;
constexpr int kHeadingScale = 6;
constexpr int kHeadingHeight = font::kHeight * kHeadingScale + 2 * kGap;
constexpr int kColumnPitch = kThumbWidth + kGap;
constexpr int kRowPitch = kThumbHeight + kLabelHeight + kGap;

size_t offsetOf(const Picture& picture, int x, int y) {
    return (static_cast<size_t>(y) * static_cast<size_t>(picture.width) + static_cast<size_t>(x)) *
           3;
}

void fill(Picture& picture, int left, int top, int width, int height, Rgb colour) {
    for (int y = top; y < top + height; ++y) {
        for (int x = left; x < left + width; ++x) {
            uint8_t* const pixel = &picture.rgb[offsetOf(picture, x, y)];
            pixel[0] = colour.red;
            pixel[1] = colour.green;
            pixel[2] = colour.blue;
        }
    }
}

void write(Picture& picture, std::string_view text, int left, int top, int scale) {
    font::forEachDot(text, [&](int column, int row) {
        fill(picture, left + column * scale, top + row * scale, scale, scale, kInk);
    });
}

void paste(Picture& onto, const Picture& picture, int left, int top) {
    const size_t rowBytes = static_cast<size_t>(picture.width) * 3;
    for (int y = 0; y < picture.height; ++y) {
        std::copy_n(&picture.rgb[offsetOf(picture, 0, y)], rowBytes,
                    &onto.rgb[offsetOf(onto, left, top + y)]);
    }
}

Picture toRgb(const Frame& nv12, int width, int height) {
    Picture picture(width, height);
    const uint8_t* const chroma =
        nv12.data() + static_cast<size_t>(width) * static_cast<size_t>(height);
    libyuv::NV12ToRAW(nv12.data(), width, chroma, width, picture.rgb.data(), width * 3, width,
                      height);
    return picture;
}

Picture thumbnail(const Frame& frame) {
    Frame small(size_t{kThumbWidth} * kThumbHeight / 2 * 3);
    libyuv::NV12Scale(frame.data(), kFrameWidth, frame.data() + kLumaBytes, kFrameWidth,
                      kFrameWidth, kFrameHeight, small.data(), kThumbWidth,
                      small.data() + size_t{kThumbWidth} * kThumbHeight, kThumbWidth, kThumbWidth,
                      kThumbHeight, libyuv::kFilterBox);
    return toRgb(small, kThumbWidth, kThumbHeight);
}

struct Cell {
    int left;
    int top;
};

Cell cellOf(size_t index) {
    const auto column = static_cast<int>(index % kPerRow);
    const auto row = static_cast<int>(index / kPerRow);
    return {kGap + column * kColumnPitch, kGap + row * kRowPitch};
}

Picture emptyPage(size_t frames) {
    const auto columns = static_cast<int>(std::min(frames, size_t{kPerRow}));
    const auto rows = static_cast<int>((frames + kPerRow - 1) / kPerRow);
    return {kGap + columns * kColumnPitch, kGap + rows * kRowPitch};
}

int headingWidth(std::string_view heading) {
    return font::widthOf(heading) * kHeadingScale + 2 * kGap;
}

}  // namespace

Picture::Picture(int inWidth, int inHeight)
    : width(inWidth),
      height(inHeight),
      rgb(static_cast<size_t>(inWidth) * static_cast<size_t>(inHeight) * 3) {
    fill(*this, 0, 0, width, height, kPaper);
}

Picture toPicture(const Frame& frame) {
    return toRgb(frame, kFrameWidth, kFrameHeight);
}

bool writePng(const Picture& picture, const std::filesystem::path& path) {
    png_image image = {};
    image.version = PNG_IMAGE_VERSION;
    image.width = static_cast<png_uint_32>(picture.width);
    image.height = static_cast<png_uint_32>(picture.height);
    image.format = PNG_FORMAT_RGB;
    image.flags = PNG_IMAGE_FLAG_FAST;
    if (png_image_write_to_file(&image, path.c_str(), 0, picture.rgb.data(), 0, nullptr) != 0)
        return true;
    warnx("%s cannot be written: %s", path.c_str(), image.message);
    return false;
}

ContactSheet::ContactSheet(size_t frames) : mPicture(emptyPage(frames)) {
    for (size_t index = 0; index < frames; ++index) {
        const Cell cell = cellOf(index);
        fill(mPicture, cell.left, cell.top, kThumbWidth, kThumbHeight, kMissing);
        write(mPicture, std::to_string(index), cell.left, cell.top + kThumbHeight + 4, kLabelScale);
    }
}

void ContactSheet::put(size_t index, const Frame& frame) {
    const Cell cell = cellOf(index);
    paste(mPicture, thumbnail(frame), cell.left, cell.top);
}

Picture sideBySide(const Picture& left, std::string_view leftHeading, const Picture& right,
                   std::string_view rightHeading) {
    const int middle = std::max(left.width, headingWidth(leftHeading)) + 4 * kGap;
    Picture page(middle + std::max(right.width, headingWidth(rightHeading)),
                 kHeadingHeight + std::max(left.height, right.height));
    write(page, leftHeading, kGap, kGap, kHeadingScale);
    write(page, rightHeading, middle + kGap, kGap, kHeadingScale);
    paste(page, left, 0, kHeadingHeight);
    paste(page, right, middle, kHeadingHeight);
    return page;
}

}  // namespace tools
