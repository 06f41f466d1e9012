// Calls between processes. Client and provider share this one here, so that a test sees both ends,
// or answers the caller's end by hand.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "host/limits.h"
#include "host/remote.h"
#include "model/operands.h"
#include "model/words.h"
#include "raw_socket.h"
#include "src/served_channel.h"
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
    EXPECT_TRUE(remote->isRemote());
    EXPECT_TRUE(remote->ping().isOk());
    setUpStream();
    const StreamConfiguration stream = configurationOf(Args{0, 0, 0, 1, 1, 3, 66, 77, 88});
    expectStatus(remote->configure(stream), Status::OK);
    StreamConfiguration kept = {};
    ASSERT_EQ(session->getConfiguration(kept), 0);
    const FileSet files;
    EXPECT_EQ(inWords(files, kept), inWords(files, stream));

    const CaptureRequest request =
        recordOf<CaptureRequest>({10, 4, 23, 1, 1, 4, 3, 7, 3, 1, 8}, files);
    expectStatus(remote->processCaptureRequest(request), Status::OK);
    EXPECT_EQ(inWords(files, take()), inWords(files, CaptureRequest(request)));
    const CaptureResult result =
        recordOf<CaptureResult>({3, 4, 23, 3, 1, 9, 7, 6, 8, 15, 8}, files);
    session->sendCaptureResult(result);
    EXPECT_EQ(inWords(files, deliveries.waitFor(1)[0].result),
              inWords(files, CaptureResult(result)));
    const FDNotifyMsg msg = {FDNotifyType::ERROR, 3, 1ULL << 60};
    notify(msg);
    ASSERT_EQ(deliveries.notified().size(), 1U);
    EXPECT_EQ(inWords(files, deliveries.notified()[0]), inWords(files, msg));
}

TEST(CallChannelTest, GivesUpInTimeWhateverComesBetween) {
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
    const auto expectNoAnswer = [start](HeldChannel& called) {
        EXPECT_EQ(called.call(2),
                  "Status(EX_TRANSACTION_FAILED): 'TIMED_OUT: no answer within 1000 ms'");
        EXPECT_GE(Clock::now() - start, host::kCallPatience);
        EXPECT_LT(Clock::now() - start, host::kCallPatience * 3 / 2);
    };
    const auto first = std::async(std::launch::async, [&] { EXPECT_EQ(channel.call(), ""); });
    EXPECT_EQ(channel.peer.receivedMethod(), 1U);
    const auto second = std::async(std::launch::async, [&] { expectNoAnswer(channel); });
    const auto unlucky = std::async(std::launch::async, [&] { expectNoAnswer(handedOver); });
    std::thread signalled([&] { expectNoAnswer(interrupted); });
    std::this_thread::sleep_until(start + host::kCallPatience * 8 / 10);
    channel.peer.send(rawMessage({kAnswer, 1, 1, 0}));  // now it is the second one's turn
    pthread_kill(signalled.native_handle(), SIGUSR1);
    signalled.join();
}

TEST(ServedChannelTest, GivesUpAPeerThatReadsNoAnswer) {
    // Takes as long as the bounded wait, which is what it is about.
    const LogLines log;
    auto [socket, other] = kit::socketPair();
    const RawClient deaf(std::move(other));
    const auto flood = std::async(std::launch::async, [&] {
        deaf.sendUnread(rawMessage({kCall, 0, 1, 0}));
    });
    const auto stub = host::detail::findInterface(IFDSessionCallback::descriptor)->stub(nullptr);
    EXPECT_EQ(host::detail::serveChannel(socket.get(), *stub, host::Peer::CLIENT),
              host::ServedEnd::GIVEN_UP);
    EXPECT_EQ(log.said(), Lines{"E a channel ends: the peer does not read its answers"});
}

TEST(CallChannelTest, SaysWhatTheRefusalSaysAndGoesOn) {
    HeldChannel channel;
    std::vector<uint8_t> refusal = rawMessage({kRefused, 1, 1, 0});
    const std::string text = "no\n11-24 forged \x1b[31m" + std::string(5000, 'x');
    refusal.insert(refusal.end(), text.begin(), text.end());
    channel.peer.send(refusal);
    EXPECT_EQ(channel.call(),
              "Status(EX_TRANSACTION_FAILED): 'FAILED_TRANSACTION: no?11-24 forged ?[31m" +
                  std::string(99, 'x') + "'");
    channel.peer.send(rawMessage({kAnswer, 1, 2, 0}));
    EXPECT_EQ(channel.call(), "");
}

TEST(CallChannelTest, TakesTurnsInTheOrderOfTheCalls) {
    HeldChannel channel;
    std::vector<std::future<std::string>> calls;
    for (const uint32_t method : {1U, 2U, 3U}) {
        std::atomic<pid_t> caller{0};
        calls.push_back(std::async(std::launch::async, [&, method] {
            caller = gettid();
            return channel.call(method);
        }));
        EXPECT_TRUE(eventually([&] { return caller != 0 && isAsleep(caller); }));
    }
    for (const uint32_t method : {1U, 2U, 3U}) {
        EXPECT_EQ(channel.peer.receivedMethod(), method);
        channel.peer.send(rawMessage({kAnswer, method, method, 0}));
        EXPECT_EQ(calls[method - 1].get(), "");
    }
}

TEST(CallChannelTest, EndsForGoodWithAnAnswerThatIsNone) {
    const std::tuple<kit::RawMessage, std::vector<int>, std::string> bad[] = {
        {rawMessage({kAnswer, 1, 9, 0}), {}, "the answer is to another call"},
        {rawMessage({kCall, 1, 1, 0}), {}, "the answer is to another call"},
        {rawMessage({kAnswer, 1}), {}, "bytes that are no message"},
        {{}, {}, "bytes that are no message"},
        {rawMessage({kAnswer, 1, 1, 0, 7}), {}, "the answer does not add up"},
        {rawMessage({kAnswer, 1, 1, 1}), {STDERR_FILENO}, "the answer brings descriptors"},
        {rawMessage({kRefused, 1, 1, 1}), {STDERR_FILENO}, "the answer brings descriptors"}};
    for (const auto& [bytes, fds, said] : bad) {
        HeldChannel channel;
        channel.peer.send(bytes, fds);
        for (const std::string status : {"FAILED_TRANSACTION: ", "DEAD_OBJECT: "})
            EXPECT_EQ(channel.call(), "Status(EX_TRANSACTION_FAILED): '" + status + said + "'");
        EXPECT_FALSE(channel.peer.isClosed());  // the first call
        EXPECT_TRUE(channel.peer.isClosed());   // and then the end
    }
}

}  // namespace testing_support
