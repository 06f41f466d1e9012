#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "frame.h"
#include "host/channel.h"
#include "support/session_fixture.h"
#include "temporary_folder.h"

namespace testing_support {

bool has(const std::string& text, const std::string& part);

/** Whether an extended regular expression is found in the text. */
bool matches(const std::string& text, const std::string& expression);

std::string contentOf(const std::string& path);

/**
 * A client program, against a provider in this process that follows its clients as the provider
 * program does.
 */
class ClientToolFixture : public SessionFixture {
protected:
    ClientToolFixture();
    ~ClientToolFixture() override;

    /** The status with which a buffer comes out of this. */
    using Filling = std::function<BufferStatus(const CaptureRequest&)>;

    void listen();
    /** From now on buffers are filled so, on the provider's thread; by the fixture without it. */
    void fillBy(Filling filling);
    /** Runs this on the provider's thread when so many frames have been served, inside a run(). */
    void after(int frames, std::function<void()> what);
    /** The exit code of the program with these arguments, after these words of the shell. */
    int run(const std::string& arguments, const std::string& before = "") const;
    /** A file of the program's folder, where "out" and "err" are what it printed. */
    std::string read(const std::string& name) const { return contentOf(folder / name); }
    bool exists(const std::string& name) const {
        return access((folder / name).c_str(), F_OK) == 0;
    }
    /** What the watch over the clients has said. */
    std::string saidSoFar();

    const kit::TemporaryFolder folder;
    std::unique_ptr<host::Server> server;
    std::atomic<pid_t> tool{0};
    std::atomic<int> served{0};
    std::atomic<useconds_t> pauseUs{0};
    std::string program = CLIENT_TOOL;

private:
    /** Sends what an earlier client had asked for, and then what this one did. */
    bool provideOne();
    BufferStatus fill(const CaptureRequest& request);

    kit::Frame mFrame = kit::Frame(kit::kFrameBytes, 7);
    std::atomic<bool> mEnd{false};
    std::atomic<int> mEventAfter{-1};
    mutable std::mutex mEventMutex;
    std::function<void()> mEvent;  // guarded by mEventMutex
    Filling mFilling;              // guarded by mEventMutex
    std::mutex mMutex;
    std::string mSaid;  // guarded by mMutex
    std::thread mProvider;
};

}  // namespace testing_support
