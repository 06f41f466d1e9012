// The client's face: what its three calls answer, say and do, in one process and over a socket.

#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>

#include "host/channel.h"
#include "support/session_fixture.h"
#include "temporary_folder.h"

namespace testing_support {

using android::hardware::camera::common::V1_0::Status;

enum class Road { DIRECT, SOCKET };

class ClientFaceTest : public SessionFixture, public testing::WithParamInterface<Road> {
protected:
    ClientFaceTest() {
        if (GetParam() == Road::DIRECT) return;
        std::string problem;
        server = host::Server::listen(folder / "socket", client, problem);
        client = host::connect<IFDSession>(folder / "socket", problem);
        if (client == nullptr) throw std::runtime_error(problem);
    }
    ~ClientFaceTest() override {
        client.clear();
        if (session != nullptr) session->handleSetCallback(nullptr);
        callback.clear();
        deliveries.waitForDeath();
    }

    Status request(uint32_t frameNumber, uint64_t bufferId, const native_handle_t* handle,
                   int32_t streamId = 0) {
        return client->processCaptureRequest(requestFor(frameNumber, bufferId, handle, streamId));
    }
    void expectRefused(const CaptureRequest& request, const std::string& line) {
        log.clear();
        EXPECT_EQ(Status(client->processCaptureRequest(request)), Status::ILLEGAL_ARGUMENT);
        EXPECT_EQ(log.said(kSessionTag), Lines{line});
        EXPECT_FALSE(session->isCaptureRequestReady());
    }

