#pragma once

#include <CLI/CLI.hpp>
#include <optional>

namespace kit {

/**
 * Takes a program's command line apart. Nothing when the program is to go on, else its exit code:
 * 0 after the help, which fits 80 columns, or the version, and `badUsage` after a sentence on
 * stderr that begins with the program's name.
 */
std::optional<int> parseCommandLine(CLI::App& app, int argc, char** argv, int badUsage);

/** Whether all that was printed has gone out; if not, after a sentence on stderr. */
bool finishStandardOutput();

}  // namespace kit
