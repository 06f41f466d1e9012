// What servers and served objects are told of their channels, and waiting for both ends.

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <future>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "host/channel.h"
#include "host/limits.h"
#include "host/remote.h"
#include "host/served_watch.h"
#include "support/transport_fixture.h"

namespace testing_support {

namespace {

constexpr auto kAtOnce = std::chrono::milliseconds(0);

struct Asked : public IFDSession {
    Return<Status> setCallback(const sp<IFDSessionCallback>& /*callback*/) override {
        caller = host::callingProcess();
        return Status::OK;
    }
    Return<Status> configure(const StreamConfiguration& /*configuration*/) override {
        return Status::OK;
    }
    Return<Status> processCaptureRequest(const CaptureRequest& /*request*/) override {
        const auto once = std::exchange(during, nullptr);
        return once ? once() : Status::OK;
    }
    pid_t caller = 0;
    std::function<Status()> during;
};

}  // namespace

class ServedTest : public TransportFixture {
protected:
    /** Hands the callback over to a provider without manners. */
    RawClient handOver() {
        host::Outgoing out;
        host::Writer writer(out);
        EXPECT_TRUE(host::writeInterface(writer, IFDSessionCallback::descriptor, callback));
        return RawClient(std::move(out.handedOver.at(0)));
    }
    static void notifyOver(RawClient& provider) {
        constexpr uint32_t kNotify = 2;
        provider.send(rawMessage({kCall, kNotify, 1, 0, 1, 0, 0, 0, 0}));
    }
};

TEST_F(ServedTest, WaitsUntilWhatCameIsAnsweredAndTellsHowAChannelEnds) {
    std::mutex gate;
    callback->during = [&gate] { const std::lock_guard<std::mutex> pass(gate); };
    std::promise<host::ServedEnd> ends[2];
    int ended = 0;
    std::optional<host::ServedWatch> watch;
    watch.emplace(callback, [&](host::ServedEnd how) { ends[ended++].set_value(how); });
    EXPECT_TRUE(watch->waitUntilAnswered(kAtOnce));
    const auto callOnce = [&](RawClient& provider, auto meanwhile) {
        const size_t before = deliveries.notified().size();
        std::unique_lock<std::mutex> closed(gate);
        notifyOver(provider);
        EXPECT_TRUE(eventually([&] { return deliveries.notified().size() > before; }));
        EXPECT_FALSE(watch->waitUntilAnswered(kAtOnce));
        meanwhile();
        closed.unlock();
        EXPECT_TRUE(watch->waitUntilAnswered(std::chrono::seconds(10)));
    };
    {
        RawClient provider = handOver();
        callOnce(provider, [] {});
        EXPECT_TRUE(provider.hasAnswer());
        EXPECT_EQ(provider.receivedKind(), kAnswer);
    }
    EXPECT_EQ(ends[0].get_future().get(), host::ServedEnd::LET_GO);
    std::optional<RawClient> provider(handOver());
    callOnce(*provider, [&] { provider.reset(); });
    EXPECT_EQ(ends[1].get_future().get(), host::ServedEnd::GIVEN_UP);

    provider.emplace(handOver());
    watch.reset();  // from now on nobody is told, which a third promise would not survive
    provider.reset();
    endCallback();
}

TEST_F(ServedTest, CountsARequestThatAConfigurationOvertakes) {
    for (const Status late : {Status::OK, Status::ILLEGAL_ARGUMENT}) {
        const sp<Asked> asked = new Asked;
        std::string problem;
        const auto second = host::Server::listen(folder / "second", asked, problem);
        const auto one = host::connect<IFDSession>(folder / "second", problem);
        const auto other = host::connect<IFDSession>(folder / "second", problem);
        ASSERT_NE(other, nullptr) << problem;
        const CaptureRequest request = requestFor(1, 1, nullptr);
        asked->during = [&] {
            expectStatus(other->configure(configurationOf(0)), Status::OK);
            expectStatus(other->processCaptureRequest(request), Status::OK);
            return late;
        };
        expectStatus(one->processCaptureRequest(request), late);
        size_t accepted = late == Status::OK ? 2 : 1;
        while (one->processCaptureRequest(request).isOk())
            ++accepted;
        EXPECT_EQ(accepted, host::kMaxRequestsOnTheWay);
    }
}

TEST_F(ServedTest, TellsOfConnectionsAndOfWhoCalls) {
    const sp<Asked> asked = new Asked;
    const std::string later = folder / "later";
    std::string problem;
    EXPECT_EQ(host::connect<IFDSession>(later, problem), nullptr);
    pid_t came = 0;
    std::promise<pid_t> went;
    std::unique_ptr<host::Server> second;
    const pid_t waiting = gettid();
    std::thread serving([&] {
        EXPECT_TRUE(eventually([&] { return isAsleep(waiting); }));
        std::string none;
        second = host::Server::listen(
            later, asked, none,
            {[&came](pid_t who) { came = who; }, [&went](pid_t who) { went.set_value(who); }});
    });
    auto connected = host::connectWithin<IFDSession>(later, std::chrono::seconds(10), problem);
    serving.join();
    ASSERT_NE(connected, nullptr) << problem;
    expectStatus(connected->setCallback(nullptr), Status::OK);
    EXPECT_EQ(came, getpid());
    EXPECT_EQ(asked->caller, getpid());
    EXPECT_EQ(host::callingProcess(), 0);
    connected.clear();
    EXPECT_EQ(went.get_future().get(), getpid());
}

TEST_F(ServedTest, TellsOfTheEndOfAConnectionThatWasGivenUpBeforeItsTurn) {
    const sp<Asked> asked = new Asked;
    const std::string another = folder / "another";
    std::promise<void> left;
    std::promise<pid_t> went;
    std::string problem;
    const auto second = host::Server::listen(another, asked, problem,
                                             {[&left](pid_t /*who*/) { left.get_future().wait(); },
                                              [&went](pid_t who) { went.set_value(who); }});
    {
        const RawClient early(another);
        EXPECT_TRUE(early.connect());
    }
    left.set_value();
    auto told = went.get_future();
    ASSERT_EQ(told.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(told.get(), getpid());
}

}  // namespace testing_support
