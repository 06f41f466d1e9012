#include "play_folder.h"

#include <err.h>

#include <system_error>

#include "TestInput.h"
#include "clip.h"

namespace tools {

namespace fs = std::filesystem;
using vendor::zoru::zoruprovider::fdstream::V1_0::implementation::kTestInput;

bool PlayFolder::enter(const std::optional<fs::path>& clip) {
    try {
        mFolder.emplace("fdstream-provider");
    } catch (const fs::filesystem_error& none) {
        warnx("no temporary folder for the clip: %s", none.code().message().c_str());
        return false;
    }
    const fs::path& folder = mFolder->path();
    std::error_code error;
    if (clip) fs::create_symlink(fs::absolute(*clip), folder / kTestInput, error);
    if (!error) fs::current_path(folder, error);
    if (error) warnx("folder %s: %s", folder.c_str(), error.message().c_str());
    return !error && (clip || drawClip(kTestInput));
}

}  // namespace tools
