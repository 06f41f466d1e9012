#include "temporary_folder.h"

#include <err.h>
#include <stdlib.h>

#include <cerrno>
#include <system_error>

namespace kit {

TemporaryFolder::TemporaryFolder(const std::string& prefix) {
    std::string name = std::filesystem::temp_directory_path() / (prefix + "-XXXXXX");
    if (mkdtemp(name.data()) == nullptr) {
        throw std::filesystem::filesystem_error("no temporary folder", name,
                                                {errno, std::generic_category()});
    }
    mPath = name;
}

TemporaryFolder::~TemporaryFolder() {
    std::error_code error;
    std::filesystem::remove_all(mPath, error);
    if (error) warnx("folder %s: %s", mPath.c_str(), error.message().c_str());
}

}  // namespace kit
