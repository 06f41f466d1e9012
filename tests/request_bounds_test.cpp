// What clients may leave with the provider over many configurations, without a provider.

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <utility>

#include "host/limits.h"
#include "src/request_bounds.h"
#include "support/transport_fixture.h"

namespace testing_support {

using host::UniqueFd;
using Place = host::RequestBounds::Place;

namespace {

class RequestBoundsTest : public testing::Test {
protected:
    /** Why a request is not taken; empty when it is, and has a place from now on. */
    std::string take(const CaptureRequest& request) {
        Place place(bounds, request, now);
        if (place.problem() == nullptr) place.keep();
        return place.problem() == nullptr ? "" : place.problem();
    }
    /** As above, with a new buffer of so many bytes. */
    std::string bring(uint64_t id, uint64_t bytes) {
        const UniqueFd memory(memfd_create("fdstream-buffer", MFD_CLOEXEC));
        EXPECT_EQ(ftruncate(memory.get(), static_cast<off_t>(bytes)), 0);
        return take(withHandle(id, handleOf({memory.get()})));
    }
    static CaptureRequest withHandle(uint64_t id, const hidl_handle& handle) {
        CaptureRequest request = requestFor(1, id, nullptr);
        request.outputBuffers[0].buffer = handle;
        return request;
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

    const std::string tooManyLeft = "too many requests of earlier configurations are on their way";
    const CaptureRequest same = requestFor(1, 1, nullptr);
    host::RequestBounds bounds;
    host::RequestBounds::Clock::time_point now{std::chrono::hours(1)};
};

}  // namespace

TEST_F(RequestBoundsTest, LetsAFloodThatConfiguresGrowByWhatIsHandedOver) {
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(flood(), host::kMaxRequestsOnTheWay);
        bounds.restart(now);
    }
    EXPECT_EQ(take(same), tooManyLeft);
    // 4,096 may wait to be handed over. The results of a slow callback make the only places, and
    // neither one more configuration nor what the session gives up of the newest shows more gone.
    for (size_t i = 1; i < host::kMaxRequestsOnTheWay; ++i) {
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
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(flood(), host::kMaxRequestsOnTheWay);
        bounds.restart(now);
    }
    EXPECT_EQ(take(same), tooManyLeft);
}

TEST_F(RequestBoundsTest, NeverRefusesWhoConfiguresAnewAllTheTime) {
    // One of eight requests is answered, the others are dropped.
    constexpr struct {
        uint32_t frames;  // how much a configuration adds to the numbers
        uint32_t ids;
        uint32_t others;  // how many may be answered beside the first
    } cases[] = {{0, 0, 1}, {8, 0, 8}, {0, 8, 8}};
    for (const auto& each : cases) {
        for (uint32_t i = 0; i < 1000; ++i) {
            const auto numbered = [&](uint32_t j) {
                return requestFor(i * each.frames + j, i * each.ids + j);
            };
            for (uint32_t j = 0; j < 8; ++j)
                EXPECT_EQ(take(numbered(j)), "") << each.frames << ' ' << each.ids;
            handOver(numbered(i % each.others));
            bounds.restart(now);
        }
    }
}

TEST_F(RequestBoundsTest, TakesNoReusedNumberForASignThatOlderOnesAreGone) {
    const CaptureRequest reused = requestFor(1, 9);
    for (int i = 0; i < 4; ++i) {
        if (i < 2) static_cast<void>(take(reused));
        flood();
        bounds.restart(now);
    }
    // The session gives one of the second configuration up, before the first one's turn.
    handOver(reused, BufferStatus::ERROR);
    handOver(reused);
    EXPECT_EQ(take(same), tooManyLeft);
}

TEST_F(RequestBoundsTest, CountsIdsAndBytesOfWhatTheSessionKeeps) {
    // 64 of the largest common size, and then up to the limit to the byte.
    constexpr uint64_t kFrame = uint64_t{4096} * 2304 * 3 / 2;
    for (uint64_t id = 1; id <= 64; ++id)
        EXPECT_EQ(bring(id, kFrame), "");
    EXPECT_EQ(bring(64, host::kMaxBroughtBytes), "");  // the session keeps the first one
    const uint64_t left = host::kMaxBroughtBytes - 64 * kFrame;
    const std::string tooMuch = "too much memory came with buffers since the stream was configured";
    EXPECT_EQ(bring(65, left + 1), tooMuch);
    EXPECT_EQ(bring(65, INT64_MAX), tooMuch);
    {
        const host::Buffer memory = kit::allocate({4096, 2304});
        const Place refused(bounds, withHandle(66, memory.handle()), now);
        EXPECT_EQ(refused.problem(), nullptr);
        const Place first(bounds, withHandle(65, memory.handle()), now);
        Place second(bounds, withHandle(65, memory.handle()), now);
        second.keep();  // so that it stays when the first one is refused
    }
    EXPECT_EQ(bring(66, left - kFrame), "");
    EXPECT_EQ(bring(67, 1), tooMuch);
    // What is claimed counts, for memory may grow to it.
    const UniqueFd none(memfd_create("fdstream-buffer", MFD_CLOEXEC));
    native_handle_t* const claim = native_handle_clone(kit::allocate({64, 64}).handle());
    const UniqueFd own(std::exchange(claim->data[0], none.get()));
    EXPECT_EQ(take(withHandle(67, claim)), tooMuch);
    native_handle_delete(claim);

    bounds.restart(now);
    EXPECT_EQ(bring(100, host::kMaxBroughtBytes), "");
    const hidl_handle empty = handleOf({});
    const auto brings = [&](uint64_t id) { return take(withHandle(id, empty)); };
    {
        Place overtaken(bounds, withHandle(0, empty), now);
        bounds.restart(now);
        overtaken.keep();
    }
    for (uint64_t id = 1; id < host::kMaxBufferIds - 1; ++id) {
        EXPECT_EQ(brings(id), "");
        handOver(same);
    }
    constexpr uint64_t kLast = host::kMaxBufferIds;
    static_cast<void>(Place(bounds, withHandle(kLast + 7, empty), now));
    EXPECT_EQ(brings(kLast), "");
    EXPECT_EQ(brings(1), "");
    EXPECT_EQ(brings(kLast + 1), "too many buffer ids came since the stream was configured");
    EXPECT_EQ(take(requestFor(1, kLast + 1)), "");
    // The session keeps nothing of a request without exactly one buffer, and says why.
    CaptureRequest two = withHandle(kLast + 1, empty);
    two.outputBuffers = {two.outputBuffers[0], two.outputBuffers[0]};
    EXPECT_EQ(take(two), "");
}

}  // namespace testing_support
