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
    try {
        mFolder.emplace("fdstream-provider");
    } catch (const fs::filesystem_error& none) {
        warnx("no temporary folder for the clip: %s", none.code().message().c_str());
        return false;
    }
    const fs::path& folder = mFolder->path();
    std::error_code error;
    if (clip) fs::create_symlink(fs::absolute(*clip), folder / kSourceName, error);
    if (!error) fs::current_path(folder, error);
    if (error) warnx("folder %s: %s", folder.c_str(), error.message().c_str());
    return !error && (clip || drawClip(kSourceName));
}

}  // namespace tools
