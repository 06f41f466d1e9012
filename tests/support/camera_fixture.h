#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "source/camera.h"
#include "support/session_fixture.h"
#include "temporary_folder.h"
#include "view/announcements.h"

namespace testing_support {

/** A camera on the fixture's session, whose client has a buffer of 64 x 48 for each request. */
class CameraFixture : public SessionFixture {
protected:
    struct Answer {
        uint32_t number;
        bool isFilled;
        int luma;                       ///< of the first pixel
        std::vector<FDNotifyMsg> told;  ///< since the answer before
    };

    CameraFixture();
    ~CameraFixture() override;

    void configureAnew() { EXPECT_EQ(session->handleConfigure(configurationOf(0, 64, 48)), 0); }
    void make(const camera::SourceOptions& options);
    /** The sentence when it cannot be. */
    std::string start() const;
    std::string play(const camera::SourceOptions& options) {
        make(options);
        return start();
    }
    /** The file or FIFO in the fixture's folder, unless told otherwise without a pace. */
    camera::SourceOptions sourceOf(const std::string& name, double fps = 0) const;
    /** From now on its client is at the other end of a socket. */
    void connect(const std::string& socket);
    void ask();
    /** The n-th answer since the beginning, once it is there. */
    Answer answer(size_t index);
    Answer askFor() {
        ask();
        return answer(mAsked - 1);
    }
    /** From now on a result that comes before what is told of its frame is seen. */
    void lookForAnswersWhenTold() { mRecorder->patience = std::chrono::milliseconds(50); }
    std::string saidSoFar();

    const kit::TemporaryFolder folder;
    sp<IFDSession> face;  ///< the session, as the client has it
    std::unique_ptr<camera::Camera> source;

private:
    class Recorder : public IFDSessionCallback {
    public:
        Return<void> processCaptureResult(const hidl_vec<CaptureResult>& results) override {
            const std::lock_guard<std::mutex> lock(mutex);
            for (const CaptureResult& result : results) {
                const StreamBuffer& buffer = result.outputBuffers[0];
                const int luma = (*buffers)[buffer.bufferId - 1].bytes()[0];
                answers.push_back({result.frameNumber, buffer.status == BufferStatus::OK, luma,
                                   std::exchange(told, {})});
            }
            changed.notify_all();
            return {};
        }
        Return<void> notify(const hidl_vec<FDNotifyMsg>& msgs) override {
            std::unique_lock<std::mutex> lock(mutex);
            told.insert(told.end(), msgs.begin(), msgs.end());
            const auto isAnswered = [&] {
                return !answers.empty() && answers.back().number == msgs[0].frameNumber;
            };
            EXPECT_FALSE(changed.wait_for(lock, patience, isAnswered)) << "told after its result";
            return {};
        }

        std::chrono::milliseconds patience{0};
        std::mutex mutex;
        std::condition_variable changed;
        const std::vector<host::Buffer>* buffers = nullptr;
        std::vector<Answer> answers;
        std::vector<FDNotifyMsg> told;
    };

    std::vector<host::Buffer> mBuffers;
    const sp<Recorder> mRecorder;
    uint32_t mAsked = 0;
    std::mutex mMutex;
    std::string mSaid;  // guarded by mMutex
};

/** A FIFO that the test writes raw pictures of 64 x 48 to, each of one grey. */
class RawFifo {
public:
    explicit RawFifo(const std::string& path);
    ~RawFifo() { close(); }
    RawFifo(const RawFifo&) = delete;
    RawFifo& operator=(const RawFifo&) = delete;

    /** Waits for a reader. */
    void open();
    void write(int luma, size_t bytes = 64 * 48 * 3 / 2) const;
    void close() { mEnd.reset(); }

private:
    const std::string mPath;
    host::UniqueFd mEnd;
};

}  // namespace testing_support
