#include "play_folder.h"

#include <err.h>
#include <unistd.h>

#include <cstdlib>
#include <system_error>

#include "clip.h"

namespace tools {

namespace {

namespace fs = std::filesystem;

constexpr const char* kSourceName = FDSTREAM_TEST_INPUT;

}  // namespace

PlayFolder::~PlayFolder() {
    std::error_code error;
    if (!mPath.empty()) fs::remove_all(mPath, error);
    if (error) warnx("folder %s: %s", mPath.c_str(), error.message().c_str());
}

bool PlayFolder::enter(const std::optional<fs::path>& clip) {
    std::error_code error;
    std::string name = fs::temp_directory_path(error) / "fdstream-provider-XXXXXX";
    if (error || mkdtemp(name.data()) == nullptr) {
        warn("no temporary folder for the clip");
        return false;
    }
    mPath = name;
    if (clip) fs::create_symlink(fs::absolute(*clip), mPath / kSourceName, error);
    if (!error) fs::current_path(mPath, error);
    if (error) warnx("folder %s: %s", mPath.c_str(), error.message().c_str());
    return !error && (clip || drawClip(kSourceName));
}

}  // namespace tools
