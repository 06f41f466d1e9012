#pragma once

#include <filesystem>
#include <string>

namespace kit {

/** A new folder, removed with all that is in it when this object goes. Resource type. */
class TemporaryFolder {
public:
    /** Its name begins so. Throws std::filesystem::filesystem_error when there can be none. */
    explicit TemporaryFolder(const std::string& prefix = "fdstream");
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    const std::filesystem::path& path() const { return mPath; }
    /** The path of something in it. */
    std::string operator/(const std::string& name) const { return mPath / name; }

private:
    std::filesystem::path mPath;
};

}  // namespace kit
