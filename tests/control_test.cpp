// The session's controls on a socket of their own: who connects, who follows, who watches, and what
// fdstream-ctl makes of it.

#include <deque>
#include <memory>
#include <string>
#include <utility>

#include "IFDControl.h"
#include "control_json.h"
#include "control_server.h"
#include "host/limits.h"
#include "model/words.h"
#include "support/few_descriptors.h"
#include "support/run_shell.h"
#include "support/transport_fixture.h"

namespace testing_support {

namespace {

using namespace std::string_literals;
using control::Answer;
using control::Event;
using control::IFDControl;
using tools::json;

/** All of whose numbers differ, in each byte. */
SceneControl sceneOf(uint64_t first, size_t crops = 2) {
    SceneControl scene = {};
    scene.crops.resize(crops);
    fill(scene, first);
    return scene;
}

class ControlTest : public TransportFixture {
protected:
    sp<IFDControl> connectControl() { return host::connect<IFDControl>(controlPath, reason); }
    /** The scene and the view. */
    std::string stored() const {
        SceneControl scene = {};
        SceneControl ptz = {};
        session->getSceneControl(scene);
        session->getPTZControl(ptz);
        return json(scene) + json(ptz);
    }
    /** What a watcher is told next. */
    static Event next(const sp<IFDControl>& watcher) {
        Event event;
        EXPECT_EQ(watcher->watch(event), Answer::OK);
        return event;
    }

