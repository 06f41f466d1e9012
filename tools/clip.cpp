#include "clip.h"

#include <err.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "YUVFile.h"
#include "font.h"
#include "frame.h"
#include "zoru_ycbcr.h"

namespace tools {

namespace {

using vendor::zoru::zoruprovider::fdstream::V1_0::implementation::YUVFile;
using vendor::zoru::zoruprovider::fdstream::V1_0::implementation::zoru_ycbcr;

/** A colour as it is stored: BT.601, in the range that video uses. */
struct Colour {
    float y;
    float cb;
    float cr;
};

constexpr Colour rgb(float red, float green, float blue) {
    return {16.0F + 0.257F * red + 0.504F * green + 0.098F * blue,
            128.0F - 0.148F * red - 0.291F * green + 0.439F * blue,
            128.0F + 0.439F * red - 0.368F * green - 0.071F * blue};
}

constexpr Colour kWhite = rgb(245, 245, 245);
constexpr Colour kBlack = rgb(12, 14, 20);
constexpr Colour kOrange = rgb(250, 140, 20);
constexpr Colour kSky = rgb(20, 26, 52);
constexpr Colour kHorizon = rgb(84, 112, 150);

Colour between(Colour a, Colour b, float share) {
    return {a.y + (b.y - a.y) * share, a.cb + (b.cb - a.cb) * share, a.cr + (b.cr - a.cr) * share};
}

/** In pixels. The right and the bottom edge are outside. */
struct Box {
    int left;
    int top;
    int right;
    int bottom;
};

void mix(uint8_t& sample, float towards, float share) {
    const float value = sample;
    sample = static_cast<uint8_t>(std::lround(value + (towards - value) * share));
}

float inUnit(float value) {
    return std::clamp(value, 0.0F, 1.0F);
}

/** Draws on a frame that the platform's record describes. Does not own the memory. */
class Canvas {
public:
    explicit Canvas(uint8_t* memory) : mFrame(memory, kit::kFrameWidth, kit::kFrameHeight) {}

    zoru_ycbcr& frame() { return mFrame; }

    /** Mixes in a colour; share(x, y), from 0 to 1, says how much of it a point gets. */
    template <typename Share>
    void paint(const Box& box, Colour colour, Share share) {
        for (int y = box.top; y < box.bottom; ++y) {
            for (int x = box.left; x < box.right; ++x) {
                mix(luma(x, y), colour.y,
                    share(static_cast<float>(x) + 0.5F, static_cast<float>(y) + 0.5F));
            }
        }
        for (int y = box.top / 2; y < (box.bottom + 1) / 2; ++y) {
            for (int x = box.left / 2; x < (box.right + 1) / 2; ++x) {
                const float part =
                    share(static_cast<float>(2 * x + 1), static_cast<float>(2 * y + 1));
                mix(chroma(mFrame.cb, x, y), colour.cb, part);
                mix(chroma(mFrame.cr, x, y), colour.cr, part);
            }
        }
    }

    void fill(const Box& box, Colour colour, float share = 1.0F) {
        paint(box, colour, [share](float, float) { return share; });
    }

    void write(std::string_view text, int left, int top, int scale, Colour colour) {
        font::forEachDot(text, [&](int column, int row) {
            const int x = left + column * scale;
            const int y = top + row * scale;
            fill({x, y, x + scale, y + scale}, colour);
        });
    }

    /** An ellipse with soft edges. */
    void ellipse(float x, float y, float xRadius, float yRadius, Colour colour, float share) {
        const Box box = {static_cast<int>(x - xRadius) - 1, static_cast<int>(y - yRadius) - 1,
                         static_cast<int>(x + xRadius) + 2, static_cast<int>(y + yRadius) + 2};
        const float smaller = std::min(xRadius, yRadius);
        paint(box, colour, [&](float px, float py) {
            const float distance = std::hypot((px - x) / xRadius, (py - y) / yRadius);
            return share * inUnit((1.0F - distance) * smaller + 0.5F);
        });
    }

