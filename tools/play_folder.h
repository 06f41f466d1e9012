#pragma once

#include <filesystem>
#include <optional>

#include "temporary_folder.h"

namespace tools {

/**
 * A private working directory in which the test frame source finds what it plays. Removed with this
 * object; making it throws when there can be none.
 */
class PlayFolder {
public:
    /**
     * Makes it the working directory, with a link to the clip, or with a clip that is drawn. False
     * after a sentence on stderr.
     */
    bool enter(const std::optional<std::filesystem::path>& clip);

private:
    const kit::TemporaryFolder mFolder{"fdstream-provider"};
};

}  // namespace tools
