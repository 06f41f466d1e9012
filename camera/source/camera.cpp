#include "source/camera.h"

#include <utility>

namespace camera {

std::unique_ptr<Camera> Camera::open(android::sp<Session> session, const SourceOptions& options,
                                     Say say, std::string& problem) {
    std::unique_ptr<Camera> camera(new Camera(std::move(session), options, std::move(say)));
    if (!camera->mPlayer.open(problem)) return nullptr;
    camera->mDescription = camera->mPlayer.description();
    camera->mDecoding = std::thread([&player = camera->mPlayer] { player.run(); });
    camera->mFilling = std::thread([&filler = camera->mFiller] { filler.run(); });
    return camera;
}

Camera::Camera(android::sp<Session> session, const SourceOptions& options, Say say)
    : mPlayer(options, mHandover, mStop),
      mFiller(std::move(session), mHandover, mStop, !options.fps || *options.fps > 0,
              std::move(say)) {}

Camera::~Camera() {
    mStop.raise();
    mHandover.end();
    if (mDecoding.joinable()) mDecoding.join();
    if (mFilling.joinable()) mFilling.join();
}

}  // namespace camera
