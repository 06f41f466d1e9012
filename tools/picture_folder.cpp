#include "picture_folder.h"

#include <err.h>

#include <cstdio>
#include <string>
#include <system_error>

#include "picture.h"

namespace tools {

namespace {

namespace fs = std::filesystem;

bool complain(const fs::path& folder, const std::error_code& error) {
    if (error) warnx("folder %s: %s", folder.c_str(), error.message().c_str());
    return !error;
}

}  // namespace

bool PictureFolder::make() const {
    std::error_code error;
    fs::create_directories(mPath, error);
    return complain(mPath, error);
}

bool PictureFolder::clear() const {
    std::error_code error;
    for (fs::directory_iterator file(mPath, error), end; !error && file != end;
         file.increment(error)) {
        const std::string leaf = file->path().filename().string();
        if (leaf.rfind("frame-", 0) == 0 && file->path().extension() == ".png")
            fs::remove(file->path(), error);
    }
    return complain(mPath, error);
}

fs::path PictureFolder::pictureOf(uint32_t number) const {
    char name[32];
    snprintf(name, sizeof(name), "frame-%03u.png", number);
    return mPath / name;
}

bool PictureFolder::save(uint32_t number, const kit::Frame& frame, kit::FrameSize size) const {
    const fs::path path = pictureOf(number);
    fs::path part = path;
    part += ".part";  // until it is whole
    if (!writePng(toPicture(frame, size), part)) return false;
    std::error_code error;
    fs::rename(part, path, error);
    return complain(mPath, error);
}

}  // namespace tools