    /** A triangle that points up, as wide as it is high. */
    void triangle(int centre, int top, int size, Colour colour) {
        const Box box = {centre - size / 2 - 2, top, centre + size / 2 + 2, top + size};
        paint(box, colour, [&](float px, float py) {
            const float halfWidth = (py - static_cast<float>(top)) / 2.0F;
            return inUnit(halfWidth - std::abs(px - static_cast<float>(centre)) + 0.5F);
        });
    }

    /** A line with round ends. */
    void line(float x, float y, float toX, float toY, float width, Colour colour) {
        const Box box = {
            static_cast<int>(std::min(x, toX) - width), static_cast<int>(std::min(y, toY) - width),
            static_cast<int>(std::max(x, toX) + width), static_cast<int>(std::max(y, toY) + width)};
        const float length = std::hypot(toX - x, toY - y);
        const float alongX = (toX - x) / length;
        const float alongY = (toY - y) / length;
        paint(box, colour, [&](float px, float py) {
            const float along = std::clamp((px - x) * alongX + (py - y) * alongY, 0.0F, length);
            const float distance = std::hypot(px - x - along * alongX, py - y - along * alongY);
            return inUnit(width / 2.0F - distance + 0.5F);
        });
    }

private:
    uint8_t& luma(int x, int y) const {
        auto* const plane = static_cast<uint8_t*>(mFrame.y);
        return plane[static_cast<size_t>(y) * mFrame.ystride + static_cast<size_t>(x)];
    }
    uint8_t& chroma(void* component, int x, int y) const {
        auto* const plane = static_cast<uint8_t*>(component);
        return plane[static_cast<size_t>(y) * mFrame.cstride +
                     static_cast<size_t>(x) * mFrame.chroma_step];
    }