    const std::string controlPath = path + ".control";
    const std::string tool = CONTROL_TOOL " --socket " + path;
    /** What of it is so again when nobody follows any more. */
    const std::string atFirst = stored().substr(0, stored().rfind(",\"frameWidth"));
    const control::CameraStatus status = {40, 30, 29.97, 5, 6};
    std::unique_ptr<control::ControlServer> controls = control::ControlServer::listen(
        controlPath, session, [this] { return status; }, reason);
    sp<IFDControl> one = connectControl();
    sp<IFDControl> other = connectControl();
};

using ControlToolTest = ControlTest;

}  // namespace

TEST_F(ControlTest, TakesAThousandCropsAndNotOneMore) {
    const SceneControl most = sceneOf(1, control::kMaxCrops);
    const SceneControl more = sceneOf(1, control::kMaxCrops + 1);
    EXPECT_EQ(one->startFollowing(), Answer::OK);
    EXPECT_EQ(one->follow(most, most), Answer::OK);
    SceneControl got = {};
    EXPECT_EQ(one->getScene(got), Answer::OK);
    EXPECT_EQ(one->setScene(more), Answer::TOO_MANY_CROPS);
    EXPECT_EQ(one->setPtz(more), Answer::TOO_MANY_CROPS);
    EXPECT_EQ(one->follow(more, most), Answer::TOO_MANY_CROPS);
    EXPECT_EQ(one->follow(most, more), Answer::TOO_MANY_CROPS);
    EXPECT_EQ(stored(), json(most) + json(most));
    // The provider itself is not bounded.
    next(other);
    session->setSceneControl(more);
    EXPECT_EQ(one->getScene(got), Answer::TOO_MANY_CROPS);
    EXPECT_EQ(next(other).missed, 1U);
}

TEST_F(ControlTest, LetsOneFollowUntilItStopsOrDies) {
    EXPECT_EQ(one->startFollowing(), Answer::OK);
    EXPECT_EQ(session->getTrackingMode(), TrackingMode::GROUP);
    EXPECT_EQ(other->startFollowing(), Answer::ANOTHER_FOLLOWS);
    EXPECT_EQ(other->stopFollowing(), Answer::NOT_FOLLOWING);
    EXPECT_EQ(other->follow(sceneOf(1), sceneOf(2)), Answer::NOT_FOLLOWING);
    EXPECT_TRUE(has(stored(), atFirst));
    // Somebody else's mode 0 keeps it out, and another mode lets it in again.
    EXPECT_EQ(other->setMode(TrackingMode::OFF), Answer::OK);
    EXPECT_EQ(one->follow(sceneOf(3), sceneOf(4)), Answer::MODE_IS_OFF);
    EXPECT_TRUE(has(stored(), atFirst));
    EXPECT_EQ(other->setMode(TrackingMode::SPEAKER), Answer::OK);
    for (const bool dies : {false, true}) {
        EXPECT_EQ(one->follow(sceneOf(3), sceneOf(4)), Answer::OK);
        EXPECT_EQ(stored(), json(sceneOf(3)) + json(sceneOf(4)));
        EXPECT_TRUE(dies || Answer(one->stopFollowing()) == Answer::OK);
        if (dies) one.clear();
        EXPECT_TRUE(eventually([&] { return has(stored(), atFirst); }));
        EXPECT_EQ(session->getTrackingMode(), TrackingMode::OFF);
        EXPECT_EQ((dies ? other : one)->startFollowing(), Answer::OK);
    }
}

TEST_F(ControlTest, KeepsAThousandCallsForAWatcherAndCountsTheOthers) {
    const sp<IFDControl> stopped = connectControl();
    EXPECT_EQ(next(stopped).kind, Event::Kind::NONE);
    EXPECT_EQ(next(other).kind, Event::Kind::NONE);

    const TrackControl track = {1, 2, {3, 4, 5, 6}, {7, 8, 9, 10}, 1.5, 2.5, 3.5, 4.5};
    session->setSceneControl(sceneOf(1));
    session->setPTZControl(sceneOf(2));
    session->setTrackControl(track);
    session->setTrackingMode(TrackingMode::PRESENTER);
    int64_t lastNs = 1;
    for (const std::string& value : {"scene\":" + json(sceneOf(1)), "ptz\":" + json(sceneOf(2)),
                                     "track\":" + json(track), "mode\":3"s}) {
        const Event event = next(other);
        EXPECT_TRUE(has(json(event), ",\"" + value + "}")) << json(event);
        EXPECT_LE(std::exchange(lastNs, event.timeNs), event.timeNs);
    }

    constexpr int32_t kMost = control::kMaxWaitingEvents;
    for (int32_t people = 4; people < kMost + 7; ++people)
        EXPECT_EQ(one->setPeople(people), Answer::OK);
    for (int32_t i = 0; i < kMost; ++i) {
        const Event event = next(stopped);
        EXPECT_TRUE(event.missed == 0 && (i < 4 || event.scene.peopleCount == i)) << i;
    }
    for (const uint64_t missed : {7U, 0U}) {
        EXPECT_EQ(one->setPeople(1), Answer::OK);
        EXPECT_EQ(next(stopped).missed, missed);
    }
}

TEST_F(ControlTest, HasConnectionsThatNoSessionsClientCanTakeAndTheOtherWayRound) {
    EXPECT_TRUE(remote->ping().isOk());
    std::deque<RawClient> clients;
    while (clients.size() + 1 < host::kMaxConnections + host::kMaxControlConnections)
        clients.emplace_back(clients.size() < host::kMaxConnections ? path : controlPath);
    // All that they get are the reserved slots, whichever come first; the last of each gets none.
    const FewDescriptors none(0);
    for (size_t i = 1; i <= clients.size(); ++i) {
        EXPECT_TRUE(clients[i - 1].connect());
        EXPECT_EQ(clients[i - 1].isServed(), i != host::kMaxConnections && i != clients.size());
    }
    // A call of no method ends its channel and no other, and so do arguments that it has not.
    EXPECT_TRUE(clients[65].send(rawMessage({kCall, 16, 1, 0})) && clients[65].isClosed());
    EXPECT_TRUE(clients[66].send(rawMessage({kCall, 2, 1, 0, 5})) && clients[66].isClosed());
    EXPECT_TRUE(remote->ping().isOk() && other->ping().isOk() && one->ping().isOk());
    EXPECT_EQ(log.linesWith("a connection beyond the limit of 8 is refused"), 1);
}

TEST_F(ControlToolTest, SetsWhatItIsToldAndTellsWhatThereIs) {
    const std::string kScene = R"("width":2147483647,"height":0}],"frameWidth":7,"frameHeight":-8,)"
                               R"("sceneId":9,"sceneFlags":-10,"peopleCount":)";
    expectRuns(
        tool,
        {{"scene -5,2,2147483647,0 --of 7x-8 --id 9 --flags -10 --people 11", 0, kScene + "11}\n"},
         {"people -12", 0, "{\"peopleCount\":-12}\n"},
         {"scene", 0, kScene + "-12}\n"},
         {"ptz -5,2,2147483647,0", 0, R"("height":0}],"frameWidth":40,"frameHeight":30,)"},
         {"status", 0,
          R"({"picture":{"width":40,"height":30},"rate":29.97,"frames":5,"dropped":6})"},
         {"track --time 123456789012 --id -3 --target 1,2,3,4 --bounds 5,6,7,8 --pan -0.5 "
          "--tilt 1e-30 --zoom 3 --speed 4; " +
              tool + " track",
          0, R"("pan":-0.5,"tilt":1e-30,"zoom":3,"speed":4})"},
         // Observes until nobody reads.
         {"observe | { read first; " + tool + " mode 1; head -n 1; }", 0, R"(,"mode":1})"},
         {"mode 2147483648", 2, "no number that fits"},
         {"--control /nowhere mode", 3, "there is no provider"}});
    const auto observing = startShell("exec " + tool + " observe");
    EXPECT_EQ(observing->nextLine(kPatience), R"({"event":"observing"})");
    controls.reset();
    EXPECT_EQ(observing->exitCode(kPatience), 3);
}

}  // namespace testing_support
