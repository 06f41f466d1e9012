#include "support/camera_fixture.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <utility>

#include "host/channel.h"

namespace testing_support {

namespace {
constexpr size_t kMostBuffers = 64;
}  // namespace

CameraFixture::CameraFixture() : face(client), mRecorder(new Recorder) {
    mBuffers.reserve(kMostBuffers);  // they stay where they are
    mRecorder->buffers = &mBuffers;
    face->setCallback(mRecorder);
    configureAnew();
}

CameraFixture::~CameraFixture() {
    source.reset();
    face.clear();
    client->setCallback(callback);
}

void CameraFixture::connect(const std::string& socket) {
    std::string problem;
    face = host::connect<IFDSession>(socket, problem);
    ASSERT_NE(face, nullptr) << problem;
    EXPECT_TRUE(face->setCallback(mRecorder).isOk());
    configureAnew();
}

void CameraFixture::make(const camera::SourceOptions& options) {
    source = std::make_unique<camera::Camera>(session, options, [this](const std::string& line) {
        const std::lock_guard<std::mutex> lock(mMutex);
        mSaid += line + "\n";
    });
    source->clientCame();
}

std::string CameraFixture::start() const {
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
        if (mBuffers.size() < kMostBuffers) mBuffers.push_back(allocate(64, 48));
    }
    const uint64_t id = mAsked++ % kMostBuffers + 1;
    const Return<Status> answer =
        face->processCaptureRequest(requestFor(mAsked, id, mBuffers[id - 1].handle()));
    EXPECT_TRUE(answer.isOk());
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
