#pragma once

#include <android-base/thread_annotations.h>

#include <functional>
#include <mutex>
#include <optional>
#include <thread>

#include "FDSession.h"
#include "IFDControl.h"
#include "control_server.h"
#include "watchers.h"

namespace control {

/**
 * The operations, on a session. A caller is known by its thread, because each connection has one of
 * its own. While this object is there it is the session's observer.
 */
class SessionControl : public IFDControl {
public:
    SessionControl(::android::sp<FDSession> session, StatusSource status);
    ~SessionControl() override;

    Return<Answer> setScene(const SceneControl& scene) override;
    Return<Answer> getScene(SceneControl& scene) override;
    Return<Answer> setPtz(const SceneControl& ptz) override;
    Return<Answer> getPtz(SceneControl& ptz) override;
    Return<Answer> setTrack(const TrackControl& track) override;
    Return<Answer> getTrack(TrackControl& track) override;
    Return<Answer> setMode(TrackingMode mode) override;
    Return<Answer> getMode(TrackingMode& mode) override;
    Return<Answer> setPeople(int32_t count) override;
    Return<Answer> getPeople(int32_t& count) override;
    Return<Answer> getStatus(CameraStatus& status) override;
    Return<Answer> watch(Event& event) override;
    Return<Answer> startFollowing() override;
    Return<Answer> follow(const SceneControl& scene, const SceneControl& ptz) override;
    Return<Answer> stopFollowing() override;

    /** The calling thread's connection has ended: it neither follows nor watches any more. */
    void connectionEnded();
    /** From now on watch() does not wait. */
    void close() { mWatchers.close(); }

private:
    const ::android::sp<FDSession> mSession;
    const StatusSource mStatus;
    Watchers mWatchers;

    // Held during every operation on the session, so before its own lock and the watchers'.
    std::mutex mTurn;
    std::optional<std::thread::id> mFollower GUARDED_BY(mTurn);
};

}  // namespace control
