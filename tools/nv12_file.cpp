#include "nv12_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>
#include <system_error>
#include <utility>

#include "known_files.h"
#include "spool.h"

namespace tools {

namespace {

namespace fs = std::filesystem;

constexpr const char* kStandardInput = "-";

std::string because(const char* what) {
    return std::string(what) + ": " + strerror(errno);
}

/** Waits for who writes to it, when it is a pipe. */
host::UniqueFd openToRead(const std::string& name) {
    if (name == kStandardInput) return host::UniqueFd(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0));
    return host::UniqueFd(::open(name.c_str(), O_RDONLY | O_CLOEXEC));
}

/** Why there is nothing here that could be read to its end; empty when there is. */
std::string problemWith(const std::string& name) {
    if (name == kStandardInput) return {};
    std::error_code error;
    const fs::file_status status = fs::status(name, error);
    if (status.type() == fs::file_type::not_found) return "there is no such file";
    if (error) return "it cannot be looked at: " + error.message();
    if (fs::is_directory(status)) return "it is a folder, not a file of frames";
    if (!fs::is_regular_file(status) && !fs::is_fifo(status)) return "it is not a regular file";
    return {};
}

/** The name as a shell reads it. */
std::string quoted(const std::string& name) {
    constexpr std::string_view kPlain =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_./+,@%-";
    if (name.find_first_not_of(kPlain) == std::string::npos) return name;
    std::string result = "'";
    for (const char letter : name)
        result += letter == '\'' ? std::string("'\\''") : std::string(1, letter);
    return result + "'";
}

std::string inPixels() {
    return std::to_string(kit::kFrameWidth) + "x" + std::to_string(kit::kFrameHeight);
}

std::string otherKind(const char* kind, const std::string& name, bool copied) {
    return std::string("it seems to be ") + kind + ", not raw frames. What plays is made by\n" +
           "  ffmpeg -i " + (copied ? "FILE" : quoted(name)) + " -f rawvideo -pix_fmt nv12 -s " +
           inPixels() + " clip.yuv";
}

std::string otherSize(size_t size) {
    const std::string bytes = "its " + std::to_string(size) + " bytes are ";
    const std::string frame = "NV12 of " + inPixels() + ", which has " +
                              std::to_string(kit::kFrameBytes) + " bytes a frame";
    if (size < kit::kFrameBytes) return bytes + "less than a frame of " + frame;
    return bytes + "no whole number of frames of " + frame +
           ". Is it of another size or format? --partial leaves out the " +
           std::to_string(size % kit::kFrameBytes) + " at its end";
}

std::string beginningOf(int file) {
    char bytes[kTellingBytes];
    const ssize_t count = pread(file, bytes, sizeof(bytes), 0);
    return {bytes, count > 0 ? static_cast<size_t>(count) : 0};
}

}  // namespace

std::string clipInWords(const std::string& name) {
    return name == kStandardInput ? "standard input" : name;
}

std::optional<Nv12File> Nv12File::open(const std::string& name, std::string& problem,
                                       bool partial) {
    problem = problemWith(name);
    if (!problem.empty()) return std::nullopt;
    host::UniqueFd file = openToRead(name);
    struct stat status = {};
    if (!file.isValid() || fstat(file.get(), &status) != 0) {
        problem = because("it cannot be read");
        return std::nullopt;
    }
    fs::path path = name;
    const bool copied = name == kStandardInput || !S_ISREG(status.st_mode);
    if (copied) {
        file = spool(file.get(), kMostSpooled, problem);
        if (!file.isValid() || fstat(file.get(), &status) != 0) return std::nullopt;
        path = "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(file.get());
    }
    const auto size = static_cast<size_t>(status.st_size);
    if (const char* const kind = knownKind(beginningOf(file.get()))) {
        problem = otherKind(kind, name, copied);
    } else if (size < kit::kFrameBytes || (size % kit::kFrameBytes != 0 && !partial)) {
        problem = otherSize(size);
    }
    if (!problem.empty()) return std::nullopt;
    return Nv12File(std::move(file), std::move(path), status.st_size);
}

Nv12File::Nv12File(host::UniqueFd file, fs::path path, off_t size)
    : mFile(std::move(file)),
      mPath(std::move(path)),
      mSize(size),
      mFrameCount(static_cast<size_t>(size) / kit::kFrameBytes) {}

std::string Nv12File::description() const {
    const size_t rest = static_cast<size_t>(mSize) % kit::kFrameBytes;
    return "NV12 of " + inPixels() + ", " + std::to_string(mFrameCount) +
           " frames,\nwhich a file without a header cannot confirm" +
           (rest == 0 ? "" : "; " + std::to_string(rest) + " bytes are left out");
}

bool Nv12File::isCut() const {
    struct stat status = {};
    return fstat(mFile.get(), &status) != 0 || status.st_size < mSize;
}

kit::Frame Nv12File::frame(size_t index) const {
    kit::Frame frame(kit::kFrameBytes);
    size_t done = 0;
    while (done < kit::kFrameBytes) {
        const auto offset = static_cast<off_t>(index % mFrameCount * kit::kFrameBytes + done);
        const ssize_t count = pread(mFile.get(), &frame[done], kit::kFrameBytes - done, offset);
        if (count <= 0) return {};
        done += static_cast<size_t>(count);
    }
    return frame;
}

}  // namespace tools
