// The limits, each one below, at, and one above.

#include <sys/eventfd.h>
#include <sys/mman.h>

#include "IFDControl.h"
#include "host/buffer.h"
#include "host/limits.h"
#include "host/unique_handle.h"
#include "src/request_bounds.h"
#include "support/few_descriptors.h"
#include "support/interposed.h"
#include "support/transport_fixture.h"

namespace testing_support {

using host::UniqueFd;

using BoundsTest = TransportFixture;
using Place = host::RequestBounds::Place;

/** What clients may leave over many configurations, without a provider. */
class RequestBoundsTest : public testing::Test {
protected:
    /** Why a request is not taken; empty when it is, and has a place from now on. */
    std::string take(const CaptureRequest& request) {
        Place place(bounds, request, now);
        place.keep();
        return place.problem() == nullptr ? "" : place.problem();
    }
    /** As above, with a new buffer of so many bytes. */
    std::string bring(uint64_t id, uint64_t bytes) {
        const UniqueFd memory(memfd_create("fdstream-buffer", MFD_CLOEXEC));
        EXPECT_EQ(ftruncate(memory.get(), static_cast<off_t>(bytes)), 0);
        return take(requestFor(1, id, handleOf({memory.get()}).getNativeHandle()));
    }
    size_t flood() {
        size_t taken = 0;
        while (taken < 2 * host::kMaxRequestsOnTheWay && take(same).empty())
            ++taken;
        return taken;
    }
    void handOver(const CaptureRequest& request, BufferStatus status = BufferStatus::OK) {
        CaptureResult result = resultFor(request);
        result.outputBuffers[0].status = status;
        bounds.handedOver({result}, now);
    }
    /** As many as may be left over, and no more. */
    void leaveOver() {
        for (int i = 0; i < 4; ++i) {
            const size_t reusing = i < 2 && take(reused).empty() ? 1 : 0;
            EXPECT_EQ(flood(), host::kMaxRequestsOnTheWay - reusing);
            bounds.restart(now);
        }
        EXPECT_EQ(take(same), tooManyLeft);
    }

