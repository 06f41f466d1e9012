#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "ZoruUtil.h"
#include "frame.h"
#include "host/channel.h"
#include "support/run_shell.h"
#include "support/session_fixture.h"
#include "temporary_folder.h"

namespace testing_support {

/** A client program, against a provider in this process. */
class ClientToolFixture : public SessionFixture {
protected:
    ClientToolFixture() { listen(); }
    /** Before what a test's filling uses goes. */
    void TearDown() override {
        mEnd = true;
        mProvider.get();
        server.reset();
    }

    void listen() {
        server = host::Server::listen(folder / "socket", client, problem,
                                      {[this](pid_t process) { tool = process; }, {}});
    }
    /** From now on buffers are filled so, on the provider's thread, and come back with its status.
     */
    void fillBy(std::function<BufferStatus(const CaptureRequest&)> filling) {
        const std::lock_guard<std::mutex> lock(mMutex);
        mFill = std::move(filling);
    }
    /** Runs this on the provider's thread when so many frames have been filled, inside a run(). */
    void after(int frames, const std::function<void()>& what) {
        const std::lock_guard<std::mutex> lock(mMutex);
        mFill = [filling = mFill, left = frames, what](const CaptureRequest& request) mutable {
            if (left-- == 0) what();
            return filling(request);
        };
    }
    /** The exit code of the program with these arguments. */
    int run(const std::string& arguments) const {
        const Output output =
            runShell("cd " + folder.path().string() + "; exec >out 2>err; timeout 60 " + program +
                     " --socket socket " + arguments);
        // What an event did is seen from here on.
        const std::lock_guard<std::mutex> lock(mMutex);
        return output.exitCode;
    }
    /** A file of the program's folder, where "out" and "err" are what it printed. */
    std::string read(const std::string& name) const { return contentOf(folder / name); }
    bool exists(const std::string& name) const { return std::ifstream(folder / name).good(); }
    BufferStatus put(kit::Frame& frame, const CaptureRequest& request) {
        // Null when the next client has configured since this one asked.
        const auto target = session->getBufferForId(request.outputBuffers[0].bufferId);
        const bool isPut = target != nullptr && ZoruUtil::copyTo(frame.data(), target) == 0;
        return isPut ? BufferStatus::OK : BufferStatus::ERROR;
    }
    /** With bytes of which the first is the frame's number. */
    BufferStatus fill(const CaptureRequest& request) {
        mFrame[0] = static_cast<uint8_t>(request.frameNumber);
        return put(mFrame, request);
    }

    const kit::TemporaryFolder folder;
    std::string problem;  ///< of who cannot listen
    std::unique_ptr<host::Server> server;
    std::atomic<pid_t> tool{0};
    std::atomic<useconds_t> pauseUs{100};
    std::string program = CLIENT_TOOL;

private:
    kit::Frame mFrame = kit::patternOf(kit::kClipSize);
    mutable std::mutex mMutex;
    // Guarded by mMutex.
    std::function<BufferStatus(const CaptureRequest&)> mFill =
        [this](const CaptureRequest& request) { return fill(request); };
    std::atomic<bool> mEnd{false};
    std::future<void> mProvider = std::async(std::launch::async, [this] {
        for (; !mEnd; usleep(pauseUs)) {
            CaptureRequest request = {};
            if (session->getProcessCaptureRequest(request) != 0) continue;
            const std::lock_guard<std::mutex> lock(mMutex);
            CaptureResult result = resultFor(request);
            result.outputBuffers[0].status = mFill(request);
            session->sendCaptureResult(result);
        }
    });
};

}  // namespace testing_support
