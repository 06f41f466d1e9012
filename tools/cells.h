#pragma once

#include <string>

#include "picture.h"

namespace tools {

/** What the cells of a terminal can show. */
enum class Colours {
    None,     ///< characters of more or less ink
    Palette,  ///< 256 colours
    All,      ///< 24 bits
};

/** By NO_COLOR, COLORTERM and TERM. */
Colours coloursOfTerminal();

/**
 * Appends one line of cells, each with two rows of the picture, for as many columns. REQUIRES: the
 * picture has these two rows and columns.
 */
void drawLine(std::string& out, const Picture& picture, int line, int columns, Colours colours);

}  // namespace tools
