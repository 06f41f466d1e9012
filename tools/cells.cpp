#include "cells.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace tools {

namespace {

Colour colourAt(const Picture& picture, int x, int y) {
    const size_t at =
        (static_cast<size_t>(y) * static_cast<size_t>(picture.width) + static_cast<size_t>(x)) * 3;
    return {picture.rgb[at], picture.rgb[at + 1], picture.rgb[at + 2]};
}

int distance(Colour one, Colour other) {
    int sum = 0;
    for (size_t i = 0; i < one.size(); ++i)
        sum += (one[i] - other[i]) * (one[i] - other[i]);
    return sum;
}

/** The nearest of the 256: of a cube of six steps each way, or of 24 greys. */
int paletteIndex(Colour colour) {
    constexpr std::array<uint8_t, 6> kSteps = {0, 95, 135, 175, 215, 255};
    const auto stepOf = [&](size_t part) {
        return colour[part] < 48 ? 0 : std::max(1, (colour[part] - 35) / 40);
    };
    const int red = stepOf(0);
    const int green = stepOf(1);
    const int blue = stepOf(2);
    const Colour inCube = {kSteps[static_cast<size_t>(red)], kSteps[static_cast<size_t>(green)],
                           kSteps[static_cast<size_t>(blue)]};
    const int grey = std::clamp(((colour[0] + colour[1] + colour[2]) / 3 - 3) / 10, 0, 23);
    const auto level = static_cast<uint8_t>(8 + 10 * grey);
    return distance(colour, {level, level, level}) < distance(colour, inCube)
               ? 232 + grey
               : 16 + 36 * red + 6 * green + blue;
}

std::string codeOf(Colour colour, Colours colours) {
    if (colours == Colours::Palette) return "5;" + std::to_string(paletteIndex(colour));
    char code[16];
    snprintf(code, sizeof(code), "2;%d;%d;%d", colour[0], colour[1], colour[2]);
    return code;
}

/** Sets one of the two colours of what follows, where it is not set already. */
void setColour(std::string& out, const char* which, const std::string& code, std::string& current) {
    if (current == code) return;
    current = code;
    out += std::string("\x1b[") + which + ";" + code + "m";
}

char inkOf(Colour upper, Colour lower) {
    constexpr std::string_view kInk = " .:-=+*#%@";
    size_t sum = 0;
    for (size_t i = 0; i < upper.size(); ++i)
        sum += size_t{upper[i]} + lower[i];
    return kInk[sum * kInk.size() / (6 * 255 + 1)];
}

std::string_view variable(const char* name) {
    const char* const value = getenv(name);
    return value != nullptr ? value : "";
}

}  // namespace

Colours coloursOfTerminal() {
    if (!variable("NO_COLOR").empty()) return Colours::None;
    const std::string_view all = variable("COLORTERM");
    if (all == "truecolor" || all == "24bit") return Colours::All;
    const bool has256 = variable("TERM").find("256color") != std::string_view::npos;
    return has256 ? Colours::Palette : Colours::None;
}

void drawLine(std::string& out, const Picture& picture, int line, int columns, Colours colours) {
    std::string front;
    std::string back;
    for (int x = 0; x < columns; ++x) {
        const Colour upper = colourAt(picture, x, 2 * line);
        const Colour lower = colourAt(picture, x, 2 * line + 1);
        if (colours == Colours::None) {
            out += inkOf(upper, lower);
            continue;
        }
        setColour(out, "38", codeOf(upper, colours), front);
        setColour(out, "48", codeOf(lower, colours), back);
        out += "\u2580";  // the upper half of the cell
    }
    if (colours != Colours::None) out += "\x1b[0m";
}

}  // namespace tools
