#pragma once

#include <filesystem>
#include <string>

#include "figures.h"

namespace bench {

/** All samples, for scripts: one object. False after a sentence on stderr. */
bool writeJson(const Figures& figures, const std::string& machine,
               const std::filesystem::path& file);

/**
 * Draws a picture of the ratios of each piece and one of the curves with gnuplot, as SVG. False
 * when gnuplot is missing or fails.
 */
bool drawPlots(const Figures& figures, const std::filesystem::path& folder);

}  // namespace bench
