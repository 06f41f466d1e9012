#include "support/session_fixture.h"

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <thread>

namespace testing_support {

using Clock = std::chrono::system_clock;
constexpr std::chrono::seconds kPatience(10);

bool eventually(const std::function<bool()>& condition) {
    const auto limit = Clock::now() + kPatience;
    while (!condition()) {
        if (Clock::now() > limit) return false;
        std::this_thread::yield();
    }
    return true;
}

bool isAsleep(pid_t thread) {
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string text;
    std::getline(file, text);
    return text.find(") S ") != std::string::npos;
}

std::string threadName() {
    char name[16] = "";
    pthread_getname_np(pthread_self(), name, sizeof(name));
    return name;
}

void Deliveries::add(const hidl_vec<CaptureResult>& results) {
    const std::lock_guard<std::mutex> lock(mMutex);
    mDeliveries.push_back({results[0]});
    mChanged.notify_all();
}

void Deliveries::add(const hidl_vec<FDNotifyMsg>& msgs) {
    const std::lock_guard<std::mutex> lock(mMutex);
    EXPECT_EQ(msgs.size(), 1U);
    mNotified.push_back(msgs[0]);
}

void Deliveries::callbackDied() {
    const std::lock_guard<std::mutex> lock(mMutex);
    mDeathThread = threadName();
    mChanged.notify_all();
}

std::vector<Deliveries::Delivery> Deliveries::waitFor(size_t count, size_t first) {
    std::unique_lock<std::mutex> lock(mMutex);
    EXPECT_TRUE(mChanged.wait_until(lock, Clock::now() + kPatience,
                                    [&] { return mDeliveries.size() >= count; }))
        << mDeliveries.size() << " of " << count << " results came";
    mDeliveries.resize(std::max(count, mDeliveries.size()));
    return {mDeliveries.begin() + static_cast<ptrdiff_t>(first), mDeliveries.end()};
}

std::string Deliveries::waitForDeath() {
    std::unique_lock<std::mutex> lock(mMutex);
    EXPECT_TRUE(
        mChanged.wait_until(lock, Clock::now() + kPatience, [&] { return !mDeathThread.empty(); }));
    return mDeathThread;
}

sp<GraphicBuffer> wrap(const host::Buffer& buffer, uint64_t usage) {
    return new GraphicBuffer(buffer.handle(), GraphicBuffer::CLONE_HANDLE, buffer.geometry().width,
                             buffer.geometry().height, 35, 1, usage, buffer.geometry().width);
}

StreamConfiguration configurationOf(int32_t id, uint32_t width, uint32_t height) {
    StreamConfiguration configuration =
        kit::configurationOf({static_cast<int>(width), static_cast<int>(height)}, id);
    Stream& stream = configuration.streams[0];
    stream.streamType = decltype(stream.streamType)::INPUT;
    stream.usage = 0x100000033;
    stream.dataSpace = 77;
    stream.rotation = decltype(stream.rotation)::ROTATION_270;
    configuration.operationMode = decltype(configuration.operationMode)::VENDOR_MODE_1;
    return configuration;
}

SessionFixture::SessionFixture(const sp<FDSessionImpl>& tested)
    : buffer(allocate(16, 8)),
      session(tested),
      client(session->getInterface()),
      callback(new Callback(deliveries)) {
    session->handleSetCallback(callback);
}

SessionFixture::~SessionFixture() {
    if (session == nullptr) return;
    session->handleConfigure(configurationOf(0));  // gives every imported buffer back
    stop();
}

void SessionFixture::stop() {
    session->requestExit();
    drivePass();  // ends the wait
    session->join();
}

std::unique_lock<std::mutex> SessionFixture::holdClient() {
    callback->during = [this] { const std::lock_guard<std::mutex> pass(clientGate); };
    return std::unique_lock<std::mutex>(clientGate);
}

}  // namespace testing_support
