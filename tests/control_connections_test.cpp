// The connections of the session's controls: how many there are, and which end.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <deque>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "IFDControl.h"
#include "control_server.h"
#include "host/limits.h"
#include "support/few_descriptors.h"
#include "support/transport_fixture.h"

namespace testing_support {

class ControlConnectionsTest : public TransportFixture {
protected:
    sp<control::IFDControl> connectControl() {
        sp<control::IFDControl> control = host::connect<control::IFDControl>(controlPath, problem);
        EXPECT_NE(control, nullptr) << problem;
        return control;
    }

    std::string problem;
    const std::string controlPath = path + ".control";
    const std::unique_ptr<control::ControlServer> controls =
        control::ControlServer::listen(controlPath, session, {}, problem);
    const sp<control::IFDControl> one = connectControl();
    const sp<control::IFDControl> two = connectControl();
};

TEST_F(ControlConnectionsTest, HasConnectionsThatNoSessionsClientCanTakeAndTheOtherWayRound) {
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
    EXPECT_TRUE(remote->ping().isOk() && one->ping().isOk() && two->ping().isOk());
    EXPECT_EQ(linesWith("a connection beyond the limit of 8 is refused"), 1);
}

TEST_F(ControlConnectionsTest, EndsAChannelThatIsAtFaultAndNoOther) {
    struct Fault {
        std::vector<uint8_t> bytes;
        size_t fds;
    };
    const Fault faults[] = {{rawMessage({kCall, 16, 1, 0}), 0},           // no such method
                            {rawMessage({kCall, 2, 1, 0, 0}), 0},         // nothing is to be there
                            {rawMessage({kCall, 2, 1, 1}), 1},            // nor a descriptor
                            {rawMessage({kCall, 7, 1, 0}), 0},            // a mode is to be there
                            {rawMessage({kCall, 1, 1, 0, 1 << 30}), 0}};  // crops are to be there
    SceneControl before = {};
    session->getSceneControl(before);
    for (const Fault& fault : faults) {
        RawClient raw(controlPath);
        EXPECT_TRUE(raw.connect());
        raw.send(fault.bytes, std::vector<int>(fault.fds, STDERR_FILENO));
        EXPECT_TRUE(raw.isClosed());
    }
    EXPECT_EQ(linesWith("no such method, or arguments that do not add up"),
              static_cast<int64_t>(std::size(faults)));
    SceneControl after = {};
    session->getSceneControl(after);
    EXPECT_TRUE(one->ping().isOk());
    EXPECT_EQ(after.crops.size(), before.crops.size());
}

}  // namespace testing_support
