#include "play_folder.h"

#include <err.h>

#include <system_error>

#include "clip.h"

namespace tools {

namespace {

namespace fs = std::filesystem;

constexpr const char* kSourceName = FDSTREAM_TEST_INPUT;

}  // namespace

bool PlayFolder::enter(const std::optional<fs::path>& clip) {
    std::error_code error;
    if (clip) fs::create_symlink(fs::absolute(*clip), mFolder.path() / kSourceName, error);
    if (!error) fs::current_path(mFolder.path(), error);
    if (error) warnx("folder %s: %s", mFolder.path().c_str(), error.message().c_str());
    return !error && (clip || drawClip(kSourceName));
}

}  // namespace tools
