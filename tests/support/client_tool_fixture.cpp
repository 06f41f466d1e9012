#include "support/client_tool_fixture.h"

#include <regex.h>

#include <fstream>
#include <iterator>
#include <utility>

#include "ZoruUtil.h"
#include "client_watch.h"
#include "support/run_shell.h"
#include "watched_session.h"

namespace testing_support {

bool has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

bool matches(const std::string& text, const std::string& expression) {
    regex_t compiled;
    if (regcomp(&compiled, expression.c_str(), REG_EXTENDED | REG_NOSUB) != 0) return false;
    const bool found = regexec(&compiled, text.c_str(), 0, nullptr, 0) == 0;
    regfree(&compiled);
    return found;
}

std::string contentOf(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

ClientToolFixture::ClientToolFixture() {
    listen();
    mProvider = std::thread([this] {
        while (!mEnd) {
            if (!provideOne()) usleep(100);
        }
    });
}

ClientToolFixture::~ClientToolFixture() {
    mEnd = true;
    mProvider.join();
    server.reset();
}

void ClientToolFixture::listen() {
    const auto watch = std::make_shared<tools::ClientWatch>([this](const std::string& line) {
        const std::lock_guard<std::mutex> lock(mMutex);
        mSaid += line + "\n";
    });
    host::ConnectionEvents events;
    events.came = [this, watch](pid_t process) {
        tool = process;
        watch->came(process);
    };
    events.went = [watch](pid_t process) { watch->went(process); };
    std::string problem;
    server = host::Server::listen(folder / "socket", new tools::WatchedSession(client, watch),
                                  problem, events);
    EXPECT_NE(server, nullptr) << problem;
}

bool ClientToolFixture::provideOne() {
    CaptureRequest request = {};
    if (session->getProcessCaptureRequest(request) != 0) return false;
    CaptureResult result = resultFor(request);
    result.outputBuffers[0].bufferId = 5;
    session->sendCaptureResult(result);
    CaptureResult answer = resultFor(request);
    answer.outputBuffers[0].status = fill(request);
    session->sendCaptureResult(answer);
    if (++served == mEventAfter) {
        const std::lock_guard<std::mutex> lock(mEventMutex);
        mEvent();
    }
    usleep(pauseUs);
    return true;
}

BufferStatus ClientToolFixture::fill(const CaptureRequest& request) {
    const std::lock_guard<std::mutex> lock(mEventMutex);
    if (mFilling) return mFilling(request);
    ZoruUtil::copyTo(mFrame.data(), session->getBufferForId(request.outputBuffers[0].bufferId));
    return BufferStatus::OK;
}

void ClientToolFixture::fillBy(Filling filling) {
    const std::lock_guard<std::mutex> lock(mEventMutex);
    mFilling = std::move(filling);
}

void ClientToolFixture::after(int frames, std::function<void()> what) {
    const std::lock_guard<std::mutex> lock(mEventMutex);
    mEvent = std::move(what);
    mEventAfter = served + frames;
}

int ClientToolFixture::run(const std::string& arguments, const std::string& before) const {
    const Output output = runShell("cd " + folder.path().string() + "; exec >out 2>err; " + before +
                                   " timeout 60 " + program + " --socket socket " + arguments);
    // What an event did is seen from here on.
    const std::lock_guard<std::mutex> lock(mEventMutex);
    return output.exitCode;
}

std::string ClientToolFixture::saidSoFar() {
    const std::lock_guard<std::mutex> lock(mMutex);
    return mSaid;
}

}  // namespace testing_support
