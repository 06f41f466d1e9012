// The session's controls on a socket of their own: who connects, who follows, and who watches.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <deque>
#include <memory>
#include <numeric>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "IFDControl.h"
#include "control_server.h"
#include "holdings.h"
#include "host/limits.h"
#include "support/few_descriptors.h"
#include "support/transport_fixture.h"

namespace testing_support {

namespace {

using control::Answer;
using control::Event;
using control::IFDControl;

/** All of whose bytes differ, from `first` on. */
template <typename Record>
Record filled(uint8_t first, size_t size = sizeof(Record)) {
    Record record = {};
    auto* const bytes = reinterpret_cast<uint8_t*>(&record);
    std::iota(bytes, bytes + size, first);
    return record;
}

constexpr size_t kTrackFields = 60;

SceneControl sceneOf(uint8_t first, size_t crops = 2) {
    SceneControl scene = {};
    scene.crops.resize(crops);
    for (Crop& crop : scene.crops)
        crop = filled<Crop>(first++);
    int32_t* const numbers[] = {&scene.frameWidth, &scene.frameHeight, &scene.sceneId,
                                &scene.sceneFlags, &scene.peopleCount};
    for (int32_t* const number : numbers)
        *number = filled<int32_t>(first++);
    return scene;
}

bool same(const SceneControl& a, const SceneControl& b) {
    return a.crops.size() == b.crops.size() &&
           std::equal(
               a.crops.begin(), a.crops.end(), b.crops.begin(),
               [](const Crop& c, const Crop& d) { return memcmp(&c, &d, sizeof(c)) == 0; }) &&
           memcmp(&a.frameWidth, &b.frameWidth, 5 * sizeof(int32_t)) == 0;
}

class ControlTest : public TransportFixture {
protected:
    ControlTest() {
        std::string problem;
        controls = control::ControlServer::listen(controlPath, session, {}, problem);
        EXPECT_NE(controls, nullptr) << problem;
        remoteControl = connectControl();
        other = connectControl();
    }
    sp<IFDControl> connectControl() const {
        std::string problem;
        sp<IFDControl> control = host::connect<IFDControl>(controlPath, problem);
        EXPECT_NE(control, nullptr) << problem;
        return control;
    }
    SceneControl scene() const {
        SceneControl scene = {};
        session->getSceneControl(scene);
        return scene;
    }
    SceneControl ptz() const {
        SceneControl ptz = {};
        session->getPTZControl(ptz);
        return ptz;
    }
    /** Whether the session's own view is there; it says nothing of the scene's numbers. */
    bool hasDefaultView() const {
        SceneControl view = ptz();
        std::tie(view.sceneId, view.sceneFlags, view.peopleCount) = std::tuple(0, 0, 0);
        return same(view, defaultPtz);
    }
    /** What a watcher is told next. */
    static Event next(const sp<IFDControl>& watcher) {
        Event event;
        EXPECT_EQ(watcher->watch(event), Answer::OK);
        return event;
    }

