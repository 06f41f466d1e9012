// The test frame source, a thread in the provider's place. Where the thread is not the subject, the
// test makes its passes.

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>
#include <thread>

#include "FDSessionTest.h"
#include "host/threads.h"
#include "support/interposed.h"
#include "support/session_fixture.h"
#include "support/stress.h"
#include "temporary_folder.h"

namespace testing_support {

constexpr const char* kInput = "fd_stream_subst_nv12.yuv";

/** In a folder of its own, with the process's one session, which lives on from test to test. */
class FrameSourceTest : public SessionFixture {
protected:
    static void SetUpTestSuite() { FDSession::getInstance(); }

    FrameSourceTest()
        : SessionFixture(static_cast<FDSessionImpl*>(FDSession::getInstance().get())) {
        std::filesystem::current_path(folder.path());
        clock.stopAt(1);  // no request grows old
    }
    ~FrameSourceTest() override {
        source.clear();
        EXPECT_TRUE(log.waitUntilSaid("I ~FDSessionTest: \n"));
        configure();  // lets go of the buffers
        session->handleSetCallback(nullptr);
        session.clear();
        // The session's thread may have it still, and tells deliveries when it lets go of it.
        EXPECT_TRUE(eventually([this] { return callback->getStrongCount() == 1; }));
        std::filesystem::current_path("/");
    }

    /** Without a thread: the passes are the test's. */
    void start() {
        host::failNextThreadStart();
        source = new FDSessionTest;
        source->decStrong(this);  // what the maker's reference cannot know of
    }
    void submit(uint32_t frame, const native_handle_t* handle) {
        CaptureRequest request = requestFor(frame, frame, handle, 4);
        request.outputBuffers[0].status = BufferStatus::ERROR;  // the source says otherwise
        EXPECT_EQ(session->handleCaptureRequest(request), 0);
    }
    /** Goes through one pass and returns what it said meanwhile. */
    Lines pass() {
        log.clear();
        const InsteadOfPause nothing([] {});
        EXPECT_TRUE(source->threadLoop());
        return log.said(kSessionTag);
    }
    /** The same for a pass that answers this request. */
    Lines passWithAnswer(uint32_t frame) {
        Lines said = pass();
        const CaptureResult result = deliveries.waitFor(frame)[frame - 1];
        EXPECT_EQ(result.frameNumber, frame);
        EXPECT_EQ(result.outputBuffers[0].status, BufferStatus::OK);
        return said;
    }

