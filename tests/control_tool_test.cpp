// fdstream-ctl as a program, against a session in this process.

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <optional>
#include <string>

#include "control_server.h"
#include "default_socket.h"
#include "support/run_shell.h"
#include "support/session_fixture.h"
#include "temporary_folder.h"

namespace testing_support {

namespace {

class ControlToolTest : public SessionFixture {
protected:
    ControlToolTest() {
        std::string problem;
        const auto status = [this] {
            const control::CameraStatus picture = {40, 30, 29.97, 5, 6};
            return hasPicture ? std::optional(picture) : std::nullopt;
        };
        controls = control::ControlServer::listen(kit::controlSocketOf(folder / "socket"), session,
                                                  status, problem);
        EXPECT_NE(controls, nullptr) << problem;
    }

    const kit::TemporaryFolder folder;
    const std::string tool = CONTROL_TOOL " --socket " + (folder / "socket");
    std::atomic<bool> hasPicture{false};
    std::unique_ptr<control::ControlServer> controls;
};

}  // namespace

TEST_F(ControlToolTest, SetsWhatItIsToldAndTellsWhatThereIs) {
    const std::string kCrop = R"({"crops":[{"x":-5,"y":2,"width":2147483647,"height":0})";
    const std::string kScene =
        kCrop + R"(,{"x":1,"y":2,"width":3,"height":4}],"frameWidth":7,"frameHeight":-8,)"
                R"("sceneId":9,"sceneFlags":-10,"peopleCount":)";
    const std::string kMade = kCrop + R"(],"frameWidth":40,"frameHeight":30,"sceneId":0,)"
                                      R"("sceneFlags":0,"peopleCount":0})"
                                      "\n";
    const std::string kTrack =
        R"({"timestampNs":123456789012,"trackId":-3,"target":{"x":1,"y":2,"width":3,"height":4},)"
        R"("bounds":{"x":5,"y":6,"width":7,"height":8},"pan":-0.5,"tilt":1e-30,"zoom":3,"speed":4})"
        "\n";
    expectRuns(
        tool, {{"scene -5,2,2147483647,0 1,2,3,4 --of 7x-8 --id 9 --flags -10 --people 11", 0,
                kScene + "11}\n"},
               {"scene", 0, kScene + "11}\n"},
               {"people -12", 0, "{\"peopleCount\":-12}\n"},
               {"people", 0, "{\"peopleCount\":-12}\n"},
               {"scene", 0, kScene + "-12}\n"},
               {"scene $(seq -f %.0f,1,1,1 1001) --of 1x1", 1, "more than 1000 crops is refused"},
               {"scene $(seq -f %.0f,1,1,1 5000) --of 1x1", 1, "over the limits"},
               {"status", 0, "{\"picture\":null,\"rate\":null,\"frames\":null,\"dropped\":null}\n"},
               {"ptz 1,2,3,4", 1, "say with --of WxH"},
               {"mode 3", 0, "{\"mode\":3}\n"},
               {"mode", 0, "{\"mode\":3}\n"},
               {"track --time 123456789012 --id -3 --target 1,2,3,4 --bounds 5,6,7,8 --pan -0.5 "
                "--tilt 1e-30 --zoom 3 --speed 4",
                0, kTrack},
               {"track", 0, kTrack},
               {"mode x", 2, "x is no number that fits"},
               {"mode 2147483648", 2, "no number that fits"},
               {"track --pan nan", 2, "no number that fits"},
               {"track --pan 0x1", 2, "no number that fits"},
               {"track --pan 1e39", 2, "no number that fits"},
               {"ptz 1,2,3 --of 1x1", 2, "1,2,3 is no crop"},
               {"ptz 1,2,3,4 --of 1x", 2, "1x is no size"},
               {"", 2, "subcommand"},
               {"--control /nowhere mode", 3, "there is no provider"}});
    hasPicture = true;
    expectRuns(tool, {{"ptz -5,2,2147483647,0", 0, kMade},
                      {"ptz", 0, kMade},
                      {"status", 0,
                       R"({"picture":{"width":40,"height":30},"rate":29.97,"frames":5,"dropped":6})"
                       "\n"}});
}

TEST_F(ControlToolTest, ObservesUntilNobodyReadsOrTheProviderGoes) {
    const auto watching = startShell("exec " + tool + " observe");
    const auto one = startShell(tool + " observe --count 1");
    for (const auto& each : {watching.get(), one.get()})
        EXPECT_EQ(each->nextLine(kPatience), "{\"event\":\"observing\"}");
    session->setTrackingMode(TrackingMode::GROUP);
    for (const auto& each : {watching.get(), one.get()}) {
        EXPECT_TRUE(matches(each->nextLine(kPatience).value_or(""),
                            R"(^[{]"event":"mode","timeNs":[0-9]+,"mode":1.$)"));
    }
    EXPECT_EQ(one->exitCode(kPatience), 0);
    expectRuns(tool, {{"observe | head -n 1", 0, "{\"event\":\"observing\"}\n"}});
    controls.reset();
    EXPECT_EQ(watching->exitCode(kPatience), 3);
}

}  // namespace testing_support
