#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "frame.h"
#include "view/geometry.h"

namespace tools {

/** A picture in memory: rows without padding of red, green and blue bytes. Value type. */
struct Picture {
    Picture(int inWidth, int inHeight);

    int width;
    int height;
    std::vector<uint8_t> rgb;
};

/** REQUIRES: of these frames, that none of their chroma is left out, as in wholeFrame(). */
Picture toPicture(const kit::Frame& frame, kit::FrameSize size);
/** Another size of the same picture, smooth. */
Picture scaled(const kit::Frame& frame, kit::FrameSize size, kit::FrameSize target);

/** Of red, green and blue. */
using Colour = std::array<uint8_t, 3>;

/** Draws the outline of a part, so many pixels thick inward, as far as it is in the picture. */
void outline(Picture& picture, const camera::Rect& part, Colour colour, int thickness);

/** Nothing, and a sentence in `problem`, when it is no PNG picture that can be read. */
std::optional<Picture> readPng(const std::filesystem::path& path, std::string& problem);
/** False after a sentence on stderr. */
bool writePng(const Picture& picture, const std::filesystem::path& path);

/** All frames of a scene, of a clip's size, on one page, small, each with its number. */
class ContactSheet {
public:
    /** A page with room for this many frames, all of them still missing. */
    explicit ContactSheet(size_t frames);

    void put(size_t index, const kit::Frame& frame);
    const Picture& picture() const { return mPicture; }

private:
    Picture mPicture;
};

/** Two pictures beside each other, each below its heading. */
Picture sideBySide(const Picture& left, std::string_view leftHeading, const Picture& right,
                   std::string_view rightHeading);

}  // namespace tools
