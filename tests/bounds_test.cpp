// The limits, each one below, at, and one above.

#include <gtest/gtest.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "holdings.h"
#include "host/buffer.h"
#include "host/limits.h"
#include "support/few_descriptors.h"
#include "support/interposed.h"
#include "support/transport_fixture.h"

namespace testing_support {

using host::UniqueFd;

namespace {
using BoundsTest = TransportFixture;
}  // namespace

TEST_F(BoundsTest, TakesWhatIsWithinTheLimitsAndNoMore) {
    remote.clear();
    server.reset();
    const FewDescriptors few(512);
    serve();
    setUpStream();
    for (const int beyond : {-1, 0, 1}) {
        const bool fits = beyond <= 0;
        const auto offset = [beyond](size_t limit) {
            return static_cast<size_t>(static_cast<int64_t>(limit) + beyond);
        };
        // Bytes of a message: all that a request takes without settings, and settings.
        CaptureRequest request = requestFor(1, 1, nullptr);
        constexpr size_t kWithoutSettings = 16 + 16 + 19 + 4 + 19;
        request.settings.resize(offset(host::kMaxMessageBytes - kWithoutSettings));
        EXPECT_EQ(remote->processCaptureRequest(request).isOk(), fits) << "bytes " << beyond;

        // Descriptors of a message.
        const UniqueFd event(eventfd(0, EFD_CLOEXEC));
        request = requestFor(1, 1, nullptr);
        request.outputBuffers[0].acquireFence =
            handleOf(std::vector<int>(offset(host::kMaxMessageFds), event.get()));
        EXPECT_EQ(remote->processCaptureRequest(request).isOk(), fits) << "descriptors " << beyond;

        // Free slots when a descriptor arrives: it may get the last number before the reserve.
        {
            EXPECT_TRUE(remote->ping().isOk());  // served after what came before was let go of
            const TakenUpTo taken(
                offset(few.limit() - host::kConnectionFds - host::kReservedFds - 1));
            const CaptureRequest brings = requestFor(1, 2, buffer.handle());
            const Return<Status> answer = remote->processCaptureRequest(brings);
            EXPECT_EQ(answer.isOk(), fits) << "slots " << beyond;
            EXPECT_TRUE(fits || answer.description().find("too few descriptor slots are free") !=
                                    std::string::npos);
            EXPECT_TRUE(remote->ping().isOk());  // calls without descriptors still pass
        }

        // Connections: this test's own is one of them.
        const int descriptors = kit::Holdings::of().descriptors;
        std::vector<sp<IFDSession>> connections;
        while (connections.size() + 1 < offset(host::kMaxConnections))
            connections.push_back(connect());
        EXPECT_EQ(connections.back()->ping().isOk(), fits) << "connections " << beyond;
        EXPECT_EQ(linesWith("E a connection beyond the limit of 64 is refused"), fits ? 0 : 1);
        connections.clear();
        EXPECT_TRUE(eventually([&] { return kit::Holdings::of().descriptors <= descriptors; }));
    }
    EXPECT_TRUE(remote->ping().isOk());
}

TEST(LimitsTest, AreWhatTheReadmeSays) {
    std::ifstream file(README);
    const std::string readme((std::istreambuf_iterator<char>(file)), {});
    const std::pair<std::string, size_t> limits[] = {
        {"bytes of a message", host::kMaxMessageBytes},
        {"descriptors of a message", host::kMaxMessageFds},
        {"memory of a buffer", host::kMaxBufferBytes >> 20},
        {"connections of a server", host::kMaxConnections},
        {"descriptor slots in reserve for connections", host::kConnectionFds},
        {"descriptor slots in reserve for calls", host::kReservedFds},
        {"descriptor slots for what arrives", host::kArrivalFds},
        {"requests on their way, of all clients together", host::kMaxRequestsOnTheWay},
        {"buffer ids that came with a handle since the last accepted `configure`",
         host::kMaxBufferIds},
        {"requests left over of earlier configurations", host::kMaxLeftOver},
        {"memory that came with those ids", host::kMaxBroughtBytes >> 20},
        {"threads that close what may wait for a client", host::kClosingThreads},
        {"descriptors that wait for those threads", host::kMaxWaitingToClose},
        {"wait for an answer", static_cast<size_t>(host::kCallPatience.count())}};
    for (const auto& [name, limit] : limits) {
        const size_t row = readme.find("| " + name + " | ");
        ASSERT_NE(row, std::string::npos) << name;
        std::string value = readme.substr(row + name.size() + 5, 12);
        value.erase(std::remove(value.begin(), value.end(), ','), value.end());
        EXPECT_EQ(std::stoul(value), limit) << name;
    }
}

TEST_F(BoundsTest, BoundsWhatClientsLeaveWithTheProvider) {
    WallClock clock;
    clock.stopAt(1);  // no request grows stale, however slow the machine is
    std::atomic<bool> asksInside{false};
    const sp<IFDSession> other = connect();
    callback->during = [&] {
        if (!asksInside.exchange(false)) return;
        expectStatus(other->processCaptureRequest(requestFor(1, 1, nullptr)), Status::OK);
    };
    setUpStream();
    // An empty handle costs its client no descriptor.
    const hidl_handle empty = handleOf({});
    const auto submit = [&](const sp<IFDSession>& from, uint64_t id, bool withHandle) {
        CaptureRequest request = requestFor(1, id, nullptr);
        if (withHandle) request.outputBuffers[0].buffer = empty;
        return from->processCaptureRequest(request);
    };
    const auto expectRefusal = [](const Return<Status>& answer, const char* sentence) {
        EXPECT_FALSE(answer.isOk());
        EXPECT_NE(answer.description().find(sentence), std::string::npos) << answer.description();
    };
    const char* const tooMany = "too many requests are on their way";
    session->sendCaptureResult(resultFor(requestFor(1, 1, nullptr)));  // to no request of anybody
    deliveries.waitFor(1);
    expectStatus(submit(remote, 1, true), Status::OK);
    for (size_t i = 1; i < host::kMaxRequestsOnTheWay; ++i)
        expectStatus(submit(i % 2 == 0 ? remote : other, 1, false), Status::OK);
    for (const sp<IFDSession>& each : {remote, other})
        expectRefusal(submit(each, 1, false), tooMany);
    // A result makes a place, whether the client takes it or not; one that goes nowhere does not.
    asksInside = true;  // from inside already
    serveOne();
    deliveries.waitFor(2);
    notify();  // when it comes back, that result was answered
    expectRefusal(submit(remote, 1, false), tooMany);
    callback->failing = true;
    serveOne();
    deliveries.waitFor(3);
    expectStatus(submit(other, 1, false), Status::OK);
    expectStatus(remote->setCallback(nullptr), Status::OK);
    serveOne();
    drivePass();
    drivePass();
    expectRefusal(submit(remote, 1, false), tooMany);
    // What the session refuses takes no place, and a refused configuration makes none.
    expectStatus(remote->configure(StreamConfiguration()), Status::ILLEGAL_ARGUMENT);
    expectRefusal(submit(remote, 1, false), tooMany);
    expectStatus(remote->configure(configurationOf(0)), Status::OK);
}

TEST_F(BoundsTest, CountsNothingOfWhatTheSessionRefuses) {
    setUpStream();
    for (size_t i = 0; i < 2 * host::kMaxRequestsOnTheWay; ++i)
        expectStatus(remote->processCaptureRequest(requestFor(1, 1, nullptr)),
                     Status::ILLEGAL_ARGUMENT);
    // Nor what such a request brings, nor the ids of one without one buffer.
    const hidl_handle empty = handleOf({});
    CaptureRequest two = requestFor(1, 1, nullptr);
    two.outputBuffers.resize(2);
    for (auto& output : two.outputBuffers)
        output.buffer = empty;
    for (uint64_t id = 0; id < 2 * host::kMaxBufferIds; ++id) {
        CaptureRequest astray = requestFor(1, id, nullptr, 5);
        astray.outputBuffers[0].buffer = empty;
        two.outputBuffers[1].bufferId = id;
        expectStatus(remote->processCaptureRequest(id % 2 == 0 ? astray : two),
                     Status::ILLEGAL_ARGUMENT);
    }
    CaptureRequest good = requestFor(1, 1, nullptr);
    good.outputBuffers[0].buffer = empty;
    expectStatus(remote->processCaptureRequest(good), Status::OK);
}

}  // namespace testing_support
