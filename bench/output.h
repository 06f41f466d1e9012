#pragma once

#include <filesystem>
#include <string>

#include "figures.h"

namespace bench {

/**
 * Makes the folder if need be and removes what an earlier run has left there: figures.json, and the
 * plots with their scripts. False, after a sentence on stderr, when nothing can be written there.
 */
bool prepareFolder(const std::filesystem::path& folder);

/** All samples, for scripts: figures.json, one object. False after a sentence on stderr. */
bool writeJson(const Figures& figures, const std::string& machine,
               const std::filesystem::path& folder);

/**
 * Draws a picture of the ratios of each piece and one of the curves with gnuplot, as SVG. False
 * when gnuplot is missing or fails.
 */
bool drawPlots(const Figures& figures, const std::filesystem::path& folder);

}  // namespace bench