    zoru_ycbcr mFrame;
};

// Where things are, in pixels. Edges are even, so that colours end where shapes do.
constexpr int kMargin = 64;
constexpr int kRightEdge = kit::kFrameWidth - kMargin;
constexpr int kTextScale = 6;
constexpr int kNumberScale = 26;
constexpr int kBarTop = 320;
constexpr int kBarBottom = 492;
constexpr int kBarWidth = 232;
constexpr float kClockX = kit::kFrameWidth / 2.0F;
constexpr float kClockY = (kBarTop + kBarBottom) / 2.0F;
constexpr float kClockRadius = 82.0F;
constexpr int kGround = 668;
constexpr float kBallRadius = 40.0F;
constexpr float kJump = 84.0F;
constexpr float kJumps = 3.0F;

constexpr int widthOf(std::string_view text) {
    return font::widthOf(text) * kTextScale;
}

void drawSky(Canvas& canvas) {
    for (int y = 0; y < kit::kFrameHeight; y += 2) {
        const float share = static_cast<float>(y) / kit::kFrameHeight;
        canvas.fill({0, y, kit::kFrameWidth, y + 2}, between(kSky, kHorizon, share));
    }
}

void drawUpSign(Canvas& canvas) {
    constexpr std::string_view kText = "THIS SIDE UP";
    constexpr int kLeft = kRightEdge - widthOf(kText);
    constexpr int kCentre = kLeft + widthOf(kText) / 2;
    canvas.triangle(kCentre, 48, 112, kWhite);
    canvas.fill({kCentre - 22, 160, kCentre + 22, 212}, kWhite);
    canvas.write(kText, kLeft, 244, kTextScale, kWhite);
}

void drawBars(Canvas& canvas) {
    struct Bar {
        int left;
        std::string_view name;
        Colour colour;
        Colour text;
    };
    constexpr Bar kBars[] = {{kMargin, "RED", rgb(215, 30, 35), kWhite},
                             {kMargin + 248, "GREEN", rgb(40, 170, 60), kBlack},
                             {kRightEdge - kBarWidth - 248, "BLUE", rgb(30, 60, 210), kWhite},
                             {kRightEdge - kBarWidth, "YELLOW", rgb(245, 220, 40), kBlack}};
    for (const Bar& bar : kBars) {
        canvas.fill({bar.left, kBarTop, bar.left + kBarWidth, kBarBottom}, bar.colour);
        const int left = (bar.left + (kBarWidth - widthOf(bar.name)) / 2) / 2 * 2;
        const int top = (kBarTop + kBarBottom - font::kHeight * kTextScale) / 4 * 2;
        canvas.write(bar.name, left, top, kTextScale, bar.text);
    }
}

void drawStill(Canvas& canvas) {
    drawSky(canvas);
    drawUpSign(canvas);
    drawBars(canvas);
    canvas.ellipse(kClockX, kClockY, kClockRadius, kClockRadius, kWhite, 1.0F);
    canvas.ellipse(kClockX, kClockY, kClockRadius - 6, kClockRadius - 6, kBlack, 1.0F);
    canvas.fill({kMargin, kGround, kRightEdge, kGround + 4}, kBlack, 0.7F);
    canvas.write("FRAME", kMargin, 48, kTextScale, kWhite);
    constexpr int kNumberWidth = font::widthOf("00") * kNumberScale;
    canvas.write("OF " + std::to_string(kClipFrames), kMargin + kNumberWidth + 28, 244, kTextScale,
                 kWhite);
}

void drawBall(Canvas& canvas, int index) {
    const float progress = static_cast<float>(index) / (kClipFrames - 1);
    const float x = kMargin + kBallRadius + progress * (kRightEdge - kMargin - 2 * kBallRadius);
    const float height = std::abs(std::sin(progress * kJumps * 3.14159265F));
    const float y = kGround - kBallRadius - height * kJump;
    canvas.ellipse(x, kGround + 2.0F, kBallRadius * (1.0F - 0.4F * height), 7.0F, kBlack,
                   0.7F - 0.4F * height);
    canvas.ellipse(x, y, kBallRadius, kBallRadius, kOrange, 1.0F);
    canvas.ellipse(x - 12.0F, y - 14.0F, 12.0F, 9.0F, kWhite, 0.7F);
}

/** In the middle of the picture: a hand that goes round once, from the top. */
void drawClockHand(Canvas& canvas, int index) {
    constexpr float kTwoPi = 6.2831853F;
    constexpr float kLength = kClockRadius - 24;
    const float angle = kTwoPi * static_cast<float>(index) / kClipFrames;
    canvas.line(kClockX, kClockY, kClockX + kLength * std::sin(angle),
                kClockY - kLength * std::cos(angle), 16.0F, kOrange);
}

void drawMoving(Canvas& canvas, int index) {
    const std::string number = std::to_string(index);
    canvas.write(std::string(number.size() < 2 ? "0" : "") + number, kMargin, 104, kNumberScale,
                 kWhite);
    drawClockHand(canvas, index);
    drawBall(canvas, index);
    constexpr int kStep = (kRightEdge - kMargin) / kClipFrames;
    canvas.fill({kMargin, 692, kMargin + (index + 1) * kStep, 702}, kWhite);
}

/** Memory for what zoru_ycbcr describes: rows padded to 128 bytes, row counts to 32. */
constexpr size_t paddedBytes() {
    constexpr size_t kRowBytes = (size_t{kit::kFrameWidth} + 127) / 128 * 128;
    constexpr size_t kRows = (size_t{kit::kFrameHeight} + 31) / 32 * 32;
    return kRowBytes * kRows / 2 * 3;
}

}  // namespace

bool drawClip(const char* path) {
    std::vector<uint8_t> still(paddedBytes());
    Canvas background(still.data());
    drawStill(background);

    YUVFile file(path, kit::kFrameWidth, kit::kFrameHeight);
    for (int index = 0; index < kClipFrames; ++index) {
        std::vector<uint8_t> memory = still;
        Canvas canvas(memory.data());
        drawMoving(canvas, index);
        if (file.putFrame(canvas.frame()) < 0) {
            warnx("frame %d of the clip cannot be written", index);
            return false;
        }
    }
    return true;
}

}  // namespace tools
