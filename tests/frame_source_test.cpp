// The test frame source: a thread in the provider's place. Its pauses are gated, so nothing waits.

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <numeric>

#include "FDSessionTest.h"
#include "host/threads.h"
#include "support/interposed.h"
#include "support/session_fixture.h"
#include "support/stress.h"
#include "temporary_folder.h"

namespace testing_support {

namespace {
constexpr const char* kInput = "fd_stream_subst_nv12.yuv";
}  // namespace

/** In a folder of its own, with the process's one session, which lives on from test to test. */
class FrameSourceTest : public testing::Test {
protected:
    static void SetUpTestSuite() { FDSession::getInstance(); }

    FrameSourceTest() {
        std::filesystem::current_path(folder.path());
        EXPECT_TRUE(client->setCallback(callback).isOk());
        clock.stopAt(1);  // no request grows old
    }
    ~FrameSourceTest() override {
        source->requestExit();
        gate.reset();
        source->join();
        source.clear();
        EXPECT_TRUE(log.waitUntilSaid("I ~FDSessionTest: \n"));
        EXPECT_TRUE(client->configure(configurationOf(0)).isOk());  // lets go of the buffers
        EXPECT_TRUE(client->setCallback(nullptr).isOk());
        std::filesystem::current_path("/");
    }

    static void writeFrames(const std::string& values) {
        std::ofstream file(kInput, std::ios::binary);
        for (const char value : values)
            file << std::string(kit::kFrameBytes, value);
    }
    void configure(int32_t id, uint32_t width = 1280, uint32_t height = 720) {
        EXPECT_TRUE(client->configure(configurationOf(id, width, height)).isOk());
    }
    void submit(uint32_t frame, int32_t streamId, const native_handle_t* handle) {
        CaptureRequest request = requestFor(frame, frame, handle, streamId);
        request.outputBuffers[0].status = BufferStatus::ERROR;  // the source says otherwise
        EXPECT_TRUE(client->processCaptureRequest(request).isOk());
    }
    /** Lets the source go through one pass and returns what it said meanwhile. */
    Lines pass() {
        log.clear();
        EXPECT_TRUE(gate->passOnce());
        return log.said(kSessionTag);
    }

