#include "source/camera.h"

#include <chrono>
#include <utility>

namespace camera {

Camera::Camera(android::sp<Session> session, const SourceOptions& options, Say say)
    : mPlayer(options, mHandover, mStop),
      mFiller(std::move(session), mHandover, mStop, !options.fps || *options.fps > 0,
              std::move(say)) {}

bool Camera::start(std::string& problem) {
    if (!mPlayer.open(problem)) return false;
    mDecoding = std::async(std::launch::async, [this]() noexcept { mPlayer.run(); });
    mFilling = std::async(std::launch::async, [this]() noexcept { mFiller.run(); });
    return true;
}

void Camera::end(const std::function<void()>& hangUp) {
    constexpr std::chrono::milliseconds kForAClient(100);
    mStop.raise();
    mHandover.end();
    if (mFilling.valid() && mFilling.wait_for(kForAClient) != std::future_status::ready && hangUp)
        hangUp();
    for (const auto* const thread : {&mDecoding, &mFilling})
        if (thread->valid()) thread->wait();
}

std::string Camera::description() const {
    return mPlayer.description();
}

}  // namespace camera
