// Scene, PTZ and tracking controls, and the observer that hears of them.

#include <cstring>
#include <thread>

#include "support/session_fixture.h"

namespace testing_support {

namespace {

SceneControl sceneOf(size_t crops, int32_t frameWidth, int32_t peopleCount) {
    SceneControl scene = {};
    scene.crops.resize(crops);
    for (size_t i = 0; i < crops; ++i)
        scene.crops[i] = {static_cast<int32_t>(i), -1, 2, 3};
    scene.frameWidth = frameWidth;
    scene.frameHeight = 480;
    scene.sceneId = 21;
    scene.sceneFlags = 22;
    scene.peopleCount = peopleCount;
    return scene;
}

/** Remembers what it heard; `during` runs inside each operation but onPTZControl(). */
struct Observer : public ISceneCallback {
    void onSceneControl(SceneControl scene) override {
        scenes.push_back(scene);
        scene.crops.resize(0);  // its own copy
        if (during) during();
    }
    void onPTZControl(SceneControl ptz) override {
        ptzs.push_back(ptz);
        if (duringPTZ) duringPTZ();
    }
    void onTrackControl(TrackControl track) override {
        tracks.push_back(track);
        if (during) during();
    }
    void onTrackingMode(TrackingMode mode) override {
        modes.push_back(static_cast<int>(mode));
        if (during) during();
    }

    std::vector<SceneControl> scenes;
    std::vector<SceneControl> ptzs;
    std::vector<TrackControl> tracks;
    std::vector<int> modes;
    std::function<void()> during;
    std::function<void()> duringPTZ;
};

}  // namespace

class SceneTest : public SessionFixture {
protected:
    SceneControl scene() {
        SceneControl result = sceneOf(4, 9, 9);
        session->getSceneControl(result);
        return result;
    }
    SceneControl ptz() {
        SceneControl result = sceneOf(4, 9, 9);
        session->getPTZControl(result);
        return result;
    }
    void expectDefaultPTZ(int32_t further, int32_t peopleCount) {
        const SceneControl now = ptz();
        ASSERT_EQ(now.crops.size(), 1U);
        const Crop whole = {0, 0, 1280, 720};
        EXPECT_EQ(memcmp(&now.crops[0], &whole, sizeof(Crop)), 0);
        EXPECT_EQ(now.frameWidth, 1280);
        EXPECT_EQ(now.frameHeight, 720);
        EXPECT_EQ(now.sceneId, further);
        EXPECT_EQ(now.peopleCount, peopleCount);
    }

