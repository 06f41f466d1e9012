// The caller's end of a channel, and a peer that a test answers by hand.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "host/limits.h"
#include "host/remote.h"
#include "raw_client.h"
#include "raw_socket.h"
#include "support/session_fixture.h"

namespace testing_support {

using kit::kAnswer;
using kit::kCall;
using kit::kRefused;
using kit::RawClient;
using kit::rawMessage;

class CallChannelTest : public testing::Test {
protected:
    CallChannelTest() { connect(); }
    void connect() {
        auto [one, other] = kit::socketPair();
        channel = std::make_unique<host::CallChannel>(std::move(one));
        peer = std::make_unique<RawClient>(std::move(other));
    }
    /** Why the call fails; empty when it does not. */
    std::string call(uint32_t method = 1) {
        const auto status = channel->call(method, {}, [](host::Reader& /*reader*/) {});
        return status.isOk() ? "" : status.description();
    }

    std::unique_ptr<host::CallChannel> channel;
    std::unique_ptr<RawClient> peer;
};

TEST_F(CallChannelTest, WaitsForASlowAnswer) {
    std::thread slow([this] {
        EXPECT_FALSE(peer->isClosed());
        // Well within the bounded wait, and long enough to show that it is waited for.
        std::this_thread::sleep_for(host::kCallPatience * 3 / 10);
        peer->send(rawMessage({kAnswer, 1, 1, 0}));
    });
    EXPECT_EQ(call(), "");
    slow.join();
}

TEST_F(CallChannelTest, GivesUpInTimeWhateverComesBetween) {
    // Takes as long as the bounded wait, which is what it is about: what comes between comes late
    // in it, so that a wait that began anew would end long after it.
    using Clock = std::chrono::steady_clock;
    struct sigaction onSignal = {};
    onSignal.sa_handler = [](int) {};
    sigaction(SIGUSR1, &onSignal, nullptr);
    auto one = kit::socketPair();  // the second ends are silent
    auto another = kit::socketPair();
    host::CallChannel interrupted(std::move(one.first));
    const int socket = another.first.get();
    host::CallChannel handedOver(std::move(another.first), host::Peer::CLIENT);
    const timeval longer = {2, 0};  // whoever handed it over can set it
    setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &longer, sizeof(longer));

    const auto start = Clock::now();
    const auto expectNoAnswer = [start](host::CallChannel& called) {
        const auto status = called.call(2, {}, [](host::Reader& /*reader*/) {});
        EXPECT_EQ(status.description(),
                  "Status(EX_TRANSACTION_FAILED): 'TIMED_OUT: no answer within 1000 ms'");
        EXPECT_GE(Clock::now() - start, host::kCallPatience);
        EXPECT_LT(Clock::now() - start, host::kCallPatience * 3 / 2);
    };
    std::thread first([this] { call(); });
    EXPECT_EQ(peer->receivedMethod(), 1U);
    std::thread second([&] { expectNoAnswer(*channel); });
    std::thread unlucky([&] { expectNoAnswer(handedOver); });
    std::thread signalled([&] { expectNoAnswer(interrupted); });
    std::this_thread::sleep_until(start + host::kCallPatience * 8 / 10);
    peer->send(rawMessage({kAnswer, 1, 1, 0}));  // now it is the second one's turn
    pthread_kill(signalled.native_handle(), SIGUSR1);
    for (std::thread* const thread : {&first, &second, &unlucky, &signalled})
        thread->join();
}

TEST_F(CallChannelTest, SaysWhatTheRefusalSaysAndGoesOn) {
    std::vector<uint8_t> refusal = rawMessage({kRefused, 1, 1, 0});
    const std::string text = "no\n11-24 forged \x1b[31m" + std::string(5000, 'x');
    refusal.insert(refusal.end(), text.begin(), text.end());
    peer->send(refusal);
    const std::string description = call();
    EXPECT_NE(description.find("no?11-24 forged ?[31m"), std::string::npos) << description;
    EXPECT_LT(description.size(), 200U);
    peer->send(rawMessage({kAnswer, 1, 2, 0}));
    EXPECT_EQ(call(), "");
}

TEST_F(CallChannelTest, TakesTurnsInTheOrderOfTheCalls) {
    std::atomic<pid_t> second{0};
    std::thread one([this] {
        call(1);
        call(3);  // not before the one that waits already
    });
    EXPECT_EQ(peer->receivedMethod(), 1U);
    std::thread other([&] {
        second = gettid();
        call(2);
    });
    EXPECT_TRUE(eventually([&] { return second != 0 && isAsleep(second); }));
    for (uint32_t serial = 1; serial <= 3; ++serial) {
        if (serial > 1) {
            EXPECT_EQ(peer->receivedMethod(), serial);
        }
        peer->send(rawMessage({kAnswer, 1, serial, 0}));
    }
    one.join();
    other.join();
}

TEST_F(CallChannelTest, EndsForGoodWithAnAnswerThatIsNone) {
    struct Bad {
        std::vector<uint8_t> bytes;
        std::vector<int> fds;
    };
    for (const Bad& bad : {Bad{rawMessage({kAnswer, 1, 9, 0}), {}},  // to another call
                           Bad{rawMessage({kCall, 1, 1, 0}), {}}, Bad{rawMessage({kAnswer, 1}), {}},
                           Bad{rawMessage({kAnswer, 1, 1, 0, 7}), {}},  // bytes left over
                           Bad{rawMessage({kAnswer, 1, 1, 1}), {STDERR_FILENO}},
                           Bad{rawMessage({kRefused, 1, 1, 1}), {STDERR_FILENO}}, Bad()}) {
        connect();
        peer->send(bad.bytes, bad.fds);
        const std::string first = call();
        EXPECT_NE(first, "");
        EXPECT_FALSE(peer->isClosed());  // the call
        EXPECT_TRUE(peer->isClosed());   // and then the end
        const std::string later = call();
        EXPECT_NE(later.find("DEAD_OBJECT"), std::string::npos);
        EXPECT_NE(later.find(first.substr(first.rfind(": "))), std::string::npos) << later;
    }
}

}  // namespace testing_support
