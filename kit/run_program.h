#pragma once

#include <err.h>

#include <exception>

namespace kit {

/**
 * The last lines of a tool's main(): what `run` returns, or `failed` after a sentence on stderr
 * when the standard library throws, because memory is short.
 */
inline int runProgram(int (*run)(int, char**), int argc, char** argv, int failed) {
    try {
        return run(argc, argv);
    } catch (const std::exception& error) {
        warnx("%s", error.what());
        return failed;
    }
}

}  // namespace kit
