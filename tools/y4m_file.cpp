#include "y4m_file.h"

#include <libyuv.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>

#include "whole_frame.h"

namespace tools {

namespace {

constexpr char kFrameLine[] = "FRAME\n";
constexpr size_t kFrameLineBytes = sizeof(kFrameLine) - 1;
constexpr size_t kKeptAtMost = 10;
constexpr double kUsualRate = 25;

/** "30:1", "30000:1001" and the like where it is one of those, else in thousandths. */
std::string ratio(double perSecond) {
    constexpr double kSame = 0.0003;  // 30 and 30000/1001 are three times as far from each other
    const double whole = std::round(perSecond);
    const double ntsc = std::round(perSecond * 1.001);
    if (whole >= 1 && std::abs(perSecond / whole - 1) < kSame)
        return std::to_string(std::lround(whole)) + ":1";
    if (ntsc >= 1 && std::abs(perSecond * 1.001 / ntsc - 1) < kSame)
        return std::to_string(std::lround(ntsc) * 1000) + ":1001";
    return std::to_string(std::max(1L, std::lround(perSecond * 1000))) + ":1000";
}

}  // namespace

std::string y4mHeader(kit::FrameSize size, double perSecond) {
    return "YUV4MPEG2 W" + std::to_string(size.width) + " H" + std::to_string(size.height) + " F" +
           ratio(perSecond) + " Ip A1:1 C420mpeg2 XCOLORRANGE=LIMITED\n";
}

Y4mFile::Y4mFile(const std::string& path, kit::FrameSize size, double perSecond,
                 std::function<bool()> interrupted)
    : mSize(size),
      mPerSecond(perSecond),
      mFile(path, std::move(interrupted), OutputFile::Reader::MayLeave) {}

bool Y4mFile::write(const kit::Frame& frame, std::optional<uint64_t> sensorNs) {
    const int width = mSize.width;
    const int half = chromaBytes(mSize) / 2;
    const size_t plane = static_cast<size_t>(half) * static_cast<size_t>(chromaRows(mSize));
    mLast.resize(kFrameLineBytes + wholeBytes(mSize));
    memcpy(mLast.data(), kFrameLine, kFrameLineBytes);
    auto* const y = reinterpret_cast<uint8_t*>(mLast.data()) + kFrameLineBytes;
    uint8_t* const u = y + mSize.lumaBytes();
    libyuv::NV12ToI420(frame.data(), width, frame.data() + mSize.lumaBytes(), chromaBytes(mSize), y,
                       width, u, half, u + plane, half, width, mSize.height);
    if (mKept && sensorNs) mTimes.push_back({mKept->size(), *sensorNs});
    return put();
}

bool Y4mFile::repeat() {
    return mLast.empty() ? !isBroken() : put();
}

bool Y4mFile::put() {
    if (!mKept) return mFile.write(mLast);
    mKept->push_back(mLast);
    const bool isKnown = mPerSecond > 0 || mKept->size() == kKeptAtMost;
    return isKnown ? begin() : !isBroken();
}

bool Y4mFile::begin() {
    const std::vector<std::string> kept = *std::exchange(mKept, std::nullopt);
    bool written = mFile.write(y4mHeader(mSize, mPerSecond > 0 ? mPerSecond : measuredRate()));
    for (const std::string& frame : kept)
        written = written && mFile.write(frame);
    return written;
}

double Y4mFile::measuredRate() const {
    if (mTimes.empty() || mTimes.back().sensorNs <= mTimes.front().sensorNs) return kUsualRate;
    const auto frames = static_cast<double>(mTimes.back().place - mTimes.front().place);
    return frames * 1e9 / static_cast<double>(mTimes.back().sensorNs - mTimes.front().sensorNs);
}

bool Y4mFile::flush() {
    return mKept ? begin() : !isBroken();
}

bool Y4mFile::finish() {
    return flush() && mFile.finish();
}

}  // namespace tools
