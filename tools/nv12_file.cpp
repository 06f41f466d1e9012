#include "nv12_file.h"

#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

namespace tools {

namespace {

namespace fs = std::filesystem;

/** Why there is no regular file here; empty when there is one. */
std::string problemWith(const fs::path& path) {
    std::error_code error;
    const fs::file_status status = fs::status(path, error);
    if (status.type() == fs::file_type::not_found) return "there is no such file";
    if (error) return "it cannot be looked at: " + error.message();
    if (fs::is_directory(status)) return "it is a folder, not a file of frames";
    if (!fs::is_regular_file(status)) return "it is not a regular file";
    return {};
}

std::string tooShort(size_t size) {
    return "its " + std::to_string(size) + " bytes are less than one NV12 frame of " +
           std::to_string(kFrameWidth) + "x" + std::to_string(kFrameHeight) + ", which has " +
           std::to_string(kFrameBytes);
}

}  // namespace

std::optional<Nv12File> Nv12File::open(const fs::path& path, std::string& problem) {
    problem = problemWith(path);
    if (!problem.empty()) return std::nullopt;
    errno = 0;
    std::ifstream stream(path, std::ios::binary | std::ios::ate);
    const std::streamoff size = stream ? std::streamoff{stream.tellg()} : -1;
    if (size < 0) {
        problem = std::string("it cannot be read: ") + strerror(errno);
        return std::nullopt;
    }
    const auto bytes = static_cast<size_t>(size);
    if (bytes < kFrameBytes) {
        problem = tooShort(bytes);
        return std::nullopt;
    }
    return Nv12File(std::move(stream), bytes);
}

Nv12File::Nv12File(std::ifstream stream, size_t size)
    : mStream(std::move(stream)), mFrameCount(size / kFrameBytes), mTailBytes(size % kFrameBytes) {}

Frame Nv12File::frame(size_t index) {
    Frame frame(kFrameBytes);
    mStream.clear();
    mStream.seekg(static_cast<std::streamoff>(index % mFrameCount * kFrameBytes));
    mStream.read(reinterpret_cast<char*>(frame.data()), std::streamsize{kFrameBytes});
    return mStream ? frame : Frame();
}

}  // namespace tools