    const std::string tooManyLeft = "too many requests of earlier configurations are on their way";
    const CaptureRequest same = requestFor(1, 1);
    const CaptureRequest reused = requestFor(1, 9);
    host::RequestBounds bounds;
    host::RequestBounds::Clock::time_point now{std::chrono::hours(1)};
};

TEST_F(BoundsTest, TakesWhatIsWithinTheLimitsAndNoMore) {
    server.reset();
    const FewDescriptors few(512);
    serve();
    setUpStream();
    const UniqueFd event(eventfd(0, EFD_CLOEXEC));
    const std::string overLimits = " the message is over the limits'";
    for (const size_t more : {0U, 1U, 2U}) {  // than one below a limit
        const bool fits = more < 2;
        // Bytes of a message: all that a request takes without settings, and settings.
        CaptureRequest request = requestFor(1, 1, nullptr);
        request.settings.resize(host::kMaxMessageBytes - (16 + 16 + 19 + 4 + 19) - 1 + more);
        EXPECT_EQ(refusalOf(request), fits ? "" : overLimits);
        // Descriptors of a message.
        request.settings.resize(0);
        request.outputBuffers[0].acquireFence =
            handleOf(std::vector<int>(host::kMaxMessageFds - 1 + more, event.get()));
        EXPECT_EQ(refusalOf(request), fits ? "" : overLimits);
        // Free slots when a descriptor arrives: it may get the last number before the reserve.
        EXPECT_TRUE(remote->ping().isOk());  // served after what came before was let go of
        const auto taken =
            takenUpTo(few.limit - host::kConnectionFds - host::kReservedFds + more - 2);
        EXPECT_EQ(refusalOf(requestFor(1, 2, buffer.handle())),
                  fits ? "" : " too few descriptor slots are free'");
        EXPECT_TRUE(remote->ping().isOk());  // calls without descriptors still pass
    }
}

TEST(LimitsTest, AreWhatTheReadmeSays) {
    using namespace host;  // NOLINT: the limits
    std::ifstream readme(README);
    std::string line;
    while (std::getline(readme, line) && line.rfind("| bytes of a message |", 0) != 0) {
    }
    std::vector<size_t> said;
    for (; !line.empty(); std::getline(readme, line)) {
        line.erase(std::remove(line.begin(), line.end(), ','), line.end());
        said.push_back(std::stoul(line.substr(line.find(" | ") + 3)));
    }
    EXPECT_EQ(said, (std::vector<size_t>{
                        kMaxMessageBytes, kMaxMessageFds, kMaxBufferBytes >> 20, kMaxConnections,
                        kMaxControlConnections, kConnectionFds, kReservedFds, kArrivalFds,
                        kMaxRequestsOnTheWay, kMaxLeftOver, kMaxBufferIds, kMaxBroughtBytes >> 20,
                        kClosingThreads, kMaxWaitingToClose, control::kMaxCrops,
                        control::kMaxWaitingEvents, static_cast<size_t>(kCallPatience.count())}));
}

TEST_F(BoundsTest, BoundsWhatClientsLeaveWithTheProvider) {
    WallClock clock;
    clock.stopAt(1);  // no request grows stale, however slow the machine is
    const CaptureRequest request = requestFor(1, 1, buffer.handle());
    std::string fromInside = "nobody asked";
    callback->during = [&] { fromInside = refusalOf(request); };
    setUpStream();
    EXPECT_EQ(refusalOf(requestFor(1, 1, nullptr, 5)), "");  // by the session, takes no place
    for (size_t i = 0; i < host::kMaxRequestsOnTheWay; ++i)
        EXPECT_EQ(refusalOf(request), "");
    const std::string tooMany = " too many requests are on their way'";
    EXPECT_EQ(refusalOf(request), tooMany);
    // A result makes a place, from inside already, and whether the client takes it or not.
    callback->failing = true;
    serveOne();
    EXPECT_TRUE(eventually([&] { return log.linesWith("transaction failed") == 1; }));
    EXPECT_EQ(fromInside, "");
    EXPECT_EQ(refusalOf(request), tooMany);
    // A configuration that is refused makes none.
    expectStatus(remote->configure(StreamConfiguration()), Status::ILLEGAL_ARGUMENT);
    EXPECT_EQ(refusalOf(request), tooMany);
    expectStatus(remote->configure(configurationOf(0)), Status::OK);
    EXPECT_EQ(refusalOf(request), "");
}

TEST_F(RequestBoundsTest, LetsAFloodThatConfiguresGrowByWhatIsHandedOver) {
    handOver(same);  // to no request of anybody
    leaveOver();
    // The session gives one of the second configuration up, before the first one's turn.
    handOver(reused, BufferStatus::ERROR);
    handOver(reused);
    // 4,096 may wait to be handed over. The results of a slow callback make the only places, and
    // neither one more configuration nor what the session gives up of the newest shows more gone.
    for (size_t i = 3; i < host::kMaxRequestsOnTheWay; ++i) {
        now += host::kCallPatience;
        handOver(same, i % 2 == 0 ? BufferStatus::OK : BufferStatus::ERROR);
        bounds.restart(now);
        EXPECT_EQ(take(same), tooManyLeft) << i;
    }
    handOver(same);
    EXPECT_EQ(flood(), host::kMaxRequestsOnTheWay);
    bounds.restart(now);
    now += host::kLeftOverPatience - std::chrono::nanoseconds(1);
    bounds.restart(now);  // which keeps nobody waiting
    EXPECT_EQ(take(same), tooManyLeft);
    now += std::chrono::nanoseconds(1);
    leaveOver();
    bounds.handedOver({CaptureResult()}, now);  // nobody's
    EXPECT_EQ(take(same), tooManyLeft);
}

TEST_F(RequestBoundsTest, NeverRefusesWhoConfiguresAnewAllTheTime) {
    // One of eight requests is answered, the others are dropped. Each configuration begins its
    // frame numbers again, or its ids.
    for (const uint32_t frames : {0U, 8U}) {
        for (uint32_t i = 0; i < 1000; ++i) {
            for (uint32_t j = 0; j < 8; ++j)
                EXPECT_EQ(take(requestFor(i * frames + j, i * (8 - frames) + j)), "") << frames;
            handOver(requestFor(i * frames + i % 8, i * (8 - frames) + i % 8));
            bounds.restart(now);
        }
    }
}

TEST_F(RequestBoundsTest, CountsIdsAndBytesOfWhatTheSessionKeeps) {
    // What is claimed counts, for memory may grow to it.
    const host::Buffer memory = kit::allocate({4096, 2304});
    const host::UniqueHandle claim(native_handle_clone(memory.handle()));
    dup2(UniqueFd(memfd_create("fdstream-buffer", MFD_CLOEXEC)).get(), claim->data[0]);
    const uint64_t left = host::kMaxBroughtBytes - memory.size() - 1;
    {
        const Place refused(bounds, requestFor(1, 2, claim.get()), now);
        const Place first(bounds, requestFor(1, 1, claim.get()), now);
        Place second(bounds, requestFor(1, 1, claim.get()), now);
        second.keep();  // so that it stays when the first one is refused
    }
    for (const uint64_t bytes : {memory.size() + 1, size_t{1}})
        EXPECT_EQ(bring(1, bytes), "");  // counts once, with the largest size
    for (const auto& [id, more] :
         {std::pair(2U, left + 1), {2U, INT64_MAX}, {1U, host::kMaxBroughtBytes + 1}})
        EXPECT_EQ(bring(id, more),
                  "too much memory came with buffers since the stream was configured");
    EXPECT_EQ(bring(2, left), "");
    bounds.restart(now);
    EXPECT_EQ(bring(100, host::kMaxBroughtBytes), "");

    constexpr uint64_t kFirst = 1000;  // of ids that have not come yet
    constexpr uint64_t kLast = kFirst + host::kMaxBufferIds - 1;
    const hidl_handle empty = handleOf({});
    const auto empties = [&](uint64_t id) { return requestFor(1, id, empty.getNativeHandle()); };
    {
        Place overtaken(bounds, empties(kFirst), now);
        const Place refused(bounds, empties(kLast), now);
        bounds.restart(now);
        overtaken.keep();
        EXPECT_EQ(take(empties(kLast)), "");
    }
    for (uint64_t id = kFirst + 1; id < kLast; ++id) {
        EXPECT_EQ(take(empties(id)), "");
        handOver(empties(id));
    }
    EXPECT_EQ(take(empties(kLast + 1)), "too many buffer ids came since the stream was configured");
    EXPECT_EQ(take(empties(kFirst)), "");
    EXPECT_EQ(take(requestFor(1, kLast + 1)), "");
    // The session keeps nothing of a request without exactly one buffer, and says why.
    CaptureRequest two = empties(kLast + 1);
    two.outputBuffers = {two.outputBuffers[0], two.outputBuffers[0]};
    EXPECT_EQ(take(two), "");
    // On their way are these three, the last one, and the one that a configuration overtook.
    EXPECT_EQ(flood(), host::kMaxRequestsOnTheWay - 5);
}

}  // namespace testing_support
