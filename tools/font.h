#pragma once

#include <string_view>

namespace tools::font {

// A letter is a field of dots; the next one starts kAdvance dots further on.
constexpr int kWidth = 5;
constexpr int kHeight = 7;
constexpr int kAdvance = 6;

/** Whether this dot of a letter is set. There are 0-9 and A-Z; anything else is a blank. */
bool dot(char letter, int column, int row);

/** The width of a text, in dots. */
constexpr int widthOf(std::string_view text) {
    return text.empty() ? 0 : static_cast<int>(text.size()) * kAdvance - (kAdvance - kWidth);
}

/** Calls draw(column, row) for each dot that is set, counted from the upper left of the text. */
template <typename Draw>
void forEachDot(std::string_view text, Draw draw) {
    int left = 0;
    for (const char letter : text) {
        for (int row = 0; row < kHeight; ++row) {
            for (int column = 0; column < kWidth; ++column) {
                if (dot(letter, column, row)) draw(left + column, row);
            }
        }
        left += kAdvance;
    }
}

}  // namespace tools::font
