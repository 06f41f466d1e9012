// Webcams, made up: files in whose place the kernel's answers are the test's.

#include <gtest/gtest.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <fstream>
#include <string>

#include "source/webcams.h"
#include "temporary_folder.h"

namespace testing_support {

namespace {

std::atomic<bool> areWebcams{false};

/** By the first letter of the file: a webcam, one with ranges, or something else. */
bool answer(char kind, unsigned long request, void* argument) {
    const bool hasRanges = kind == 'r';
    if (request == VIDIOC_QUERYCAP) {
        auto& capability = *static_cast<v4l2_capability*>(argument);
        strcpy(reinterpret_cast<char*>(capability.card), hasRanges ? "Ranges" : "Lists");
        capability.capabilities = V4L2_CAP_DEVICE_CAPS | V4L2_CAP_VIDEO_CAPTURE;
        capability.device_caps = kind == 'm' ? V4L2_CAP_META_CAPTURE : V4L2_CAP_VIDEO_CAPTURE;
        return true;
    }
    if (request == VIDIOC_ENUM_FMT) {
        auto& entry = *static_cast<v4l2_fmtdesc*>(argument);
        entry.pixelformat = entry.index == 0 ? V4L2_PIX_FMT_YUYV : V4L2_PIX_FMT_SRGGB8;
        return entry.index < (hasRanges ? 1 : 2);
    }
    if (request == VIDIOC_ENUM_FRAMESIZES) {
        auto& entry = *static_cast<v4l2_frmsizeenum*>(argument);
        entry.type = hasRanges ? V4L2_FRMSIZE_TYPE_STEPWISE : V4L2_FRMSIZE_TYPE_DISCRETE;
        entry.discrete = {640U << entry.index, 480};
        if (hasRanges) entry.stepwise = {32, 4096, 2, 32, 4096, 2};
        return entry.index < (hasRanges ? 1 : 2);
    }
    auto& entry = *static_cast<v4l2_frmivalenum*>(argument);
    entry.type = V4L2_FRMIVAL_TYPE_DISCRETE;
    entry.discrete = {1, (entry.width == 640 ? 30U : 10U) >> entry.index};
    return request == VIDIOC_ENUM_FRAMEINTERVALS && entry.index < 640 / entry.width + 1;
}

}  // namespace

TEST(WebcamsTest, AreListedWithTheirModesAndTheLargestFastOneIsChosen) {
    const kit::TemporaryFolder folder;
    for (const std::string file : {"list video2", "range video10", "meta video3", "none vide1"})
        std::ofstream(folder / file.substr(file.find(' ') + 1)) << file;
    std::string listed;
    areWebcams = true;
    for (const camera::Webcam& webcam : camera::webcams(folder.path()))
        listed += inWords(webcam) + std::to_string(bestModeOf(webcam).size->width) + " is chosen\n";
    areWebcams = false;
    EXPECT_EQ(listed, folder / "video2" +
                          ": Lists\n"
                          "  640x480 yuyv422 at 30, 15 frames a second\n"
                          "  1280x480 yuyv422 at 10 frames a second\n"
                          "  640x480 RGGB at 30, 15 frames a second\n"
                          "  1280x480 RGGB at 10 frames a second\n640 is chosen\n" +
                          folder / "video10" +
                          ": Ranges\n"
                          "  1920x1080 yuyv422 at 10 frames a second\n"
                          "  4096x4096 yuyv422 at 10 frames a second\n1920 is chosen\n");
}

}  // namespace testing_support

// A program's symbols win over the library's.
extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list rest;
    va_start(rest, request);
    void* const argument = va_arg(rest, void*);
    va_end(rest);
    char kind = 0;
    if (!testing_support::areWebcams || pread(fd, &kind, 1, 0) != 1)
        return static_cast<int>(syscall(SYS_ioctl, fd, request, argument));
    errno = EINVAL;
    return testing_support::answer(kind, request, argument) ? 0 : -1;
}