    const kit::TemporaryFolder folder;
    WallClock clock;
    const host::Buffer target = allocate(kit::kClipSize);
    sp<FDSessionTest> source;
};

TEST_F(FrameSourceTest, LivesFromItsFirstPassToItsLastWhoeverHoldsIt) {
    Gate gate;
    const InsteadOfPause pause([&gate] { gate.hold(); });
    auto* const made = new FDSessionTest;
    EXPECT_TRUE(gate.waitUntilHeld(1));
    EXPECT_EQ(made->getStrongCount(), 1);  // the thread's own, kept by the pause
    source = made;
    gate.letGo(1);
    EXPECT_TRUE(gate.waitUntilHeld(2));
    source->requestExit();
    source.clear();  // the thread drops the last reference, and the object dies on it
    gate.open();
    EXPECT_TRUE(log.waitUntilSaid("I ~FDSessionTest: \n"));
    EXPECT_EQ(log.lines().back().thread, "FDSessionTest");
    log.clear();
    start();
    EXPECT_EQ(log.take(kSessionTag),
              Lines{"E FDSessionTest: no thread could be made, and the object stays \n"});
    EXPECT_EQ(source->getStrongCount(), 1);
}

TEST_F(FrameSourceTest, SendsNoBufferBeforeItIsFilledAndKeepsItsWrapperUntilThen) {
    ASSERT_EQ(mkfifo(kInput, 0600), 0);
    start();
    configure(4, kit::kClipSize);
    submit(1, target.handle());
    const FileWatch watch(target.handle()->data[0], Watching::CLOSES, [this] {
        EXPECT_TRUE(eventually([this] { return deliveries.count() > 1; }));
    });
    const Meanwhile passing([this] { pass(); }, Other::WAITS);
    {
        std::ofstream pipe(kInput, std::ios::binary);  // is open when the source waits for bytes
        session->sendCaptureResult(resultFor(requestFor(9, 9)));
        EXPECT_EQ(deliveries.waitFor(1)[0].frameNumber, 9U);
        pipe << std::string(kit::kFrameBytes, 'a');
    }
    EXPECT_EQ(deliveries.waitFor(2)[1].frameNumber, 1U);
    EXPECT_EQ(target.bytes()[kit::kFrameBytes - 1], 'a');
}

TEST_F(FrameSourceTest, AnswersOneRequestAPassWithTheNextFrameOrWithoutOne) {
    // It speaks of a stream only when the stream's id changes.
    configure(0, {64, 64});
    start();
    EXPECT_EQ(pass(), Lines{"I threadLoop: received first configration \n"});
    EXPECT_EQ(log.said("zoruutil").size(), 4U);
    EXPECT_TRUE(pass().empty());
    configure(4, kit::kClipSize);
    EXPECT_EQ(pass(), Lines{"I threadLoop: stream configuration change  \n"});
    EXPECT_EQ(log.said("zoruutil").size(), 4U);

    std::fill_n(target.bytes(), target.size(), uint8_t{7});
    submit(1, target.handle());
    passWithAnswer(1);
    EXPECT_EQ(log.timesSaid(std::string("E file ") + kInput +
                            " open failed, error - No such file or directory \n"),
              1);
    EXPECT_EQ(log.timesSaid("E Invalid params: buffer((nil)) \n"), 0);
    EXPECT_EQ(target.bytes()[0], 7);

    std::ofstream(kInput) << std::string(kit::kFrameBytes, 'a')
                          << std::string(kit::kFrameBytes, 'b');
    for (uint32_t frame = 2; frame <= 4; ++frame)
        submit(frame, target.handle());
    for (uint32_t frame = 2; frame <= 4; ++frame) {
        EXPECT_TRUE(passWithAnswer(frame).empty());
        EXPECT_EQ(log.said("zoruutil").size(), 4U);  // the request's dump
        EXPECT_EQ(target.bytes()[0], frame == 3 ? 'b' : 'a');
        EXPECT_EQ(target.bytes()[kit::kFrameBytes - 1], frame == 3 ? 'b' : 'a');
    }

    // A stream that needs more than a frame of the file: nothing is read past the frame memory.
    const host::Buffer large = allocate({1284, 720});
    configure(4, {1284, 720});
    submit(5, large.handle());
    EXPECT_EQ(passWithAnswer(5), Lines{"E threadLoop: a frame of the file is too small for "
                                       "width(1284) height(720) \n"});
    EXPECT_EQ(large.bytes()[0], 0);
    // That took a frame, and what cannot be wrapped takes none.
    submit(6, target.handle());
    EXPECT_EQ(passWithAnswer(6), Lines{"E threadLoop: GraphicBuffer failed \n"});
    configure(4, kit::kClipSize);
    submit(7, target.handle());
    EXPECT_TRUE(passWithAnswer(7).empty());
    EXPECT_EQ(target.bytes()[0], 'a');
    EXPECT_EQ(deliveries.count(), 7U);
}

TEST_F(FrameSourceTest, SharesOneQueueWithProvidersAndTheSweep) {
    constexpr uint32_t kRequests = 60;
    std::ofstream(kInput) << std::string(kit::kFrameBytes, 'a');
    configure(4, {64, 64});
    const InsteadOfPause pause([] { std::this_thread::yield(); });
    source = new FDSessionTest;
    const host::Buffer small = allocate({64, 64});
    const auto provide = [&](size_t) {
        CaptureRequest request = {};
        if (session->getProcessCaptureRequest(request) != 0) return;
        session->sendCaptureResult(resultFor(request));
    };
    race({{"client", [&](size_t i) { submit(static_cast<uint32_t>(i), small.handle()); }},
          {"clock", [&](size_t i) { clock.stopAt(1 + static_cast<int64_t>(i) * 500000); }},
          {"provider", provide},
          {"another provider", provide}},
         kRequests);
    std::set<uint32_t> answered;
    for (const CaptureResult& result : deliveries.waitFor(kRequests))
        answered.insert(result.frameNumber);
    EXPECT_EQ(answered.size(), kRequests);
    EXPECT_EQ(deliveries.count(), kRequests);  // each one once
}

}  // namespace testing_support
