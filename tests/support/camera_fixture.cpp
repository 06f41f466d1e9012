#include "support/camera_fixture.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <utility>

namespace testing_support {

CameraFixture::~CameraFixture() {
    source.reset();
    client->setCallback(callback);
}

std::string CameraFixture::play(const camera::SourceOptions& options) {
    if (mRecorder == nullptr) {
        mBuffers.reserve(64);  // they stay where they are
        mRecorder = new Recorder;
        mRecorder->buffers = &mBuffers;
        client->setCallback(mRecorder);
    }
    source = std::make_unique<camera::Camera>(session, options, [this](const std::string& line) {
        const std::lock_guard<std::mutex> lock(mMutex);
        mSaid += line + "\n";
    });
    source->clientCame();
    std::string problem;
    return source->start(problem) ? "" : problem;
}

camera::SourceOptions CameraFixture::sourceOf(const std::string& name, double fps) const {
    camera::SourceOptions options;
    options.input = folder / name;
    if (name == "fifo") {
        options.format = "nv12";
        options.size = camera::FrameSize{64, 48};
    }
    options.fps = fps;
    return options;
}

void CameraFixture::ask() {
    {
        const std::lock_guard<std::mutex> lock(mRecorder->mutex);
        mBuffers.push_back(allocate(64, 48));
    }
    ++mAsked;
    EXPECT_EQ(session->handleCaptureRequest(requestFor(mAsked, mAsked, mBuffers.back().handle())),
              0);
}

CameraFixture::Answer CameraFixture::answer(size_t index) {
    std::unique_lock<std::mutex> lock(mRecorder->mutex);
    EXPECT_TRUE(mRecorder->changed.wait_for(lock, std::chrono::seconds(20),
                                            [&] { return mRecorder->answers.size() > index; }))
        << "answer " << index << " did not come";
    return index < mRecorder->answers.size() ? mRecorder->answers[index] : Answer{};
}

std::string CameraFixture::saidSoFar() {
    const std::lock_guard<std::mutex> lock(mMutex);
    return mSaid;
}

RawFifo::RawFifo(const std::string& path) : mPath(path) {
    EXPECT_EQ(mkfifo(path.c_str(), 0600), 0);
}

void RawFifo::open() {
    mEnd.reset(::open(mPath.c_str(), O_WRONLY | O_CLOEXEC));
    EXPECT_TRUE(mEnd.isValid());
}

void RawFifo::write(int luma, size_t bytes) const {
    const std::vector<char> frame(bytes, static_cast<char>(luma));
    EXPECT_EQ(::write(mEnd.get(), frame.data(), bytes), static_cast<ssize_t>(bytes));
}

}  // namespace testing_support