    const std::string controlPath = path + ".control";
    const SceneControl defaultPtz = ptz();
    std::unique_ptr<control::ControlServer> controls;
    sp<IFDControl> remoteControl;
    sp<IFDControl> other;
};

}  // namespace

TEST_F(ControlTest, TakesAThousandCropsAndNotOneMore) {
    const SceneControl most = sceneOf(1, control::kMaxCrops);
    const SceneControl more = sceneOf(1, control::kMaxCrops + 1);
    EXPECT_EQ(remoteControl->startFollowing(), Answer::OK);
    EXPECT_EQ(remoteControl->follow(most, most), Answer::OK);
    SceneControl got = {};
    EXPECT_EQ(remoteControl->getScene(got), Answer::OK);
    EXPECT_TRUE(same(got, most));
    EXPECT_EQ(remoteControl->setScene(more), Answer::TOO_MANY_CROPS);
    EXPECT_EQ(remoteControl->setPtz(more), Answer::TOO_MANY_CROPS);
    EXPECT_EQ(remoteControl->follow(more, most), Answer::TOO_MANY_CROPS);
    EXPECT_EQ(remoteControl->follow(most, more), Answer::TOO_MANY_CROPS);
    EXPECT_TRUE(same(scene(), most) && same(ptz(), most));
    // The provider itself is not bounded.
    next(other);
    session->setSceneControl(more);
    EXPECT_EQ(remoteControl->getScene(got), Answer::TOO_MANY_CROPS);
    EXPECT_EQ(next(other).missed, 1U);
}

TEST_F(ControlTest, LetsOneFollowUntilItStopsOrDies) {
    EXPECT_EQ(remoteControl->follow(sceneOf(1), sceneOf(2)), Answer::NOT_FOLLOWING);
    EXPECT_EQ(remoteControl->startFollowing(), Answer::OK);
    EXPECT_EQ(session->getTrackingMode(), TrackingMode::GROUP);
    EXPECT_EQ(other->startFollowing(), Answer::ANOTHER_FOLLOWS);
    EXPECT_EQ(other->stopFollowing(), Answer::NOT_FOLLOWING);
    EXPECT_EQ(other->follow(sceneOf(1), sceneOf(2)), Answer::NOT_FOLLOWING);
    EXPECT_TRUE(hasDefaultView());
    EXPECT_EQ(remoteControl->follow(sceneOf(1), sceneOf(2)), Answer::OK);
    EXPECT_TRUE(same(scene(), sceneOf(1)) && same(ptz(), sceneOf(2)));

    // Somebody else's mode 0 keeps it out, and another mode lets it in again.
    EXPECT_EQ(other->setMode(TrackingMode::OFF), Answer::OK);
    EXPECT_EQ(remoteControl->follow(sceneOf(3), sceneOf(4)), Answer::MODE_IS_OFF);
    EXPECT_TRUE(same(scene(), sceneOf(1)) && hasDefaultView());
    EXPECT_EQ(other->setMode(TrackingMode::SPEAKER), Answer::OK);
    EXPECT_EQ(remoteControl->follow(sceneOf(3), sceneOf(4)), Answer::OK);

    const auto expectNobody = [this] {
        EXPECT_EQ(session->getTrackingMode(), TrackingMode::OFF);
        EXPECT_TRUE(same(scene(), SceneControl()) && hasDefaultView());
    };
    EXPECT_EQ(remoteControl->stopFollowing(), Answer::OK);
    expectNobody();
    EXPECT_EQ(remoteControl->startFollowing(), Answer::OK);
    EXPECT_EQ(remoteControl->follow(sceneOf(3), sceneOf(4)), Answer::OK);
    remoteControl.clear();
    EXPECT_TRUE(eventually([&] { return scene().crops.size() == 0; }));
    expectNobody();
    EXPECT_EQ(other->startFollowing(), Answer::OK);
}

TEST_F(ControlTest, MovesNoViewAfterModeOffWasAnswered) {
    EXPECT_EQ(remoteControl->startFollowing(), Answer::OK);
    int moved = 0;
    std::atomic<bool> done{false};
    std::thread following([&] {
        while (!done)
            EXPECT_TRUE(remoteControl->follow(sceneOf(3), sceneOf(4)).isOk());
    });
    for (int round = 0; round < 100 && !HasFailure(); ++round) {
        EXPECT_EQ(other->setMode(TrackingMode::GROUP), Answer::OK);
        EXPECT_TRUE(eventually([&] { return same(ptz(), sceneOf(4)); }));
        EXPECT_EQ(other->setMode(TrackingMode::OFF), Answer::OK);
        for (int look = 0; look < 50; ++look)
            moved += hasDefaultView() ? 0 : 1;
    }
    done = true;
    following.join();
    EXPECT_EQ(moved, 0);
}

TEST_F(ControlTest, KeepsAThousandCallsForAWatcherAndCountsTheOthers) {
    const kit::Holdings before = kit::Holdings::settled();
    const sp<IFDControl> stopped = connectControl();
    EXPECT_EQ(next(stopped).kind, Event::Kind::NONE);
    EXPECT_EQ(next(other).kind, Event::Kind::NONE);

    const auto track = filled<TrackControl>(60, kTrackFields);
    session->setSceneControl(sceneOf(1));
    session->setPTZControl(sceneOf(2));
    session->setTrackControl(track);
    session->setTrackingMode(TrackingMode::PRESENTER);
    const Event scene = next(other);
    EXPECT_TRUE(scene.kind == Event::Kind::SCENE && same(scene.scene, sceneOf(1)));
    const Event ptz = next(other);
    EXPECT_TRUE(ptz.kind == Event::Kind::PTZ && same(ptz.scene, sceneOf(2)));
    const Event tracked = next(other);
    EXPECT_TRUE(tracked.kind == Event::Kind::TRACK &&
                memcmp(&tracked.track, &track, kTrackFields) == 0);
    const Event mode = next(other);
    EXPECT_TRUE(mode.kind == Event::Kind::MODE && mode.mode == TrackingMode::PRESENTER);
    EXPECT_LE(scene.timeNs, mode.timeNs);

    constexpr int32_t kMost = control::kMaxWaitingEvents;
    for (int32_t people = 4; people < kMost + 7; ++people)
        EXPECT_EQ(remoteControl->setPeople(people), Answer::OK);
    for (int32_t i = 0; i < kMost; ++i) {
        const Event event = next(stopped);
        EXPECT_EQ(event.missed, 0U);
        EXPECT_EQ(event.kind == Event::Kind::SCENE && i > 0 ? event.scene.peopleCount : i, i);
    }
    EXPECT_EQ(remoteControl->setPeople(1), Answer::OK);
    const Event later = next(stopped);
    EXPECT_EQ(later.missed, 7U);
    EXPECT_EQ(later.scene.peopleCount, 1);

    // Its end takes all away that was there for it.
    const_cast<sp<IFDControl>&>(stopped).clear();
    EXPECT_TRUE(eventually([&] { return kit::Holdings::of().isWithin(before); }));
}

TEST_F(ControlTest, HasConnectionsThatNoSessionsClientCanTakeAndTheOtherWayRound) {
    EXPECT_TRUE(remote->ping().isOk());
    std::deque<RawClient> clients;
    while (clients.size() + 1 < host::kMaxConnections)
        clients.emplace_back(path);
    std::deque<RawClient> tools;
    while (tools.size() + 2 < host::kMaxControlConnections)
        tools.emplace_back(controlPath);
    RawClient oneClient(path);
    RawClient oneTool(controlPath);
    // All that they get are the reserved slots, whichever come first.
    const FewDescriptors none(0);
    for (RawClient& each : clients)
        EXPECT_TRUE(each.connect() && each.isServed());
    EXPECT_TRUE(oneClient.connect() && oneClient.isClosed());
    for (RawClient& each : tools)
        EXPECT_TRUE(each.connect() && each.isServed());
    EXPECT_TRUE(oneTool.connect() && oneTool.isClosed());
    EXPECT_TRUE(remote->ping().isOk() && other->ping().isOk() && remoteControl->ping().isOk());
    EXPECT_EQ(linesWith("a connection beyond the limit of 8 is refused"), 1);
}

TEST_F(ControlTest, EndsAChannelThatAsksForNoMethodAndNoOther) {
    RawClient raw(controlPath);
    EXPECT_TRUE(raw.connect());
    raw.send(rawMessage({kCall, 16, 1, 0}), {});
    EXPECT_TRUE(raw.isClosed() && other->ping().isOk());
}

}  // namespace testing_support
