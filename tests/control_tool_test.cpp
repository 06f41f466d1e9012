// fdstream-ctl as a program, against a session in this process.

#include <gtest/gtest.h>

#include <memory>
#include <mutex>
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
            const std::lock_guard<std::mutex> lock(pictureMutex);
            return picture;
        };
        controls =
            control::ControlServer::listen(kit::controlSocketOf(path), session, status, problem);
        EXPECT_NE(controls, nullptr) << problem;
    }
    std::string line(const std::string& arguments) const {
        return CONTROL_TOOL " --socket " + path + " " + arguments;
    }

    const kit::TemporaryFolder folder;
    const std::string path = folder / "socket";
    std::mutex pictureMutex;
    std::optional<control::CameraStatus> picture;  // guarded by pictureMutex
    std::unique_ptr<control::ControlServer> controls;
};

std::string sceneOf(const std::string& crops, const std::string& frame, const std::string& rest) {
    return R"({"crops":[)" + crops + R"(],"frame)" + frame + R"(,"scene)" + rest + "}\n";
}

}  // namespace

TEST_F(ControlToolTest, SetsWhatItIsToldAndTellsWhatThereIs) {
    const std::string kCrop = R"({"x":-5,"y":2,"width":2147483647,"height":0})";
    const auto sceneWith = [&](const std::string& people) {
        return sceneOf(kCrop + R"(,{"x":1,"y":2,"width":3,"height":4})",
                       R"(Width":7,"frameHeight":-8)",
                       R"(Id":9,"sceneFlags":-10,"peopleCount":)" + people);
    };
    const std::string kMade =
        sceneOf(kCrop, R"(Width":40,"frameHeight":30)", R"(Id":0,"sceneFlags":0,"peopleCount":0)");
    const std::string kTrack =
        R"({"timestampNs":123456789012,"trackId":-3,"target":{"x":1,"y":2,"width":3,"height":4},)"
        R"("bounds":{"x":5,"y":6,"width":7,"height":8},"pan":-0.5,"tilt":1e-30,"zoom":3,"speed":4})"
        "\n";
    const struct {
        const char* arguments;
        int code;
        std::string said;  // all of it, or with 1 and more a part
    } cases[] = {
        {"scene -5,2,2147483647,0 1,2,3,4 --of 7x-8 --id 9 --flags -10 --people 11", 0,
         sceneWith("11")},
        {"scene", 0, sceneWith("11")},
        {"people -12", 0, "{\"peopleCount\":-12}\n"},
        {"people", 0, "{\"peopleCount\":-12}\n"},
        {"scene", 0, sceneWith("-12")},
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
        {"--control /nowhere mode", 3, "there is no provider"},
    };
    for (const auto& one : cases) {
        const Output output = runShell(line(one.arguments));
        EXPECT_EQ(output.exitCode, one.code) << one.arguments << "\n" << output.text;
        EXPECT_NE(output.text.find(one.said), std::string::npos) << output.text;
        if (one.code == 0) {
            EXPECT_EQ(output.text, one.said) << one.arguments;
        }
    }
    {
        const std::lock_guard<std::mutex> lock(pictureMutex);
        picture = control::CameraStatus{40, 30, 29.97, 5, 6};
    }
    EXPECT_EQ(runShell(line("ptz -5,2,2147483647,0")).text, kMade);
    EXPECT_EQ(runShell(line("ptz")).text, kMade);
    EXPECT_EQ(runShell(line("status")).text, R"({"picture":{"width":40,"height":30},)"
                                             R"("rate":29.97,"frames":5,"dropped":6})"
                                             "\n");
}

TEST_F(ControlToolTest, ObservesUntilNobodyReadsOrTheProviderGoes) {
    const auto watching = startShell("exec " + line("observe"));
    const auto one = startShell(line("observe --count 1"));
    for (const auto& tool : {watching.get(), one.get()})
        EXPECT_EQ(tool->nextLine(kPatience), "{\"event\":\"observing\"}");
    session->setTrackingMode(TrackingMode::GROUP);
    for (const auto& tool : {watching.get(), one.get()}) {
        const std::string said = tool->nextLine(kPatience).value_or("");
        EXPECT_NE(said.find(R"({"event":"mode","timeNs":)"), std::string::npos) << said;
        EXPECT_NE(said.find(R"(,"mode":1})"), std::string::npos) << said;
    }
    EXPECT_EQ(one->exitCode(kPatience), 0);
    EXPECT_EQ(runShell(line("observe") + " | head -n 1").text, "{\"event\":\"observing\"}\n");
    controls.reset();
    EXPECT_EQ(watching->exitCode(kPatience), 3);
}

}  // namespace testing_support
