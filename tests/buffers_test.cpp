// The registry of the client's buffers, and the queue of its requests.

#include <vector>

#include "host/mapper.h"
#include "support/session_fixture.h"
#include "support/spy_mapper.h"

namespace testing_support {

using BuffersTest = SessionFixture;

TEST_F(BuffersTest, FreesOneBufferAndKeepsItsGraphicBufferUntilTheNextImport) {
    configure();
    ASSERT_EQ(submit(1, 1), 0);
    const sp<GraphicBuffer> first = session->getBufferForId(1);
    StreamBuffer freed = {};
    freed.bufferId = 1;
    const int64_t frees = host::mapperCounters().frees;
    log.clear();
    session->freeBuffer(freed);
    session->freeBuffer(freed);
    EXPECT_EQ(host::mapperCounters().frees, frees + 1);
    EXPECT_EQ(log.said(kSessionTag),
              Lines{"E freeBuffer: CirculatingBuffers does not have bufferId(1) entry \n"});
    EXPECT_EQ(session->getBufferForId(1), first);
    EXPECT_EQ(session->handleCaptureRequest(requestFor(2, 1)), -1);
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
    CaptureRequest kept = requestFor(77, 77);
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
