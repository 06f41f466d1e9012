#include "session_control.h"

#include <utility>

namespace control {

namespace {

using ::android::hardware::Return;

bool crosses(const SceneControl& scene) {
    return scene.crops.size() <= kMaxCrops;
}

/** Takes a scene of the session to who asked for it, if it crosses. */
Answer handOver(SceneControl&& stored, SceneControl& scene) {
    if (!crosses(stored)) return Answer::TOO_MANY_CROPS;
    scene = std::move(stored);
    return Answer::OK;
}

}  // namespace

SessionControl::SessionControl(::android::sp<FDSession> session, StatusSource status)
    : mSession(std::move(session)), mStatus(std::move(status)) {
    mSession->setSceneCallback(&mWatchers);
}

SessionControl::~SessionControl() {
    mSession->setSceneCallback(nullptr);
}

Return<Answer> SessionControl::setScene(const SceneControl& scene) {
    if (!crosses(scene)) return Answer::TOO_MANY_CROPS;
    const std::lock_guard<std::mutex> turn(mTurn);
    mSession->setSceneControl(scene);
    return Answer::OK;
}

Return<Answer> SessionControl::getScene(SceneControl& scene) {
    const std::lock_guard<std::mutex> turn(mTurn);
    SceneControl stored = {};
    mSession->getSceneControl(stored);
    return handOver(std::move(stored), scene);
}

Return<Answer> SessionControl::setPtz(const SceneControl& ptz) {
    if (!crosses(ptz)) return Answer::TOO_MANY_CROPS;
    const std::lock_guard<std::mutex> turn(mTurn);
    mSession->setPTZControl(ptz);
    return Answer::OK;
}

Return<Answer> SessionControl::getPtz(SceneControl& ptz) {
    const std::lock_guard<std::mutex> turn(mTurn);
    SceneControl stored = {};
    mSession->getPTZControl(stored);
    return handOver(std::move(stored), ptz);
}

Return<Answer> SessionControl::setTrack(const TrackControl& track) {
    const std::lock_guard<std::mutex> turn(mTurn);
    mSession->setTrackControl(track);
    return Answer::OK;
}

Return<Answer> SessionControl::getTrack(TrackControl& track) {
    const std::lock_guard<std::mutex> turn(mTurn);
    mSession->getTrackControl(track);
    return Answer::OK;
}

Return<Answer> SessionControl::setMode(TrackingMode mode) {
    const std::lock_guard<std::mutex> turn(mTurn);
    mSession->setTrackingMode(mode);
    return Answer::OK;
}

Return<Answer> SessionControl::getMode(TrackingMode& mode) {
    const std::lock_guard<std::mutex> turn(mTurn);
    mode = mSession->getTrackingMode();
    return Answer::OK;
}

Return<Answer> SessionControl::setPeople(int32_t count) {
    const std::lock_guard<std::mutex> turn(mTurn);
    SceneControl scene = {};
    mSession->getSceneControl(scene);
    scene.peopleCount = count;
    mSession->setSceneControl(scene);
    return Answer::OK;
}

Return<Answer> SessionControl::getPeople(int32_t& count) {
    const std::lock_guard<std::mutex> turn(mTurn);
    count = mSession->getPeopleCount();
    return Answer::OK;
}

Return<Answer> SessionControl::getStatus(CameraStatus& status) {
    const std::optional<CameraStatus> now = mStatus ? mStatus() : std::nullopt;
    if (!now) return Answer::NO_PICTURE;
    status = *now;
    return Answer::OK;
}

Return<Answer> SessionControl::watch(Event& event) {
    event = mWatchers.next();
    return Answer::OK;
}

Return<Answer> SessionControl::startFollowing() {
    const std::lock_guard<std::mutex> turn(mTurn);
    if (mFollower && *mFollower != std::this_thread::get_id()) return Answer::ANOTHER_FOLLOWS;
    mFollower = std::this_thread::get_id();
    mSession->setTrackingMode(TrackingMode::GROUP);
    return Answer::OK;
}

Return<Answer> SessionControl::follow(const SceneControl& scene, const SceneControl& ptz) {
    if (!crosses(scene) || !crosses(ptz)) return Answer::TOO_MANY_CROPS;
    const std::lock_guard<std::mutex> turn(mTurn);
    if (mFollower != std::this_thread::get_id()) return Answer::NOT_FOLLOWING;
    if (mSession->getTrackingMode() == TrackingMode::OFF) return Answer::MODE_IS_OFF;
    mSession->setSceneControl(scene);
    mSession->setPTZControl(ptz);
    return Answer::OK;
}

Return<Answer> SessionControl::stopFollowing() {
    const std::lock_guard<std::mutex> turn(mTurn);
    if (mFollower != std::this_thread::get_id()) return Answer::NOT_FOLLOWING;
    mFollower.reset();
    mSession->setTrackingMode(TrackingMode::OFF);
    mSession->setSceneControl(SceneControl());
    return Answer::OK;
}

void SessionControl::connectionEnded() {
    mWatchers.forget();
    const Return<Answer> wasFollower = stopFollowing();
    static_cast<void>(wasFollower);  // mostly it was not
}

}  // namespace control
