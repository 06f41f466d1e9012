// Calls between processes. Client and provider share this one here, so that a test sees both ends,
// or answers the caller's end by hand.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <future>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "host/limits.h"
#include "host/remote.h"
#include "model/files.h"
#include "model/operands.h"
#include "raw_socket.h"
#include "support/transport_fixture.h"

namespace testing_support {

namespace {

using CallsTest = TransportFixture;
using Clock = std::chrono::steady_clock;

/** A channel whose calls a test answers by hand. */
struct HeldChannel {
    explicit HeldChannel(host::Peer served = host::Peer::PROVIDER)
        : caller(std::move(ends.first), served) {}
    /** Why the call fails; empty when it does not. */
    std::string call(uint32_t method = 1) {
        const auto status = caller.call(method, {}, [](host::Reader& /*reader*/) {});
        return status.isOk() ? "" : status.description();
    }

    std::pair<host::UniqueFd, host::UniqueFd> ends = kit::socketPair();
    const int socket = ends.first.get();
    host::CallChannel caller;
    RawClient peer{std::move(ends.second)};
};

}  // namespace

TEST_F(CallsTest, CarriesEveryFieldAndEveryDescriptor) {
    EXPECT_TRUE(remote->isRemote() && remote->ping().isOk());
    setUpStream();
    const StreamConfiguration stream = configurationOf(Args{0, 0, 0, 1, 1, 3, 66, 77, 88});
    expectStatus(remote->configure(stream), Status::OK);
    StreamConfiguration kept = {};
    ASSERT_EQ(session->getConfiguration(kept), 0);
    EXPECT_EQ(inWords(kept), inWords(stream));

    const Files files;
    const CaptureRequest request = requestOf({10, 4, 23, 1, 1, 4, 3, 7, 3, 1, 8}, files.sessions);
    expectStatus(remote->processCaptureRequest(request), Status::OK);
    EXPECT_EQ(inWords(files, take()), inWords(files, CaptureRequest(request)));
    const CaptureResult result = resultOf({3, 4, 23, 3, 1, 9, 7, 6, 8, 15, 8}, files.sessions);
    session->sendCaptureResult(result);
    EXPECT_EQ(inWords(files, deliveries.waitFor(1)[0].result),
              inWords(files, CaptureResult(result)));
    const FDNotifyMsg msg = {FDNotifyType::ERROR, 3, 1ULL << 60};
    notify(msg);
    ASSERT_EQ(deliveries.notified().size(), 1U);
    EXPECT_EQ(inWords(deliveries.notified()[0]), inWords(msg));
}

TEST(CallChannelTest, TakesTurnsAndGivesUpInTimeWhateverComesBetween) {
    // Takes as long as the bounded wait, which is what it is about: what comes between comes late
    // in it, so that a wait that began anew would end long after it.
    struct sigaction onSignal = {};
    onSignal.sa_handler = [](int) {};
    sigaction(SIGUSR1, &onSignal, nullptr);
    HeldChannel channel;
    HeldChannel interrupted;
    HeldChannel handedOver(host::Peer::CLIENT);
    const timeval longer = {2, 0};  // whoever handed it over can set it
    setsockopt(handedOver.socket, SOL_SOCKET, SO_RCVTIMEO, &longer, sizeof(longer));

    const auto start = Clock::now();
    std::deque<std::thread> calls;
    const auto begin = [&](HeldChannel& called, uint32_t method, const std::string& failure) {
        std::atomic<pid_t> caller{0};
        calls.emplace_back([&, method, failure] {
            caller = gettid();
            EXPECT_EQ(called.call(method), failure);
            EXPECT_GE(Clock::now() - start, host::kCallPatience * (failure.empty() ? 8 : 10) / 10);
            EXPECT_LT(Clock::now() - start, host::kCallPatience * 3 / 2);
        });
        EXPECT_TRUE(eventually([&] { return caller != 0 && isAsleep(caller); }));
    };
    const std::string late = "Status(EX_TRANSACTION_FAILED): 'TIMED_OUT: no answer within 1000 ms'";
    for (const uint32_t method : {1U, 2U, 3U})
        begin(channel, method, method < 3 ? "" : late);
    begin(handedOver, 1, late);
    begin(interrupted, 1, late);
    std::this_thread::sleep_until(start + host::kCallPatience * 8 / 10);
    for (const uint32_t method : {1U, 2U, 3U}) {
        EXPECT_EQ(channel.peer.receivedMethod(), method);
        if (method < 3) channel.peer.send(rawMessage({kAnswer, method, method, 0}));
    }
    pthread_kill(calls.back().native_handle(), SIGUSR1);
    for (std::thread& call : calls)
        call.join();
}

TEST(CallChannelTest, GoesOnAfterARefusalAndEndsForGoodWithAnAnswerThatIsNone) {
    std::vector<uint8_t> refusal = rawMessage({kRefused, 1, 1, 0});
    const std::string text = "no\n11-24 forged \x1b[31m" + std::string(5000, 'x');
    refusal.insert(refusal.end(), text.begin(), text.end());
    const std::string refused = "no?11-24 forged ?[31m" + std::string(99, 'x');
    const std::tuple<kit::RawMessage, std::vector<int>, std::string> answers[] = {
        {refusal, {}, refused},
        {rawMessage({kAnswer, 1, 9, 0}), {}, "the answer is to another call"},
        {rawMessage({kCall, 1, 1, 0}), {}, "the answer is to another call"},
        {{}, {}, "bytes that are no message"},
        {rawMessage({kAnswer, 1, 1, 0, 7}), {}, "the answer does not add up"},
        {rawMessage({kRefused, 1, 1, 1}), {STDERR_FILENO}, "the answer brings descriptors"}};
    for (const auto& [bytes, fds, said] : answers) {
        HeldChannel channel;
        channel.peer.send(bytes, fds);
        channel.peer.send(rawMessage({kAnswer, 1, 2, 0}));
        const std::string failed = "Status(EX_TRANSACTION_FAILED): '";
        EXPECT_EQ(channel.call(), failed + "FAILED_TRANSACTION: " + said + "'");
        const bool goesOn = said == refused;
        EXPECT_EQ(channel.call(), goesOn ? "" : failed + "DEAD_OBJECT: " + said + "'");
        EXPECT_EQ(channel.peer.receivedMethod(), 1U);
        EXPECT_NE(channel.peer.isClosed(), goesOn);
    }
}

}  // namespace testing_support
