// What may cross between processes, at its worst, and sockets that are no client's.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "host/limits.h"
#include "host/mapper.h"
#include "host/properties.h"
#include "raw_socket.h"
#include "support/interposed.h"
#include "support/lingering.h"
#include "support/transport_fixture.h"

namespace testing_support {

using host::UniqueFd;

class WeaponsTest : public TransportFixture {
protected:
    WeaponsTest() { host::setProperty("vendor.zoru.flipped", "true"); }
    ~WeaponsTest() override { host::clearProperty("vendor.zoru.flipped"); }

    /** So many bytes that cannot shrink. */
    static UniqueFd memory(size_t bytes) {
        UniqueFd fd(memfd_create("fdstream-buffer", MFD_CLOEXEC | MFD_ALLOW_SEALING));
        EXPECT_EQ(ftruncate(fd.get(), static_cast<off_t>(bytes)), 0);
        EXPECT_EQ(fcntl(fd.get(), F_ADD_SEALS, F_SEAL_SHRINK), 0);
        return fd;
    }
    /** What the client is answered that sends this memory as a buffer of width by height. */
    std::string submitMemory(uint64_t id, const UniqueFd& fd, int width = 16, int height = 8) {
        native_handle_t* const claim = native_handle_clone(buffer.handle());
        const int own = std::exchange(claim->data[0], fd.get());
        claim->data[2] = claim->data[4] = claim->data[5] = width;
        claim->data[3] = height;
        const Return<Status> answer = remote->processCaptureRequest(requestFor(1, id, claim));
        claim->data[0] = own;
        native_handle_close(claim);
        native_handle_delete(claim);
        if (!answer.isOk()) return answer.description();
        return static_cast<Status>(answer) == Status::OK ? "" : "refused";
    }
    /** Has a frame of the pending request turned and delivered. */
    void turnOne() {
        const size_t before = deliveries.count();
        serveOne();
        deliveries.waitFor(before + 1);
    }
    static uint8_t byteAt(const UniqueFd& fd, off_t at) {
        uint8_t byte = 0;
        EXPECT_EQ(pread(fd.get(), &byte, 1, at), 1);
        return byte;
    }
    static void write(const UniqueFd& fd, off_t at, uint8_t byte) {
        EXPECT_EQ(pwrite(fd.get(), &byte, 1, at), 1);
    }
};

TEST_F(WeaponsTest, TurnsNoMoreThanMemoryClaims) {
    setUpStream();
    constexpr off_t kClaimed = 16 * 12;
    const UniqueFd large = memory(1 << 20);
    write(large, 0, 1);
    write(large, kClaimed, 2);
    EXPECT_EQ(ftruncate(large.get(), 0), -1);
    EXPECT_EQ(submitMemory(1, large), "");
    turnOne();
    EXPECT_EQ(byteAt(large, 16 * 8 - 1), 1);
    EXPECT_EQ(byteAt(large, kClaimed), 2);
    // Sealed when it is known: the provider's mapping stays, and there is no other one.
    EXPECT_EQ(fcntl(large.get(), F_ADD_SEALS, F_SEAL_FUTURE_WRITE), 0);
    EXPECT_EQ(submitMemory(1, large), "");
    turnOne();
    EXPECT_EQ(byteAt(large, 0), 1);
    expectStatus(remote->configure(configurationOf(0)), Status::OK);
    EXPECT_EQ(submitMemory(2, large), "refused");
    EXPECT_EQ(submitMemory(3, memory(kClaimed)), "");
}

TEST_F(WeaponsTest, TakesTheSameMemoryInTwoBuffers) {
    if (std::string(SANITIZERS) == "thread") GTEST_SKIP() << "it is a race, the client's own";
    setUpStream();
    const UniqueFd shared = memory(16 * 12);
    const int64_t mappings = host::mapperCounters().mappings;
    EXPECT_EQ(submitMemory(1, shared), "");
    EXPECT_EQ(submitMemory(3, shared), "");
    for (int i = 0; i < 100; ++i) {
        session->sendCaptureResult(resultFor(requestFor(1, 1, nullptr)));
        android_ycbcr planes = {};
        const sp<GraphicBuffer> other = session->getBufferForId(3);
        ASSERT_EQ(other->lockYCbCr(0x33, &planes), 0);
        std::fill_n(static_cast<uint8_t*>(planes.y), 16 * 8, static_cast<uint8_t>(i));
        EXPECT_EQ(other->unlock(), 0);
    }
    deliveries.waitFor(100);
    EXPECT_EQ(byteAt(shared, 5), 99);  // all of it one value: turned or not
    EXPECT_EQ(host::mapperCounters().mappings, mappings + 1);
}

TEST_F(WeaponsTest, TurnsTheLargestBufferWhileTheOthersGoOn) {
    if (std::string(SANITIZERS) == "thread") GTEST_SKIP() << "its shadow of 256 MiB is too much";
    constexpr int kSide = 13376;
    constexpr off_t kLuma = off_t{kSide} * kSide;
    expectStatus(remote->setCallback(callback), Status::OK);
    expectStatus(remote->configure(configurationOf(0, kSide, kSide)), Status::OK);
    const UniqueFd sparse = memory(host::kMaxBufferBytes);
    write(sparse, 3, 7);
    EXPECT_EQ(submitMemory(1, sparse, kSide, kSide), "");
    serveOne();
    EXPECT_TRUE(remote->ping().isOk());
    // A busy machine may take more than the usual patience for so many bytes.
    for (int i = 0; i < 5 && !eventually([&] { return deliveries.count() == 1; }); ++i) {
    }
    EXPECT_EQ(byteAt(sparse, kLuma - 4), 7);
    EXPECT_EQ(byteAt(sparse, 3), 0);
}

TEST_F(WeaponsTest, WaitsForNoSocketThatIsNoClients) {
    RawClient own = connectRaw();
    RawClient listening(folder / "listening");
    ASSERT_TRUE(listening.listen());
    const UniqueFd unconnected = kit::rawSocket();
    for (const int socket : {own.fd(), listening.fd(), unconnected.get()}) {
        EXPECT_EQ(connectRaw().setCallback(socket), kAnswer);
        const auto start = std::chrono::steady_clock::now();
        notify();
        session->sendCaptureResult(resultFor(requestFor(1, 1, nullptr)));
        EXPECT_TRUE(eventually([&] { return linesWith("processCaptureResult transaction") > 0; }));
        EXPECT_LT(std::chrono::steady_clock::now() - start, 3 * host::kCallPatience);
        EXPECT_EQ(linesWith("E sendNotify: notify transaction failed"), 1);
        EXPECT_TRUE(remote->ping().isOk());
        log.clear();
    }
    // Whoever closes the last one of this does so for ten seconds.
    Lingering lingering;
    const auto start = std::chrono::steady_clock::now();
    RawClient raw = connectRaw();
    std::thread giving([&] { lingering.giveTo(raw, kit::rawCallback(), {}); });
    EXPECT_EQ(raw.receivedKind(), kRefused);
    EXPECT_TRUE(raw.isServed());
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    lingering.unread.reset();
    giving.join();
}

}  // namespace testing_support
