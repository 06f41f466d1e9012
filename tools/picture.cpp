#include "picture.h"

#include <err.h>
#include <libyuv.h>
#include <png.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

#include "font.h"
#include "whole_frame.h"

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

constexpr kit::FrameSize kThumb = {256, 144};
constexpr int kPerRow = 8;
constexpr int kGap = 8;
constexpr int kLabelScale = 2;
constexpr int kLabelHeight = font::kHeight * kLabelScale + 8;
constexpr int kHeadingScale = 6;
constexpr int kHeadingHeight = font::kHeight * kHeadingScale + 2 * kGap;
constexpr int kColumnPitch = kThumb.width + kGap;
constexpr int kRowPitch = kThumb.height + kLabelHeight + kGap;

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

Picture toPicture(const kit::Frame& frame, kit::FrameSize size) {
    Picture picture(size.width, size.height);
    libyuv::NV12ToRAW(frame.data(), size.width, frame.data() + size.lumaBytes(), chromaBytes(size),
                      picture.rgb.data(), size.width * 3, size.width, size.height);
    return picture;
}

Picture scaled(const kit::Frame& frame, kit::FrameSize size, kit::FrameSize target) {
    kit::Frame small(target.bytes());
    libyuv::NV12Scale(frame.data(), size.width, frame.data() + size.lumaBytes(), chromaBytes(size),
                      size.width, size.height, small.data(), target.width,
                      small.data() + target.lumaBytes(), target.width, target.width, target.height,
                      libyuv::kFilterBox);
    return toPicture(small, target);
}

void outline(Picture& picture, const camera::Rect& part, Colour colour, int thickness) {
    const auto put = [&](int x, int y) {
        if (x < 0 || y < 0 || x >= picture.width || y >= picture.height) return;
        std::copy(colour.begin(), colour.end(),
                  picture.rgb.begin() + ptrdiff_t{3} * (ptrdiff_t{y} * picture.width + x));
    };
    for (int edge = 0; edge < thickness; ++edge) {
        for (int x = part.x; x < part.x + part.width; ++x) {
            put(x, part.y + edge);
            put(x, part.y + part.height - 1 - edge);
        }
        for (int y = part.y; y < part.y + part.height; ++y) {
            put(part.x + edge, y);
            put(part.x + part.width - 1 - edge, y);
        }
    }
}

std::optional<Picture> readPng(const std::filesystem::path& path, std::string& problem) {
    png_image image = {};
    image.version = PNG_IMAGE_VERSION;
    if (png_image_begin_read_from_file(&image, path.c_str()) != 0) {
        image.format = PNG_FORMAT_RGB;
        Picture picture(static_cast<int>(image.width), static_cast<int>(image.height));
        if (png_image_finish_read(&image, nullptr, picture.rgb.data(), 0, nullptr) != 0)
            return picture;
    }
    problem = path.string() + " cannot be read: " + image.message;
    return std::nullopt;
}

bool writePng(const Picture& picture, const std::filesystem::path& path) {
    png_image image = {};
    image.version = PNG_IMAGE_VERSION;
    image.width = static_cast<png_uint_32>(picture.width);
    image.height = static_cast<png_uint_32>(picture.height);
    image.format = PNG_FORMAT_RGB;
    image.flags = PNG_IMAGE_FLAG_FAST;
    errno = 0;
    if (png_image_write_to_file(&image, path.c_str(), 0, picture.rgb.data(), 0, nullptr) != 0)
        return true;
    // The library knows only that it could not write.
    const char* const reason = errno != 0 ? strerror(errno) : image.message;
    warnx("%s cannot be written: %s", path.c_str(), reason);
    return false;
}

ContactSheet::ContactSheet(size_t frames) : mPicture(emptyPage(frames)) {
    for (size_t index = 0; index < frames; ++index) {
        const Cell cell = cellOf(index);
        fill(mPicture, cell.left, cell.top, kThumb.width, kThumb.height, kMissing);
        write(mPicture, std::to_string(index), cell.left, cell.top + kThumb.height + 4,
              kLabelScale);
    }
}

void ContactSheet::put(size_t index, const kit::Frame& frame) {
    const Cell cell = cellOf(index);
    paste(mPicture, scaled(frame, kit::kClipSize, kThumb), cell.left, cell.top);
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
