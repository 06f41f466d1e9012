#include "follower.h"

#include <err.h>

#include <algorithm>
#include <chrono>
#include <utility>
#include <vector>

namespace tools {

namespace {

using android::sp;
using android::hardware::Return;
using control::IFDControl;
using vendor::zoru::zoruprovider::zoruprovider::V2_4::Crop;

/** Of frames in a row that lack what it needs. */
constexpr int kPatience = 25;

control::SceneControl sceneOf(const std::vector<camera::Rect>& parts, camera::FrameSize picture,
                              size_t people) {
    std::vector<Crop> crops;
    for (const camera::Rect& part : parts) {
        if (crops.size() == control::kMaxCrops) break;
        crops.push_back({part.x, part.y, part.width, part.height});
    }
    control::SceneControl scene = {};
    scene.crops = crops;
    scene.frameWidth = picture.width;
    scene.frameHeight = picture.height;
    scene.peopleCount = static_cast<int32_t>(people);
    return scene;
}

}  // namespace

std::unique_ptr<Follower> Follower::begin(const sp<IFDControl>& controls, kit::FrameSize stream,
                                          std::function<void(const std::string&)> say) {
    const Return<control::Answer> answer = controls->startFollowing();
    if (answer.isOk() && static_cast<control::Answer>(answer) == control::Answer::OK)
        return std::unique_ptr<Follower>(new Follower(controls, stream, std::move(say)));
    warnx("the view cannot follow: %s",
          answer.isOk() ? control::inWords(answer) : answer.description().c_str());
    return nullptr;
}

Follower::Follower(sp<IFDControl> controls, kit::FrameSize stream,
                   std::function<void(const std::string&)> say)
    : mControls(std::move(controls)), mSay(std::move(say)), mController(stream) {}

Follower::~Follower() {
    if (mIsLost) return;
    const Return<control::Answer> answer = mControls->stopFollowing();
    static_cast<void>(answer.isOk());  // a provider that is gone has nothing to set
}

void Follower::follow(const Answer& answer, const Sight& sight) {
    if (mIsLost || !isTold(answer.told) || !sight.places || !isLetIn()) return;
    send(answer, sight);
}

bool Follower::isTold(const camera::Told& told) {
    const auto hasSize = [](const auto& part) { return part.width > 0 && part.height > 0; };
    if (told.view && told.picture && hasSize(*told.view) && hasSize(told.picture->size)) {
        mUntold = 0;
        return true;
    }
    if (++mUntold == kPatience && !std::exchange(mHasSaidSo, true)) {
        mSay(
            "the provider does not tell which part of its picture a frame shows, so the view "
            "cannot follow; the test source does not");
    }
    return false;
}

bool Follower::isLetIn() {
    if (!mIsOut) return true;
    control::TrackingMode mode = control::TrackingMode::OFF;
    if (!gotThrough(mControls->getMode(mode)) || mode == control::TrackingMode::OFF) return false;
    mIsOut = false;
    mController.startAnew();  // others may have moved the view meanwhile
    return true;
}

void Follower::send(const Answer& answer, const Sight& sight) {
    const camera::Told& told = answer.told;
    const auto time = told.sensorNs ? std::chrono::nanoseconds(*told.sensorNs)
                                    : answer.arrival.time_since_epoch();
    const camera::FrameSize picture = told.picture->size;
    const camera::Rect view = mController.next(*sight.places, picture, *told.view, time);
    const Return<control::Answer> result =
        mControls->follow(sceneOf(*sight.places, picture, sight.places->size()),
                          sceneOf({view}, picture, sight.places->size()));
    if (gotThrough(result))
        mIsOut = static_cast<control::Answer>(result) == control::Answer::MODE_IS_OFF;
}

bool Follower::gotThrough(const Return<control::Answer>& answer) {
    if (answer.isOk()) return true;
    mIsLost = true;
    mSay("the view follows no more: " + answer.description());
    return false;
}

}  // namespace tools
