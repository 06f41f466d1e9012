#include "source/camera.h"

#include <utility>

namespace camera {

Camera::Camera(android::sp<Session> session, const SourceOptions& options, Say say)
    : mPlayer(options, mHandover, mStop),
      mFiller(std::move(session), mHandover, mStop, !options.fps || *options.fps > 0,
              std::move(say)) {}

bool Camera::start(std::string& problem) {
    if (!mPlayer.open(problem)) return false;
    mDecoding = std::thread([this] { mPlayer.run(); });
    mFilling = std::thread([this] { mFiller.run(); });
    return true;
}

void Camera::end() {
    mStop.raise();
    mHandover.end();
    if (mDecoding.joinable()) mDecoding.join();
    if (mFilling.joinable()) mFilling.join();
}

std::string Camera::description() const {
    return mPlayer.description();
}

}  // namespace camera
