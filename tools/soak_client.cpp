// A client of a soak, in a process of its own, which may be killed at any moment.
//
//   fdstream-soak-client KIND SOCKET SEED
//
// Exits with 0, or with 1 and a sentence when it got a frame that is wrong.

#include <android/log.h>
#include <err.h>
#include <unistd.h>

#include <cstdlib>
#include <map>
#include <string>

#include "host/log.h"
#include "run_program.h"
#include "soak_clients.h"

namespace {

using Life = bool (*)(const std::string& socket, tools::Random& random);

int run(int argc, char** argv) {
    static const std::map<std::string, Life> kLives = {
        {"orderly", tools::beOrderly},   {"changing", tools::beChanging},
        {"staying", tools::beStaying},   {"hanging", tools::beHanging},
        {"flooding", tools::beFlooding}, {"noisy", tools::beNoisy}};
    if (argc != 4 || kLives.count(argv[1]) == 0) errx(2, "it needs a kind, a socket and a seed");
    host::setStderrLogPriority(ANDROID_LOG_SILENT);
    tools::Random random(static_cast<uint32_t>(strtoul(argv[3], nullptr, 10)));
    const bool right = kLives.at(argv[1])(argv[2], random);
    // Not by way of main()'s end: a callback that never answers is still at work.
    _exit(right ? EXIT_SUCCESS : EXIT_FAILURE);
}

}  // namespace

int main(int argc, char** argv) {
    return kit::runProgram(run, argc, argv, EXIT_FAILURE);
}
