// The registry of the client's buffers, and the queue of its requests.

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <future>

#include "host/mapper.h"
#include "host/unique_fd.h"
#include "support/few_descriptors.h"
#include "support/interposed.h"
#include "support/leak_check.h"
#include "support/session_fixture.h"
#include "support/spy_mapper.h"

namespace testing_support {

using BuffersTest = SessionFixture;

namespace {

/** A handle of these descriptors, which stay the caller's. */
struct Fence {
    Fence(std::initializer_list<int> descriptors)
        : handle(native_handle_create(static_cast<int>(descriptors.size()), 0)) {
        std::copy(descriptors.begin(), descriptors.end(), &handle->data[0]);
    }
    ~Fence() { native_handle_delete(handle); }
    Fence(const Fence&) = delete;
    Fence& operator=(const Fence&) = delete;

    native_handle_t* const handle;
};

}  // namespace

TEST_F(BuffersTest, ImportsABufferOnceAndKnowsItByItsId) {
    configure(3);
    const std::string success =
        "handleCaptureRequest: import buffer success, streamId(3), bufferId(18446744073709551615) \n";
    const uint64_t id = UINT64_MAX;
    ASSERT_EQ(session->handleCaptureRequest(requestFor(1, id, buffer.handle(), 3)), 0);
    const sp<GraphicBuffer> wrapped = session->getBufferForId(id);
    ASSERT_NE(wrapped, nullptr);
    EXPECT_EQ(wrapped->initCheck(), 0);
    EXPECT_EQ(wrapped->width, 16);
    EXPECT_EQ(wrapped->height, 8);
    EXPECT_EQ(wrapped->stride, 16);
    EXPECT_EQ(wrapped->format, 35);
    EXPECT_EQ(wrapped->getUsage(), 0x100000033U);
    EXPECT_EQ(session->getBufferForId(4), nullptr);

    // Known from now on: no handle, or another one, and no call of the mapper.
    const host::Buffer other = allocate(16, 8);
    const int64_t calls = mapperCalls();
    ASSERT_EQ(session->handleCaptureRequest(requestFor(2, id, nullptr, 3)), 0);
    ASSERT_EQ(session->handleCaptureRequest(requestFor(3, id, other.handle(), 3)), 0);
    for (uint32_t frame = 1; frame <= 3; ++frame) {
        const CaptureRequest request = take();
        EXPECT_EQ(request.frameNumber, frame);
        EXPECT_TRUE(sameFile(request.outputBuffers[0].buffer, buffer.handle()));
    }
    EXPECT_EQ(mapperCalls(), calls);
    EXPECT_EQ(log.count(success), 1);
}

TEST_F(BuffersTest, RefusesWhatItCannotServeAndLeavesNothingBehind) {
    StreamBuffer known = {};
    known.bufferId = 9;
    const auto refused = [&](const CaptureRequest& request, const std::string& line) {
        log.clear();
        EXPECT_EQ(session->handleCaptureRequest(request), -1);
        EXPECT_EQ(log.texts(kSessionTag), std::vector<std::string>{line});
        EXPECT_FALSE(session->isCaptureRequestReady());
    };
    CaptureRequest two = requestFor(1, 1, buffer.handle());
    two.outputBuffers.resize(2);
    CaptureRequest none = requestFor(1, 1, buffer.handle());
    none.outputBuffers.resize(0);
    refused(two, "handleCaptureRequest: outputBuffersCount(2)  \n");  // the count comes first
    refused(requestFor(1, 1, buffer.handle()), "handleCaptureRequest: mConfigSet(0)  \n");
    configure();
    refused(none, "handleCaptureRequest: outputBuffersCount(0)  \n");
    refused(requestFor(1, 1, nullptr, 8),
            "handleCaptureRequest: buffer streamId(8), configuration streamId(0) \n");
    log.clear();
    session->freeBuffer(known);
    EXPECT_EQ(log.count("freeBuffer: CirculatingBuffers does not have streamId(0) entry \n"), 1);
    refused(requestFor(1, 9, nullptr), "handleCaptureRequest: buffer streamId(0), bufferId(9) \n");
    // The refused request left the stream's entry.
    session->freeBuffer(known);
    EXPECT_EQ(log.count("freeBuffer: CirculatingBuffers does not have bufferId(9) entry \n"), 1);

    native_handle_t* const noBuffer = native_handle_create(0, 1);
    refused(requestFor(1, 9, noBuffer),
            "handleCaptureRequest: import buffer failed, streamId(0), bufferId(9) \n");
    native_handle_delete(noBuffer);
    EXPECT_EQ(session->getBufferForId(9), nullptr);
}

TEST_F(BuffersTest, FreesOneBufferAndKeepsItsGraphicBufferUntilTheNextImport) {
    configure();
    ASSERT_EQ(submit(1, 1), 0);
    const sp<GraphicBuffer> first = session->getBufferForId(1);
    StreamBuffer freed = {};
    freed.bufferId = 1;
    const int64_t frees = host::mapperCounters().frees;
    session->freeBuffer(freed);
    session->freeBuffer(freed);
    EXPECT_EQ(host::mapperCounters().frees, frees + 1);
    EXPECT_EQ(log.count("freeBuffer: CirculatingBuffers does not have bufferId(1) entry \n"), 1);
    EXPECT_EQ(session->getBufferForId(1), first);
    EXPECT_EQ(session->handleCaptureRequest(requestFor(2, 1, nullptr)), -1);
    ASSERT_EQ(submit(3, 1), 0);
    EXPECT_NE(session->getBufferForId(1), first);

    // The provider's reference outlives a reconfiguration, and so does its access to the pixels.
    session->handleConfigure(configurationOf(0));
    EXPECT_EQ(session->getBufferForId(1), nullptr);
    android_ycbcr planes = {};
    EXPECT_EQ(first->lockYCbCr(3, &planes), 0);
    EXPECT_EQ(first->unlock(), 0);
}

TEST_F(BuffersTest, WrapsWhatHoldsNoFrameWithoutHarm) {
    configure();
    // An empty handle imports as null; a small buffer imports, but is no frame of this stream.
    native_handle_t* const empty = native_handle_create(0, 0);
    const host::Buffer small = allocate(8, 4);
    ASSERT_EQ(session->handleCaptureRequest(requestFor(1, 1, empty)), 0);
    ASSERT_EQ(session->handleCaptureRequest(requestFor(2, 2, small.handle())), 0);
    native_handle_delete(empty);
    EXPECT_EQ(take().outputBuffers[0].buffer.getNativeHandle(), nullptr);
    EXPECT_NE(take().outputBuffers[0].buffer.getNativeHandle(), nullptr);
    for (const uint64_t id : {1U, 2U}) {
        const sp<GraphicBuffer> wrapped = session->getBufferForId(id);
        ASSERT_NE(wrapped, nullptr);
        EXPECT_NE(wrapped->initCheck(), 0);
        EXPECT_EQ(wrapped->handle, nullptr);
    }
}

TEST_F(BuffersTest, QueuesInOrder) {
    configure();
    CaptureRequest kept = requestFor(77, 77, nullptr);
    EXPECT_EQ(session->getProcessCaptureRequest(kept), -1);
    EXPECT_EQ(kept.frameNumber, 77U);
    EXPECT_FALSE(session->isCaptureRequestReady());

    ASSERT_EQ(submit(9, 1), 0);
    ASSERT_EQ(submit(3, 1), 0);  // a buffer that is already queued, numbers in any order
    ASSERT_EQ(submit(3, 2), 0);
    EXPECT_TRUE(session->isCaptureRequestReady());
    EXPECT_EQ(session->getProcessCaptureRequest(kept), 0);
    EXPECT_EQ(kept.frameNumber, 9U);
    EXPECT_EQ(take().outputBuffers[0].bufferId, 1U);
    EXPECT_EQ(take().outputBuffers[0].bufferId, 2U);
    EXPECT_EQ(session->getProcessCaptureRequest(kept), -1);
}

TEST_F(BuffersTest, RefusesAndForgetsWhatItCannotKeepAndAcceptsTheRestWhole) {
    configure();
    const int open = kit::Holdings::of().descriptors;
    const Fence fence = {STDERR_FILENO};
    // A fence, the imported handle, its wrapper's and the queue's take one each.
    for (const bool isFenced : {false, true}) {
        CaptureRequest request = requestFor(1, 1, buffer.handle());
        if (isFenced) request.outputBuffers[0].acquireFence = fence.handle;
        for (rlim_t spare = 0; spare < 7; ++spare) {
            const bool isEnough = spare >= (isFenced ? 4 : 3);
            {
                const FewDescriptors few(spare);
                EXPECT_EQ(session->handleCaptureRequest(request), isEnough ? 0 : -1) << spare;
            }
            const sp<GraphicBuffer> wrapped = session->getBufferForId(1);
            EXPECT_EQ(wrapped != nullptr && wrapped->initCheck() == 0, isEnough) << spare;
            EXPECT_EQ(wrapped == nullptr, !isEnough) << spare;
            EXPECT_EQ(session->isCaptureRequestReady(), isEnough);
            EXPECT_EQ(session->handleCaptureRequest(requestFor(2, 1, nullptr)), isEnough ? 0 : -1);
            session->handleConfigure(configurationOf(0));
        }
    }
    // Handles that cannot be duplicated, whatever the number of free slots.
    const Fence broken = {-1};
    for (const int which : {0, 1, 2}) {
        CaptureRequest bad = requestFor(1, 1, buffer.handle());
        (which == 0   ? bad.inputBuffer.buffer
         : which == 1 ? bad.outputBuffers[0].acquireFence
                      : bad.outputBuffers[0].releaseFence) = broken.handle;
        EXPECT_EQ(session->handleCaptureRequest(bad), -1);
        EXPECT_EQ(session->getBufferForId(1), nullptr);
    }
    EXPECT_EQ(kit::Holdings::of().descriptors, open);
}

TEST_F(BuffersTest, TakesNoDescriptorForAHandleThatIsIgnored) {
    configure();
    ASSERT_EQ(submit(1, 1), 0);
    const Fence four = {-1, -1, -1, -1};
    {
        const FewDescriptors one(1);
        EXPECT_EQ(session->handleCaptureRequest(requestFor(2, 1, four.handle)), 0);
        log.clear();
        EXPECT_EQ(session->handleCaptureRequest(requestFor(3, 1, nullptr)), -1);
        EXPECT_EQ(log.texts(kSessionTag),
                  std::vector<std::string>{
                      "handleCaptureRequest: duplicating handles failed, streamId(0), "
                      "bufferId(1) \n"});
        EXPECT_EQ(take().frameNumber, 1U);  // moved out: needs no descriptor
    }
    // The buffer had been known before the refusal, and stays so.
    EXPECT_EQ(session->handleCaptureRequest(requestFor(4, 1, nullptr)), 0);
    EXPECT_TRUE(sameFile(take().outputBuffers[0].buffer, buffer.handle()));
}

TEST_F(BuffersTest, LetsGoOfWhatWasSentWithoutALock) {
    // Closing may take as long as the client likes; another thread goes on meanwhile.
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    const host::UniqueFd readEnd(ends[0]);
    const host::UniqueFd writeEnd(ends[1]);
    const Fence fence = {readEnd.get()};
    const Fence half = {readEnd.get(), -1};
    const auto fenced = [&](uint64_t bufferId, const native_handle_t* handle) {
        CaptureRequest request = requestFor(1, bufferId, handle);
        request.inputBuffer.acquireFence = fence.handle;
        request.outputBuffers[0].acquireFence = fence.handle;
        return request;
    };
    const auto expectClosed = [&](const char* what, int times, const std::function<void()>& act) {
        std::vector<std::future<void>> others;
        std::atomic<int> closes{0};
        const CloseWatch watch(readEnd.get(), [&] {
            others.push_back(std::async(std::launch::async, [this] {
                session->getTrackingMode();
                drivePass();
            }));
            EXPECT_EQ(others.back().wait_for(std::chrono::seconds(5)), std::future_status::ready)
                << what;
            ++closes;
        });
        act();
        EXPECT_TRUE(eventually([&] { return closes == times; })) << what << ": " << closes;
    };
    const auto submitFenced = [&] {
        EXPECT_EQ(session->handleCaptureRequest(fenced(1, buffer.handle())), 0);
    };
    WallClock clock;
    int64_t now = 1700000000000000;
    clock.stopAt(now);
    session->handleSetCallback(nullptr);  // what is to be delivered ends here
    configure();

    expectClosed("a refused request", 2,
                 [&] { EXPECT_EQ(session->handleCaptureRequest(fenced(9, nullptr)), -1); });
    expectClosed("one whose handles cannot all be duplicated", 3, [&] {
        CaptureRequest request = fenced(9, buffer.handle());
        request.outputBuffers[0].releaseFence = half.handle;
        EXPECT_EQ(session->handleCaptureRequest(request), -1);
    });
    expectClosed("a reconfiguration", 2, [&] {
        submitFenced();
        configure();
    });
    expectClosed("what the provider's record held", 2, [&] {
        submitFenced();
        ASSERT_EQ(submit(2, 1), 0);
        CaptureRequest request = take();
        EXPECT_EQ(session->getProcessCaptureRequest(request), 0);
        EXPECT_EQ(request.frameNumber, 2U);
    });
    expectClosed("a stale request", 2, [&] {
        submitFenced();
        clock.stopAt(now += 1000001);
        drivePass();
    });
    // Held in a delivery, the monitor finds a stale request in that pass and in the next.
    std::mutex gate;
    std::unique_lock<std::mutex> closed(gate);
    callback->during = [&gate] { const std::lock_guard<std::mutex> pass(gate); };
    session->handleSetCallback(callback);
    ASSERT_EQ(submit(3, 1), 0);
    serveOne();
    deliveries.waitFor(1);
    expectClosed("a result, in a pass that answers a stale request too", 1, [&] {
        ASSERT_EQ(submit(4, 1), 0);
        ASSERT_EQ(submit(5, 1), 0);
        clock.stopAt(now += 1000001);
        CaptureResult result = {};
        result.inputBuffer.releaseFence = fence.handle;
        session->sendCaptureResult(result);
        closed.unlock();
    });
    EXPECT_EQ(deliveries.waitFor(3)[2].result.frameNumber, 5U);
    stop();
}

TEST_F(BuffersTest, MarksABufferNotFilledThatLostItsHandles) {
    const Fence broken = {-1};
    CaptureResult result = resultFor(requestFor(1, 1, buffer.handle()));
    result.outputBuffers.resize(2);
    result.outputBuffers[1].bufferId = 2;
    result.outputBuffers[1].releaseFence = broken.handle;
    session->sendCaptureResult(result);
    const CaptureResult delivered = deliveries.waitFor(1)[0].result;
    EXPECT_EQ(delivered.outputBuffers[0].status, BufferStatus::OK);
    EXPECT_EQ(delivered.outputBuffers[1].status, BufferStatus::ERROR);
    EXPECT_EQ(log.count("sendCaptureResult: duplicating handles failed, streamId(0), "
                        "bufferId(2) \n"),
              1);
}

TEST_F(BuffersTest, FreesEverythingInAscendingOrderWhenReconfigured) {
    SpyMapper3& mapper = sessionMapper();
    configure();
    mapper.imported.clear();
    for (const uint64_t id : {30U, 10U, 20U})
        ASSERT_EQ(submit(1, id), 0);
    mapper.freed.clear();
    session->handleConfigure(configurationOf(0));
    ASSERT_EQ(mapper.imported.size(), 3U);
    const std::vector<void*> ascending = {mapper.imported[1], mapper.imported[2],
                                          mapper.imported[0]};
    EXPECT_EQ(mapper.freed, ascending);
}

}  // namespace testing_support