    Observer observer;
};

TEST_F(SceneTest, StartsWithTheDefaultsAndStoresWhateverComes) {
    expectDefaultPTZ(0, 0);
    EXPECT_EQ(scene().crops.size(), 0U);
    EXPECT_EQ(scene().frameWidth, 0);
    EXPECT_EQ(session->getPeopleCount(), 0);
    EXPECT_EQ(session->getTrackingMode(), TrackingMode::OFF);
    TrackControl track;
    memset(&track, 0xff, sizeof(track));
    session->getTrackControl(track);
    EXPECT_EQ(track.timestampNs, 0);
    EXPECT_EQ(track.speed, 0.0F);

    session->setSceneControl(sceneOf(3, 640, 4));
    session->setPTZControl(sceneOf(2, 320, 9));
    EXPECT_EQ(scene().crops.size(), 3U);
    EXPECT_EQ(scene().crops[2].x, 2);
    EXPECT_EQ(scene().sceneFlags, 22);
    EXPECT_EQ(ptz().crops.size(), 2U);
    EXPECT_EQ(session->getPeopleCount(), 4);  // the scene's, not the PTZ control's
    session->setSceneControl(sceneOf(0, 0, 0));
    EXPECT_EQ(scene().crops.size(), 0U);
}

TEST_F(SceneTest, TellsTheObserverOfEveryStoreWithACopyOfItsOwn) {
    const SceneControl stored = sceneOf(3, 640, 4);
    session->setSceneCallback(&observer);
    session->setSceneControl(stored);
    session->setSceneControl(stored);
    EXPECT_EQ(observer.scenes.size(), 2U);
    EXPECT_EQ(observer.scenes[0].crops.size(), 3U);
    EXPECT_EQ(scene().crops.size(), 3U);
    session->setPTZControl(stored);
    EXPECT_EQ(observer.ptzs.size(), 1U);
    TrackControl track = {};
    track.trackId = 5;
    track.zoom = 2.5F;
    session->setTrackControl(track);
    session->setTrackControl(track);
    ASSERT_EQ(observer.tracks.size(), 2U);
    EXPECT_EQ(memcmp(&observer.tracks[0], &track, 60), 0);
    TrackControl kept = {};
    session->getTrackControl(kept);
    EXPECT_EQ(memcmp(&kept, &track, 60), 0);

    session->setSceneCallback(nullptr);
    session->setSceneControl(sceneOf(1, 1, 1));
    session->setTrackControl(track);
    session->setTrackingMode(TrackingMode::GROUP);
    EXPECT_EQ(observer.scenes.size(), 2U);
    EXPECT_EQ(observer.tracks.size(), 2U);
    EXPECT_TRUE(observer.modes.empty());
}

TEST_F(SceneTest, ActsOnAChangeOfTheTrackingModeOnly) {
    session->setSceneCallback(&observer);
    log.clear();
    session->setTrackingMode(TrackingMode::OFF);
    EXPECT_TRUE(log.lines().empty());
    session->setPTZControl(sceneOf(3, 640, 9));
    session->setTrackingMode(static_cast<TrackingMode>(3));
    session->setTrackingMode(static_cast<TrackingMode>(3));
    session->setTrackingMode(static_cast<TrackingMode>(-2));
    EXPECT_EQ(ptz().crops.size(), 3U);
    size_t ptzInside = 0;
    observer.during = [&] { ptzInside = ptz().crops.size(); };
    session->setTrackingMode(TrackingMode::OFF);
    EXPECT_EQ(log.said(kSessionTag),
              (Lines{"D Tracking changed to 3 ", "D Tracking changed to -2 ",
                     "D PTZ Scene reset 0 0 1280 720", "D Tracking changed to 0 "}));
    EXPECT_EQ(observer.modes, (std::vector<int>{3, -2, 0}));
    EXPECT_EQ(ptzInside, 1U);
    EXPECT_EQ(observer.ptzs.size(), 1U);  // the store, not the reset
    expectDefaultPTZ(21, 9);
}

TEST_F(SceneTest, NotifiesAtOnceFromInsideAnOperationAndSaysWhichMustNot) {
    const auto linesAfter = [&](const std::function<void()>& act) {
        log.clear();
        act();
        return log.timesSaid(
            "E sendNotify: called inside an observer's operation that has the session locked \n");
    };
    observer.during = [&] {
        FDNotifyMsg msg = {};
        session->sendNotify(msg);
        EXPECT_FALSE(deliveries.notified().empty());
    };
    observer.duringPTZ = observer.during;
    session->setSceneCallback(&observer);
    EXPECT_EQ(linesAfter([&] { session->setSceneControl({}); }), 1);
    EXPECT_EQ(linesAfter([&] { session->setPTZControl({}); }), 1);
    EXPECT_EQ(linesAfter([&] { session->setTrackingMode(TrackingMode::GROUP); }), 1);
    EXPECT_EQ(deliveries.notified().size(), 3U);
    // The one that may: another thread has the session meanwhile.
    callback->during = [&] { std::thread([&] { session->getTrackingMode(); }).join(); };
    EXPECT_EQ(linesAfter([&] { session->setTrackControl({}); }), 0);
    callback->during = nullptr;
    // But not when it is told from inside one of the others.
    observer.during = [&] {
        if (observer.tracks.size() == 1) session->setTrackControl({});
        FDNotifyMsg msg = {};
        session->sendNotify(msg);
    };
    EXPECT_EQ(linesAfter([&] { session->setSceneControl({}); }), 2);
    EXPECT_EQ(deliveries.notified().size(), 6U);
}

}  // namespace testing_support
