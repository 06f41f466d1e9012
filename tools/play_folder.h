#pragma once

#include <filesystem>
#include <optional>

#include "temporary_folder.h"

namespace tools {

/**
 * A private working directory in which the test frame source finds what it plays. Removed with this
 * object.
 */
class PlayFolder {
public:
    /**
     * Makes the folder with a link to the clip, or with a clip that is drawn, and makes it the
     * working directory. False after a sentence on stderr.
     */
    bool enter(const std::optional<std::filesystem::path>& clip);

private:
    std::optional<kit::TemporaryFolder> mFolder;
};

}  // namespace tools
