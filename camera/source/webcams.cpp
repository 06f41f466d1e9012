#include "source/webcams.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <tuple>
#include <utility>

#include "host/unique_fd.h"

namespace camera {

namespace {

constexpr FrameSize kLargest = {1920, 1080};
constexpr double kLeastRate = 25;
constexpr int kMost = 256;  // of anything that a driver lists, which could go on for ever

const struct {
    uint32_t fourcc;
    const char* name;
} kFormats[] = {
    {V4L2_PIX_FMT_YUYV, "yuyv422"},   {V4L2_PIX_FMT_UYVY, "uyvy422"}, {V4L2_PIX_FMT_NV12, "nv12"},
    {V4L2_PIX_FMT_YUV420, "yuv420p"}, {V4L2_PIX_FMT_MJPEG, "mjpeg"},  {V4L2_PIX_FMT_H264, "h264"},
    {V4L2_PIX_FMT_JPEG, "mjpeg"},     {V4L2_PIX_FMT_GREY, "gray"},    {V4L2_PIX_FMT_RGB24, "rgb24"},
    {V4L2_PIX_FMT_BGR24, "bgr24"},
};

bool ask(int fd, unsigned long request, void* answer) {
    int result = 0;
    do {
        result = ioctl(fd, request, answer);
    } while (result < 0 && errno == EINTR);
    return result == 0;
}

WebcamMode modeOf(uint32_t fourcc) {
    WebcamMode mode;
    for (const auto& format : kFormats) {
        if (format.fourcc != fourcc) continue;
        mode.format = format.name;
        mode.isKnown = true;
        return mode;
    }
    for (int shift = 0; shift < 32; shift += 8) {
        const auto letter = static_cast<char>(fourcc >> shift & 0x7F);
        if (letter > ' ') mode.format += letter;
    }
    return mode;
}

std::vector<double> ratesOf(int fd, uint32_t fourcc, FrameSize size) {
    std::vector<double> rates;
    const auto add = [&](const v4l2_fract& interval) {
        if (interval.numerator > 0)
            rates.push_back(double(interval.denominator) / interval.numerator);
    };
    v4l2_frmivalenum entry = {};
    entry.pixel_format = fourcc;
    entry.width = static_cast<uint32_t>(size.width);
    entry.height = static_cast<uint32_t>(size.height);
    for (; entry.index < kMost && ask(fd, VIDIOC_ENUM_FRAMEINTERVALS, &entry); ++entry.index) {
        if (entry.type == V4L2_FRMIVAL_TYPE_DISCRETE) {
            add(entry.discrete);
            continue;
        }
        add(entry.stepwise.min);  // the shortest: the highest rate
        add(entry.stepwise.max);
        break;
    }
    return rates;
}

/** The largest of a range that is not above what is chosen at most, and the largest of all. */
void addRange(const v4l2_frmsize_stepwise& range, std::vector<FrameSize>& sizes) {
    const auto within = [](uint32_t least, uint32_t most, uint32_t step, int wanted) {
        const int64_t steps = (std::min<int64_t>(most, wanted) - least) / std::max(step, 1U);
        return static_cast<int>(least + std::max<int64_t>(steps, 0) * step);
    };
    sizes.push_back(
        {within(range.min_width, range.max_width, range.step_width, kLargest.width),
         within(range.min_height, range.max_height, range.step_height, kLargest.height)});
    const FrameSize largest = {static_cast<int>(range.max_width),
                               static_cast<int>(range.max_height)};
    if (largest.width > kLargest.width || largest.height > kLargest.height) {
        sizes.push_back(largest);
    }
}

void addModes(int fd, uint32_t fourcc, std::vector<WebcamMode>& modes) {
    std::vector<FrameSize> sizes;
    v4l2_frmsizeenum entry = {};
    entry.pixel_format = fourcc;
    for (; entry.index < kMost && ask(fd, VIDIOC_ENUM_FRAMESIZES, &entry); ++entry.index) {
        if (entry.type != V4L2_FRMSIZE_TYPE_DISCRETE) {
            addRange(entry.stepwise, sizes);
            break;
        }
        sizes.push_back(
            {static_cast<int>(entry.discrete.width), static_cast<int>(entry.discrete.height)});
    }
    for (const FrameSize size : sizes) {
        WebcamMode mode = modeOf(fourcc);
        mode.size = size;
        mode.rates = ratesOf(fd, fourcc, size);
        modes.push_back(std::move(mode));
    }
}

double highestRate(const WebcamMode& mode) {
    const auto highest = std::max_element(mode.rates.begin(), mode.rates.end());
    return highest == mode.rates.end() ? 0 : *highest;
}

}  // namespace

Webcam webcamAt(const std::string& device) {
    const host::UniqueFd fd(open(device.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    v4l2_capability capability = {};
    if (!fd.isValid() || !ask(fd.get(), VIDIOC_QUERYCAP, &capability)) return {};
    const uint32_t can = (capability.capabilities & V4L2_CAP_DEVICE_CAPS) != 0
                             ? capability.device_caps
                             : capability.capabilities;
    if ((can & V4L2_CAP_VIDEO_CAPTURE) == 0) return {};
    const auto* const card = reinterpret_cast<const char*>(capability.card);
    Webcam webcam = {device, std::string(card, strnlen(card, sizeof(capability.card))), {}};
    v4l2_fmtdesc format = {};
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    for (; format.index < kMost && ask(fd.get(), VIDIOC_ENUM_FMT, &format); ++format.index)
        addModes(fd.get(), format.pixelformat, webcam.modes);
    return webcam;
}

std::vector<Webcam> webcams(const std::string& path) {
    std::vector<std::string> devices;
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir(path.c_str()), closedir);
    while (const dirent* const entry = folder == nullptr ? nullptr : readdir(folder.get())) {
        const std::string name = entry->d_name;
        if (name.rfind("video", 0) == 0) devices.push_back(std::filesystem::path(path) / name);
    }
    std::sort(devices.begin(), devices.end(), [](const std::string& a, const std::string& b) {
        return std::make_pair(a.size(), a) < std::make_pair(b.size(), b);  // video2 before video10
    });
    std::vector<Webcam> found;
    for (const std::string& device : devices) {
        Webcam webcam = webcamAt(device);
        if (!webcam.device.empty()) found.push_back(std::move(webcam));
    }
    return found;
}

CameraMode bestModeOf(const Webcam& webcam) {
    const auto rank = [](const WebcamMode& mode) {
        const bool isSmall =
            mode.size.width <= kLargest.width && mode.size.height <= kLargest.height;
        const bool isFast = highestRate(mode) >= kLeastRate;
        const int64_t area = int64_t{mode.size.width} * mode.size.height;
        return std::make_tuple(mode.isKnown, isSmall && isFast, isSmall, isSmall ? area : -area,
                               highestRate(mode));
    };
    const auto best = std::max_element(
        webcam.modes.begin(), webcam.modes.end(),
        [&](const WebcamMode& a, const WebcamMode& b) { return rank(a) < rank(b); });
    if (best == webcam.modes.end() || !best->isKnown) return {};
    CameraMode mode = {best->size, std::nullopt, best->format};
    if (highestRate(*best) > 0) mode.rate = highestRate(*best);
    return mode;
}

CameraMode bestModeOf(const std::string& device) {
    return bestModeOf(webcamAt(device));
}

std::string inWords(const Webcam& webcam) {
    std::string text = webcam.device + ": " + webcam.name + "\n";
    for (const WebcamMode& mode : webcam.modes) {
        text += "  " + std::to_string(mode.size.width) + "x" + std::to_string(mode.size.height) +
                " " + mode.format;
        for (size_t i = 0; i < mode.rates.size(); ++i) {
            char rate[32];
            snprintf(rate, sizeof(rate), "%s%g", i == 0 ? " at " : ", ", mode.rates[i]);
            text += rate;
        }
        text += mode.rates.empty() ? "\n" : " frames a second\n";
    }
    return text;
}

}  // namespace camera