    const kit::TemporaryFolder folder;
    WallClock clock;
    LogLines log;
    Deliveries deliveries;
    const sp<FDSession> session = FDSession::getInstance();
    const sp<IFDSession> client = session->getInterface();
    const sp<Callback> callback = new Callback(deliveries);
    const host::Buffer buffer = allocate(1280, 720);
    std::unique_ptr<PauseGate> gate = std::make_unique<PauseGate>();
    sp<FDSessionTest> source;
};

TEST_F(FrameSourceTest, LivesThroughItsFirstPassBeforeItsMakerHoldsIt) {
    auto* const made = new FDSessionTest;
    EXPECT_TRUE(gate->waitUntilPausing());
    EXPECT_EQ(made->getStrongCount(), 1);  // the thread's own, kept by the pause
    source = made;
    EXPECT_EQ(made->getStrongCount(), 2);
    ASSERT_TRUE(gate->passOnce());
}

TEST_F(FrameSourceTest, StaysWhenNoThreadCanBeMade) {
    host::failNextThreadStart();
    auto* const made = new FDSessionTest;
    EXPECT_EQ(made->getStrongCount(), 1);
    EXPECT_EQ(log.timesSaid("E FDSessionTest: no thread could be made, and the object stays \n"),
              1);
    source = made;
    made->decStrong(this);  // what the maker's reference cannot know of
}

TEST_F(FrameSourceTest, PlaysTheFileInALoopOneRequestAPass) {
    writeFrames("ab");
    source = new FDSessionTest;
    ASSERT_TRUE(gate->waitUntilPausing());
    log.clear();
    configure(4);
    for (uint32_t frame = 1; frame <= 3; ++frame)
        submit(frame, 4, buffer.handle());
    for (uint32_t frame = 1; frame <= 3; ++frame) {
        ASSERT_TRUE(gate->passOnce());
        const CaptureResult result = deliveries.waitFor(frame)[frame - 1].result;
        EXPECT_EQ(result.frameNumber, frame);
        EXPECT_EQ(result.fmqResultSize, 0U);
        EXPECT_EQ(result.result.size(), 0U);
        EXPECT_EQ(result.partialResult, 0U);
        EXPECT_EQ(result.inputBuffer.streamId, -1);
        EXPECT_EQ(result.outputBuffers[0].streamId, 4);
        EXPECT_EQ(result.outputBuffers[0].bufferId, frame);
        EXPECT_EQ(result.outputBuffers[0].status, BufferStatus::OK);
        EXPECT_EQ(buffer.bytes()[0], frame == 2 ? 'b' : 'a');
        EXPECT_EQ(buffer.bytes()[kit::kFrameBytes - 1], frame == 2 ? 'b' : 'a');
    }
    EXPECT_EQ(deliveries.count(), 3U);
    EXPECT_EQ(log.said("zoruutil").size(), 4U + 3 * 4U);  // the stream's dump, and each request's
}

TEST_F(FrameSourceTest, SendsNoBufferBeforeItIsFilled) {
    ASSERT_EQ(mkfifo(kInput, 0600), 0);
    source = new FDSessionTest;
    ASSERT_TRUE(gate->waitUntilPausing());
    configure(4);
    submit(1, 4, buffer.handle());
    const Meanwhile pass([this] { gate->passOnce(); }, Other::WAITS);
    {
        std::ofstream pipe(kInput, std::ios::binary);  // is open when the source waits for bytes
        session->sendCaptureResult(resultFor(requestFor(9, 9)));
        EXPECT_EQ(deliveries.waitFor(1)[0].result.frameNumber, 9U);
        pipe << std::string(kit::kFrameBytes, 'a');
    }
    EXPECT_EQ(deliveries.waitFor(2)[1].result.frameNumber, 1U);
    EXPECT_EQ(buffer.bytes()[kit::kFrameBytes - 1], 'a');
}

TEST_F(FrameSourceTest, KeepsItsWrapperUntilTheResultIsSent) {
    source = new FDSessionTest;
    ASSERT_TRUE(gate->waitUntilPausing());
    configure(4);
    submit(1, 4, buffer.handle());
    const FileWatch watch(buffer.handle()->data[0], Watching::CLOSES, [this] {
        EXPECT_TRUE(eventually([this] { return deliveries.count() > 0; }));
    });
    ASSERT_TRUE(gate->passOnce());
}

TEST_F(FrameSourceTest, SaysOnlyWhenTheStreamsIdChanges) {
    configure(0, 64, 64);
    source = new FDSessionTest;
    ASSERT_TRUE(gate->waitUntilPausing());
    EXPECT_EQ(log.timesSaid("I threadLoop: received first configration \n"), 1);
    EXPECT_EQ(log.said("zoruutil").size(), 4U);
    EXPECT_TRUE(pass().empty());
    configure(1, 64, 64);
    EXPECT_EQ(pass(), Lines{"I threadLoop: stream configuration change  \n"});
    EXPECT_EQ(log.said("zoruutil").size(), 4U);

    // The same id in another size: nothing is said, but the next wrapper takes the new size.
    configure(1, 128, 64);
    EXPECT_TRUE(pass().empty());
    const host::Buffer small = allocate(64, 64);
    submit(1, 1, small.handle());
    EXPECT_EQ(pass(), Lines{"E threadLoop: GraphicBuffer failed \n"});
    EXPECT_EQ(deliveries.waitFor(1)[0].result.outputBuffers[0].status, BufferStatus::OK);
}

TEST_F(FrameSourceTest, AnswersEveryRequestEvenWithoutAFrame) {
    source = new FDSessionTest;
    ASSERT_TRUE(gate->waitUntilPausing());
    configure(0);
    std::fill_n(buffer.bytes(), buffer.size(), uint8_t{7});
    submit(1, 0, buffer.handle());
    submit(2, 0, buffer.handle());
    ASSERT_TRUE(gate->passOnce());
    ASSERT_TRUE(gate->passOnce());
    deliveries.waitFor(2);
    EXPECT_EQ(log.timesSaid(std::string("E file ") + kInput +
                            " open failed, error - No such file or directory \n"),
              2);
    EXPECT_EQ(log.timesSaid("E Invalid params: buffer((nil)) \n"), 0);
    EXPECT_EQ(buffer.bytes()[0], 7);

    // A stream that needs more than a frame of the file: nothing is read past the frame memory.
    writeFrames("ab");
    const host::Buffer large = allocate(1280, 722);
    configure(0, 1280, 722);
    submit(3, 0, large.handle());
    EXPECT_EQ(pass(), Lines{"E threadLoop: a frame of the file is too small for width(1280) "
                            "height(722) \n"});
    EXPECT_EQ(deliveries.waitFor(3)[2].result.outputBuffers[0].status, BufferStatus::OK);
    EXPECT_EQ(large.bytes()[0], 0);

    // A handle that is no buffer any more when it is taken.
    native_handle_t* const empty = native_handle_create(0, 0);
    submit(4, 0, empty);
    native_handle_delete(empty);
    EXPECT_EQ(pass(), Lines{"E threadLoop: GraphicBuffer failed \n"});
    EXPECT_EQ(deliveries.waitFor(4)[3].result.outputBuffers[0].status, BufferStatus::OK);

    // The file's first frame went to the large buffer, and none to what is no buffer.
    configure(0);
    submit(5, 0, buffer.handle());
    EXPECT_TRUE(pass().empty());
    EXPECT_EQ(buffer.bytes()[0], 'b');
}

TEST_F(FrameSourceTest, SharesOneQueueWithProvidersAndTheSweep) {
    constexpr uint32_t kRequests = 60;
    writeFrames("a");
    configure(4, 64, 64);
    source = new FDSessionTest;
    gate->open();
    const host::Buffer small = allocate(64, 64);
    const auto provide = [&](size_t) {
        CaptureRequest request = {};
        if (session->getProcessCaptureRequest(request) != 0) return;
        session->sendCaptureResult(resultFor(request));
    };
    race({{"client", [&](size_t i) { submit(static_cast<uint32_t>(i), 4, small.handle()); }},
          {"clock", [&](size_t i) { clock.stopAt(1 + static_cast<int64_t>(i) * 500000); }},
          {"provider", provide},
          {"another provider", provide},
          {"another pass of the source", [&](size_t) { source->threadLoop(); }}},
         kRequests);
    std::vector<uint32_t> answered;
    for (const auto& delivery : deliveries.waitFor(kRequests))
        answered.push_back(delivery.result.frameNumber);
    std::sort(answered.begin(), answered.end());
    std::vector<uint32_t> submitted(kRequests);
    std::iota(submitted.begin(), submitted.end(), 0);
    EXPECT_EQ(answered, submitted);  // each one once
}

TEST_F(FrameSourceTest, EndsAfterThePassUnderWayWhenItIsLetGoOf) {
    auto* const made = new FDSessionTest;
    source = made;
    ASSERT_TRUE(gate->waitUntilPausing());
    source->requestExit();
    source.clear();  // the thread drops the last reference, and the object dies on it
    gate.reset();
    EXPECT_TRUE(log.waitUntilSaid("I ~FDSessionTest: \n"));
    EXPECT_EQ(log.lines().back().thread, "FDSessionTest");
    EXPECT_TRUE(log.said("Thread").empty());
    gate = std::make_unique<PauseGate>();
    source = new FDSessionTest;
}

}  // namespace testing_support
