#pragma once

#include <string>
#include <utility>

#include "model/subject.h"
#include "model/words.h"

namespace testing_support {

using namespace fdstream;  // NOLINT: whose face the model has
using namespace product;   // NOLINT
using android::hardware::hidl_vec;

/** What a session should tell its client and its observer, as plainly as can be. */
class SceneModel : public Subject, public FDSession, public IFDSession {
protected:
    using Subject::Subject;

    FDSession& session() override { return *this; }
    IFDSession& client() override { return *this; }
    sp<IFDSession> getInterface() override { return nullptr; }

    Return<Status> setCallback(const sp<IFDSessionCallback>& callback) override {
        if (isGone("setCallback")) return Status::INTERNAL_ERROR;
        log('I', "handleSetCallback: \n");
        mCallback = callback;
        return Status::OK;
    }
    void deliver(CaptureResult&& result) {
        const sp<IFDSessionCallback> callback = mCallback;
        if (callback == nullptr) return;
        hidl_vec<CaptureResult> results;
        results.resize(1);
        results[0] = std::move(result);  // no copy, which would need descriptors
        isDone(callback->processCaptureResult(results),
               "threadLoop: processCaptureResult transaction");
    }
    void sendNotify(FDNotifyMsg& msg) override {
        const sp<IFDSessionCallback> callback = mCallback;
        if (callback == nullptr) return log('E', "sendNotify: notify failed: invalid session \n");
        if (mLockedCalls > 0) {
            log('E',
                "sendNotify: called inside an observer's operation that has the session locked \n");
        }
        isDone(callback->notify({msg}), "sendNotify: notify transaction");
    }

    void setSceneCallback(ISceneCallback* observer) override { mObserver = observer; }
    void setSceneControl(const SceneControl& control) override {
        mScene = control;
        tell(&ISceneCallback::onSceneControl, control);
    }
    void getSceneControl(SceneControl& control) override { control = mScene; }
    int32_t getPeopleCount() override { return mScene.peopleCount; }
    void setPTZControl(const SceneControl& control) override {
        mPTZ = control;
        tell(&ISceneCallback::onPTZControl, control);
    }
    void getPTZControl(SceneControl& control) override { control = mPTZ; }
    void resetPTZScene() {
        mPTZ.frameWidth = 1280;
        mPTZ.frameHeight = 720;
        mPTZ.crops = {Crop{0, 0, 1280, 720}};
        log('D', "PTZ Scene reset 0 0 1280 720");
    }
    void setTrackControl(const TrackControl& control) override {
        mTrack = control;
        if (mObserver != nullptr) mObserver->onTrackControl(control);
    }
    void getTrackControl(TrackControl& control) override { control = mTrack; }
    void setTrackingMode(TrackingMode mode) override {
        if (mode == mMode) return;
        mMode = mode;
        if (mode == TrackingMode::OFF) resetPTZScene();
        log('D', cat("Tracking changed to ", mode, " "));
        tell(&ISceneCallback::onTrackingMode, mode);
    }
    TrackingMode getTrackingMode() override { return mMode; }

    void log(char priority, const std::string& text) { say(cat(priority, ' ', text)); }
    bool isGone(const char* operation) {
        if (mIsOver) log('E', cat(operation, ": FDSessionImpl is gone"));
        return mIsOver;
    }

    template <typename Answer>
    bool isDone(const Answer& answer, const char* call) {
        if (!answer.isOk()) {
            log('E', cat(call, " failed: Status(EX_TRANSACTION_FAILED): 'DEAD_OBJECT: gone'"));
        }
        return answer.isOk();
    }

    sp<IFDSessionCallback> mCallback;

private:
    /** With the session locked. */
    template <typename Control>
    void tell(void (ISceneCallback::*operation)(Control), const Control& control) {
        if (mObserver == nullptr) return;
        ++mLockedCalls;
        (mObserver->*operation)(control);
        --mLockedCalls;
    }

    ISceneCallback* mObserver = nullptr;
    int mLockedCalls = 0;
    SceneControl mScene = {};
    SceneControl mPTZ = {};
    TrackControl mTrack = {};
    TrackingMode mMode = {};
};

}  // namespace testing_support