    const kit::TemporaryFolder folder;
    std::unique_ptr<host::Server> server;
};

INSTANTIATE_TEST_SUITE_P(Roads, ClientFaceTest, testing::Values(Road::DIRECT, Road::SOCKET),
                         [](const auto& road) {
                             return road.param == Road::DIRECT ? "Direct" : "Socket";
                         });

TEST_P(ClientFaceTest, SetsAndTakesBackItsCallback) {
    FDNotifyMsg msg = {FDNotifyType::PEOPLE_COUNT, 7, 0x1122334455667788};
    log.clear();
    EXPECT_EQ(Status(client->setCallback(callback)), Status::OK);
    session->sendNotify(msg);
    ASSERT_EQ(deliveries.notified().size(), 1U);
    EXPECT_EQ(memcmp(&deliveries.notified()[0], &msg, sizeof(msg)), 0);
    EXPECT_EQ(Status(client->setCallback(nullptr)), Status::OK);
    session->sendNotify(msg);
    EXPECT_EQ(deliveries.notified().size(), 1U);
    EXPECT_EQ(log.said(kSessionTag), (Lines{"I handleSetCallback: \n", "I handleSetCallback: \n",
                                            "E sendNotify: notify failed: invalid session \n"}));
}

TEST_P(ClientFaceTest, ConfiguresExactlyOneStream) {
    StreamConfiguration kept = kit::configurationOf({2, 2}, 77);
    EXPECT_EQ(session->getConfiguration(kept), -1);
    EXPECT_EQ(kept.streams[0].id, 77);

    log.clear();
    StreamConfiguration streams = {};
    EXPECT_EQ(Status(client->configure(streams)), Status::ILLEGAL_ARGUMENT);
    streams.streams.resize(2);
    EXPECT_EQ(Status(client->configure(streams)), Status::ILLEGAL_ARGUMENT);
    EXPECT_EQ(session->getConfiguration(kept), -1);

    StreamConfiguration sent = configurationOf(5, 640, 480);
    sent.streams[0].dataSpace = 0x101;
    EXPECT_EQ(Status(client->configure(sent)), Status::OK);
    EXPECT_EQ(session->getConfiguration(kept), 0);
    ASSERT_EQ(kept.streams.size(), 1U);
    // NOLINTNEXTLINE(bugprone-suspicious-memory-comparison): a copy takes the padding along
    EXPECT_EQ(memcmp(&kept.streams[0], &sent.streams[0], sizeof(Stream)), 0);
    EXPECT_EQ(kept.operationMode, sent.operationMode);

    const std::string entry = "I handleConfigure: \n";
    const std::string count = " handleConfigure: streamsCount(";
    EXPECT_EQ(log.said(kSessionTag),
              (Lines{entry, "I" + count + "0)  \n", "E" + count + "0)  \n",  //
                     entry, "I" + count + "2)  \n", "E" + count + "2)  \n",  //
                     entry, "I" + count + "1)  \n"}));
}

TEST_P(ClientFaceTest, RefusesARequestThatCannotBeServedAndLeavesNothingBehind) {
    CaptureRequest none = requestFor(1, 1, buffer.handle());
    none.outputBuffers.resize(0);
    CaptureRequest two = requestFor(1, 1, buffer.handle());
    two.outputBuffers.resize(2);
    expectRefused(two, "E handleCaptureRequest: outputBuffersCount(2)  \n");  // the count first
    expectRefused(requestFor(1, 1, buffer.handle()), "E handleCaptureRequest: mConfigSet(0)  \n");
    ASSERT_EQ(Status(client->configure(configurationOf(0))), Status::OK);
    expectRefused(none, "E handleCaptureRequest: outputBuffersCount(0)  \n");
    expectRefused(requestFor(1, 1, nullptr, 8),
                  "E handleCaptureRequest: buffer streamId(8), configuration streamId(0) \n");
    StreamBuffer unknown = {};
    unknown.bufferId = 9;
    log.clear();
    session->freeBuffer(unknown);
    EXPECT_EQ(log.said(kSessionTag),
              Lines{"E freeBuffer: CirculatingBuffers does not have streamId(0) entry \n"});
    expectRefused(requestFor(1, 9), "E handleCaptureRequest: buffer streamId(0), bufferId(9) \n");
    // The refused request left the stream's entry.
    log.clear();
    session->freeBuffer(unknown);
    EXPECT_EQ(log.said(kSessionTag),
              Lines{"E freeBuffer: CirculatingBuffers does not have bufferId(9) entry \n"});

    native_handle_t* const noBuffer = native_handle_create(0, 1);
    expectRefused(requestFor(1, 9, noBuffer),
                  "E handleCaptureRequest: import buffer failed, streamId(0), bufferId(9) \n");
    native_handle_delete(noBuffer);
    EXPECT_EQ(session->getBufferForId(9), nullptr);
}

TEST_P(ClientFaceTest, ImportsABufferOnceAndKnowsItByItsId) {
    ASSERT_EQ(Status(client->configure(configurationOf(3))), Status::OK);
    const uint64_t id = UINT64_MAX;
    log.clear();
    CaptureRequest first = requestFor(1, id, buffer.handle(), 3);
    first.fmqSettingsSize = 5;
    first.settings = {1, 2, 3};
    first.outputBuffers[0].status = BufferStatus::ERROR;
    ASSERT_EQ(Status(client->processCaptureRequest(first)), Status::OK);
    EXPECT_EQ(log.take(kSessionTag),
              Lines{"I handleCaptureRequest: import buffer success, streamId(3), "
                    "bufferId(18446744073709551615) \n"});
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
    ASSERT_EQ(request(2, id, nullptr, 3), Status::OK);
    ASSERT_EQ(request(3, id, other.handle(), 3), Status::OK);
    const CaptureRequest taken[] = {take(), take(), take()};
    for (uint32_t i = 0; i < 3; ++i) {
        EXPECT_EQ(taken[i].frameNumber, i + 1);
        EXPECT_TRUE(sameFile(taken[i].outputBuffers[0].buffer, buffer.handle()));
    }
    // All else is as the client sent it.
    EXPECT_EQ(taken[0].fmqSettingsSize, 5U);
    EXPECT_TRUE(taken[0].settings == first.settings);
    EXPECT_EQ(taken[0].outputBuffers[0].status, BufferStatus::ERROR);
    EXPECT_EQ(mapperCalls(), calls);
    EXPECT_TRUE(log.said(kSessionTag).empty());
}

TEST_P(ClientFaceTest, AnswersInternalErrorOnceTheSessionIsGone) {
    callback.clear();
    session.clear();
    deliveries.waitForDeath();
    log.clear();
    EXPECT_EQ(Status(client->setCallback(nullptr)), Status::INTERNAL_ERROR);
    EXPECT_EQ(Status(client->configure(configurationOf(0))), Status::INTERNAL_ERROR);
    EXPECT_EQ(request(1, 1, nullptr), Status::INTERNAL_ERROR);
    EXPECT_EQ(log.said(kSessionTag),
              (Lines{"E setCallback: FDSessionImpl is gone", "E configure: FDSessionImpl is gone",
                     "E processCaptureRequest: FDSessionImpl is gone"}));
}

}  // namespace testing_support
