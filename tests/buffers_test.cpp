// The registry of the client's buffers, and the queue of its requests.

#include <fcntl.h>
#include <unistd.h>

#include "host/mapper.h"
#include "support/few_descriptors.h"
#include "support/leak_check.h"
#include "support/session_fixture.h"
#include "support/spy_mapper.h"

namespace testing_support {

using BuffersTest = SessionFixture;

namespace {

bool sameFile(const native_handle_t* a, const native_handle_t* b) {
    return a != nullptr && b != nullptr && a->numInts == b->numInts && a != b &&
           a->data[0] != b->data[0] &&
           std::equal(&a->data[1], &a->data[1] + a->numInts, &b->data[1]);
}

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

TEST_F(BuffersTest, RefusesARequestWhoseHandlesCannotBeDuplicated) {
    configure();
    const CaptureRequest request = requestFor(1, 1, buffer.handle());
    // Each copy and each import takes one. Whichever step fails, nothing is queued, nothing stays
    // open, and the id does not stay known.
    const int open = Holdings::now().descriptors;
    for (rlim_t spare = 0; spare < 5; ++spare) {
        {
            const FewDescriptors few(spare);
            const bool accepted = session->handleCaptureRequest(request) == 0;
            EXPECT_EQ(session->isCaptureRequestReady(), accepted);
            EXPECT_TRUE(spare >= 3 || !accepted);
            if (accepted) session->handleConfigure(configurationOf(0));
        }
        EXPECT_EQ(session->handleCaptureRequest(requestFor(2, 1, nullptr)), -1);
        EXPECT_EQ(session->getBufferForId(1), nullptr);
    }
    // Fences that cannot be duplicated, whatever the number of free slots.
    native_handle_t* const broken = native_handle_create(1, 0);
    broken->data[0] = -1;
    for (const int which : {0, 1, 2}) {
        CaptureRequest bad = requestFor(1, 1, buffer.handle());
        (which == 0   ? bad.inputBuffer.buffer
         : which == 1 ? bad.outputBuffers[0].acquireFence
                      : bad.outputBuffers[0].releaseFence) = broken;
        EXPECT_EQ(session->handleCaptureRequest(bad), -1);
        EXPECT_EQ(session->getBufferForId(1), nullptr);
    }
    native_handle_delete(broken);
    EXPECT_EQ(Holdings::now().descriptors, open);
    ASSERT_EQ(submit(3, 1), 0);
    const FewDescriptors none(0);
    log.clear();
    EXPECT_EQ(session->handleCaptureRequest(requestFor(4, 1, nullptr)), -1);
    EXPECT_EQ(log.count("handleCaptureRequest: duplicating handles failed, streamId(0), "
                        "bufferId(1) \n"),
              1);
    EXPECT_EQ(take().frameNumber, 3U);  // moved out: needs no descriptor
    EXPECT_FALSE(session->isCaptureRequestReady());
}

TEST_F(BuffersTest, MarksABufferNotFilledThatLostItsHandles) {
    native_handle_t* const broken = native_handle_create(1, 0);
    broken->data[0] = -1;
    CaptureResult result = resultFor(requestFor(1, 1, buffer.handle()));
    result.outputBuffers.resize(2);
    result.outputBuffers[1].bufferId = 2;
    result.outputBuffers[1].releaseFence = broken;
    session->sendCaptureResult(result);
    native_handle_delete(broken);
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
