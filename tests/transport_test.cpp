// Interfaces between processes. Client and provider share this one here, so that a test sees both
// ends; who is hostile speaks to the socket itself.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <deque>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <system_error>
#include <thread>

#include "holdings.h"
#include "host/channel.h"
#include "host/remote.h"
#include "host/threads.h"
#include "support/few_descriptors.h"
#include "support/interposed.h"
#include "support/raw_client.h"
#include "support/run_shell.h"
#include "support/transport_fixture.h"

namespace testing_support {

using android::hardware::hidl_death_recipient;
using android::hidl::base::V1_0::IBase;
using host::UniqueFd;

namespace {

using TransportTest = TransportFixture;

struct Recipient : public hidl_death_recipient {
    void serviceDied(uint64_t cookie, const wp<IBase>& who) override {
        died.set_value({cookie, who.promote() != nullptr});
    }
    std::promise<std::pair<uint64_t, bool>> died;
};

}  // namespace

TEST_F(TransportTest, CarriesEveryFieldAndEveryDescriptor) {
    EXPECT_TRUE(remote->isRemote());
    EXPECT_TRUE(remote->ping().isOk());
    setUpStream();
    StreamConfiguration kept = {};
    const StreamConfiguration sent = configurationOf(0);
    ASSERT_EQ(session->getConfiguration(kept), 0);
    // NOLINTNEXTLINE(bugprone-suspicious-memory-comparison): both value-initialised, padding too
    EXPECT_EQ(memcmp(&kept.streams[0], &sent.streams[0], sizeof(Stream)), 0);
    EXPECT_EQ(kept.operationMode, sent.operationMode);

    native_handle_t* const fence = native_handle_create(2, 3);
    fence->data[0] = eventfd(0, EFD_CLOEXEC);
    fence->data[1] = eventfd(0, EFD_CLOEXEC);
    fence->data[4] = 77;
    CaptureRequest request = requestFor(9, UINT64_MAX, buffer.handle());
    request.fmqSettingsSize = 5;
    request.settings = {1, 2, 3};
    request.inputBuffer.bufferId = 8;
    request.outputBuffers[0].acquireFence.setTo(fence, true);
    expectStatus(remote->processCaptureRequest(request), Status::OK);
    const CaptureRequest taken = take();
    EXPECT_EQ(taken.frameNumber, 9U);
    EXPECT_EQ(taken.fmqSettingsSize, 5U);
    EXPECT_TRUE(taken.settings == request.settings);
    EXPECT_EQ(taken.inputBuffer.streamId, -1);
    EXPECT_EQ(taken.inputBuffer.bufferId, 8U);
    ASSERT_NE(taken.outputBuffers[0].acquireFence.getNativeHandle(), nullptr);
    EXPECT_EQ(taken.outputBuffers[0].acquireFence->numFds, 2);
    EXPECT_EQ(taken.outputBuffers[0].acquireFence->data[4], 77);

    CaptureResult result = resultFor(taken);
    result.fmqResultSize = 6;
    result.result = {4, 5};
    result.partialResult = 1;
    session->sendCaptureResult(result);
    const CaptureResult came = deliveries.waitFor(1)[0].result;
    EXPECT_EQ(came.frameNumber, 9U);
    EXPECT_EQ(came.fmqResultSize, 6U);
    EXPECT_TRUE(came.result == result.result);
    EXPECT_EQ(came.partialResult, 1U);
    EXPECT_EQ(came.outputBuffers[0].bufferId, UINT64_MAX);
    EXPECT_EQ(came.outputBuffers[0].acquireFence->numFds, 2);
    FDNotifyMsg msg = {FDNotifyType::ERROR, 3, 1ULL << 60};
    session->sendNotify(msg);
    ASSERT_EQ(deliveries.notified().size(), 1U);
    EXPECT_EQ(memcmp(&deliveries.notified()[0], &msg, sizeof(msg)), 0);
}

TEST_F(TransportTest, AnswersARefusalAndGoesOn) {
    setUpStream();
    native_handle_t* const noBuffer = native_handle_create(1, 1);
    noBuffer->data[0] = memfd_create("no buffer", MFD_CLOEXEC);
    hidl_handle owned;
    owned.setTo(noBuffer, true);
    expectStatus(remote->processCaptureRequest(requestFor(1, 1, noBuffer)),
                 Status::ILLEGAL_ARGUMENT);
    expectStatus(remote->processCaptureRequest(requestFor(1, 1, nullptr)),
                 Status::ILLEGAL_ARGUMENT);
    expectStatus(remote->configure(StreamConfiguration()), Status::ILLEGAL_ARGUMENT);
    expectStatus(remote->processCaptureRequest(requestFor(1, 1, buffer.handle())), Status::OK);
    expectStatus(remote->setCallback(nullptr), Status::OK);
}

TEST_F(TransportTest, LetsTheClientCallFromInsideItsCallbackFromBothThreads) {
    WallClock clock;
    clock.stopAt(1);  // no request grows stale, however slow the machine is
    // The next request goes out from inside; the provider's thread notifies at the same time.
    constexpr uint32_t kFrames = 200;
    std::atomic<uint32_t> next{2};
    callback->during = [&] {
        // No lock is held: another thread gets through meanwhile.
        std::thread([&] { session->getTrackingMode(); }).join();
        const uint32_t frame = next++;
        if (frame <= kFrames) {
            expectStatus(remote->processCaptureRequest(requestFor(frame, 1, nullptr)), Status::OK);
        }
    };
    setUpStream();
    expectStatus(remote->processCaptureRequest(requestFor(1, 1, buffer.handle())), Status::OK);
    uint32_t served = 0;
    FDNotifyMsg msg = {};
    EXPECT_TRUE(eventually([&] {
        msg.value = served;
        session->sendNotify(msg);
        CaptureRequest request = {};
        if (session->getProcessCaptureRequest(request) != 0) return false;
        session->sendCaptureResult(resultFor(request));
        return ++served == kFrames;
    }));
    deliveries.waitFor(kFrames);
    endCallback();
}

TEST_F(TransportTest, EndsAChannelThatIsAtFaultAndNoOther) {
    struct Fault {
        const char* name;
        std::vector<uint8_t> bytes;
        size_t fds;
    };
    // A request: frame number, settings size, settings, then the input buffer from byte 16 on.
    std::vector<uint8_t> manyInts = message({kCall, kRequest, 1, 0}, 60);
    manyInts[16 + 16 + 12] = 1;                    // the input buffer has a handle
    memset(&manyInts[16 + 16 + 13 + 4], 0x7f, 4);  // of very many integers
    std::vector<uint8_t> manyFds = manyInts;
    manyFds[16 + 16 + 13] = 1;
    memset(&manyFds[16 + 16 + 13 + 4], 0, 4);
    std::vector<uint8_t> halfThere = message({kCall, kRequest, 1, 0}, 39);
    halfThere[16 + 16 + 12] = 2;
    const Fault faults[] = {
        {"an empty message", {}, 0},
        {"an empty message with descriptors", {}, 2},
        {"bytes that are no message", std::vector<uint8_t>(40, 0x55), 0},
        {"a truncated header", message({kCall, kConfigure}), 0},
        {"an answer without a call", message({kAnswer, 1, 1, 0}), 0},
        {"no such method", message({kCall, 99, 1, 0}), 0},
        {"a truncated record", message({kCall, kRequest, 1, 0, 5}), 0},
        {"a count that lies", message({kCall, kConfigure, 1, 0, 0xffffffff, 0}), 0},
        {"a count beyond the bytes", message({kCall, kConfigure, 1, 0, 3, 0}, 72), 0},
        {"bytes left over", message({kCall, kConfigure, 1, 0, 0, 0, 0}), 0},
        {"a handle that is neither there nor not", halfThere, 0},
        {"integers that are not there", manyInts, 0},
        {"descriptors that are not there", manyFds, 0},
        {"more descriptors than announced", message({kCall, kConfigure, 1, 1, 0, 0}), 2},
        {"fewer descriptors than announced", message({kCall, kConfigure, 1, 2, 0, 0}), 1},
        {"descriptors that no record owns", message({kCall, kConfigure, 1, 2, 0, 0}), 2},
        {"more descriptors than a message may have", message({kCall, kConfigure, 1, 65, 0, 0}), 65},
        {"a message that is too long", message({kCall, kConfigure, 1, 0}, host::kMaxMessageBytes),
         0},
    };
    setUpStream();
    for (const Fault& fault : faults) {
        log.clear();
        RawClient hostile = connectRaw();
        hostile.send(fault.bytes, std::vector<int>(fault.fds, STDERR_FILENO));
        EXPECT_TRUE(hostile.isClosed()) << fault.name;
        EXPECT_EQ(log.texts("transport").size(), 1U) << fault.name;
        EXPECT_TRUE(remote->ping().isOk()) << fault.name;
    }
    printf("%zu faults, each the end of its own channel only\n", std::size(faults));
    // One that is cut off in the middle is no fault.
    log.clear();
    { RawClient gone = connectRaw(); }
    EXPECT_TRUE(remote->ping().isOk());
    EXPECT_TRUE(log.texts("transport").empty());
}

TEST_F(TransportTest, FailsACallWhoseDescriptorsFindNoSlot) {
    setUpStream();
    const CaptureRequest request = requestFor(1, 1, buffer.handle());
    {
        const FewDescriptors none(0);
        const Return<Status> lost = remote->processCaptureRequest(request);
        EXPECT_FALSE(lost.isOk());
        EXPECT_NE(lost.description().find("no slot was free for them"), std::string::npos);
    }
    EXPECT_FALSE(remote->ping().isOk());  // that channel is at its end
    std::string problem;
    const sp<IFDSession> again = host::connect<IFDSession>(path, problem);
    ASSERT_NE(again, nullptr) << problem;
    EXPECT_TRUE(again->ping().isOk());
}

TEST_F(TransportTest, AcceptsAgainWhenSlotsAreBack) {
    EXPECT_TRUE(remote->ping().isOk());  // its own connection is there
    RawClient early(path);
    RawClient late(path);
    const int descriptors = kit::Holdings::of().descriptors;
    {
        // A connection still gets one of the reserved slots; without those it waits.
        const FewDescriptors none(0);
        EXPECT_TRUE(early.connect());
        early.send(message({kCall, 99, 1, 0}));
        EXPECT_TRUE(early.isClosed());
    }
    EXPECT_TRUE(eventually([&] { return kit::Holdings::of().descriptors <= descriptors; }));
    log.clear();
    FewDescriptors none(0, host::kConnectionFds);
    EXPECT_TRUE(late.connect());
    late.send(message({kCall, 99, 1, 0}));
    // Looked at over some time, because not to spin is what it is about.
    const clock_t start = clock();
    usleep(200000);
    EXPECT_LT(clock() - start, CLOCKS_PER_SEC / 10);
    EXPECT_TRUE(remote->ping().isOk());
    EXPECT_TRUE(log.texts("transport").empty());  // not served yet
    none.releaseReserved();
    EXPECT_TRUE(late.isClosed());
    EXPECT_TRUE(remote->ping().isOk());
}

TEST_F(TransportTest, GoesOnWhenNoThreadCanBeMade) {
    EXPECT_TRUE(remote->ping().isOk());  // its own thread is there
    std::string problem;
    host::failNextThreadStart();
    EXPECT_EQ(host::Server::listen(folder / "other", client, problem), nullptr);
    EXPECT_NE(problem.find("no thread can be made"), std::string::npos);
    host::failNextThreadStart();
    EXPECT_FALSE(remote->setCallback(callback).isOk());
    host::failNextThreadStart();
    EXPECT_FALSE(bool(remote->linkToDeath(new Recipient, 1)));
    host::failNextThreadStart();
    RawClient refused = connectRaw();
    EXPECT_TRUE(refused.isClosed());
    EXPECT_TRUE(remote->ping().isOk());
    expectStatus(remote->setCallback(callback), Status::OK);
    RawClient served = connectRaw();
    EXPECT_TRUE(served.isServed());
}

TEST_F(TransportTest, KeepsItsLastSlotsFromAClientThatFloods) {
    WallClock clock;
    clock.stopAt(1);  // no request grows stale, however slow the machine is
    setUpStream();
    expectStatus(remote->processCaptureRequest(requestFor(0, 1, buffer.handle())), Status::OK);
    // Its own further connections, and the one of somebody else after them.
    std::deque<RawClient> late;
    while (late.size() + 1 < host::kMaxConnections)
        late.emplace_back(path);
    const FewDescriptors few(40);
    uint32_t queued = 1;
    for (;; ++queued) {
        const Return<Status> answer = remote->processCaptureRequest(requestFor(queued, 1, nullptr));
        ASSERT_TRUE(answer.isOk()) << answer.description();
        if (static_cast<Status>(answer) == Status::ILLEGAL_ARGUMENT) break;
        ASSERT_LE(queued, 40U);
    }
    EXPECT_GE(queued, 30U);
    for (RawClient& another : late) {
        EXPECT_TRUE(another.connect());
        EXPECT_TRUE(another.isServed());
    }
    for (uint32_t i = 0; i < queued; ++i)
        EXPECT_EQ(take().frameNumber, i);
    EXPECT_FALSE(session->isCaptureRequestReady());
    expectStatus(remote->processCaptureRequest(requestFor(1, 1, nullptr)), Status::OK);
}

TEST_F(TransportTest, KeepsItsReserveFromAClientThatFloodsAndConnectsAtOnce) {
    remote.clear();
    server.reset();
    const auto connecting = startShell("exec " CLIENT_PROBE " connect " + path, true);
    const FewDescriptors few(host::kConnectionFds + 100);
    const rlim_t firstReserved = few.limit() - host::kConnectionFds - host::kReservedFds;
    serve();
    setUpStream();
    expectStatus(remote->processCaptureRequest(requestFor(0, 1, buffer.handle())), Status::OK);
    std::atomic<bool> done{false};
    std::thread flood([&] {
        while (!done)
            EXPECT_TRUE(remote->processCaptureRequest(requestFor(1, 1, nullptr)).isOk());
    });
    EXPECT_TRUE(connecting->write("g"));
    EXPECT_EQ(connecting->exitCode(kPatience), 0);
    done = true;
    flood.join();
    // Nothing that stays got a number of the reserve, for calls or for connections.
    for (rlim_t fd = firstReserved; fd < 4096; ++fd) {
        std::error_code none;
        const std::string file =
            std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd), none);
        EXPECT_EQ(file.find("memfd:"), std::string::npos) << fd;
    }
}

TEST_F(TransportTest, WaitsForASilentClientOnceAndThenNoMore) {
    // Takes as long as the bounded wait, which is what it is about.
    std::mutex gate;
    std::unique_lock<std::mutex> closed(gate);
    callback->during = [&gate] { const std::lock_guard<std::mutex> pass(gate); };
    setUpStream();
    expectStatus(remote->processCaptureRequest(requestFor(1, 1, buffer.handle())), Status::OK);
    RawClient deaf(path);  // so is one that does not read what it is answered
    EXPECT_TRUE(deaf.connect());
    std::thread sending([&deaf] { deaf.sendUnread(message({kCall, 0, 1, 0})); });
    const auto start = std::chrono::steady_clock::now();
    serveOne();  // the monitor waits ...
    deliveries.waitFor(1);
    FDNotifyMsg msg = {};
    session->sendNotify(msg);  // ... and so does this thread, each on its own account
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, host::kCallPatience - std::chrono::milliseconds(100));
    EXPECT_LT(waited, 2 * host::kCallPatience);
    EXPECT_TRUE(
        log.waitFor("threadLoop: processCaptureResult transaction failed: "
                    "Status(EX_TRANSACTION_FAILED): 'TIMED_OUT: no answer within 1000 ms'"));
    const auto before = std::chrono::steady_clock::now();
    for (int i = 0; i < 100; ++i)
        session->sendNotify(msg);
    EXPECT_LT(std::chrono::steady_clock::now() - before, host::kCallPatience);
    sending.join();
    EXPECT_EQ(log.count("a channel ends: the peer does not read its answers"), 1);
    closed.unlock();
    EXPECT_TRUE(remote->ping().isOk());  // its own calls are another channel
    endCallback();
}

// ---- The caller's end, and a peer that a test answers by hand ----

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
        peer->send(message({kAnswer, 1, 1, 0}));
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
    peer->send(message({kAnswer, 1, 1, 0}));  // now it is the second one's turn
    pthread_kill(signalled.native_handle(), SIGUSR1);
    for (std::thread* const thread : {&first, &second, &unlucky, &signalled})
        thread->join();
}

TEST_F(CallChannelTest, SaysWhatTheRefusalSaysAndGoesOn) {
    std::vector<uint8_t> refusal = message({kRefused, 1, 1, 0});
    const std::string text = "no\n11-24 forged \x1b[31m" + std::string(5000, 'x');
    refusal.insert(refusal.end(), text.begin(), text.end());
    peer->send(refusal);
    const std::string description = call();
    EXPECT_NE(description.find("no?11-24 forged ?[31m"), std::string::npos) << description;
    EXPECT_LT(description.size(), 200U);
    peer->send(message({kAnswer, 1, 2, 0}));
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
        peer->send(message({kAnswer, 1, serial, 0}));
    }
    one.join();
    other.join();
}

TEST_F(CallChannelTest, EndsForGoodWithAnAnswerThatIsNone) {
    struct Bad {
        std::vector<uint8_t> bytes;
        std::vector<int> fds;
    };
    for (const Bad& bad : {Bad{message({kAnswer, 1, 9, 0}), {}},  // to another call
                           Bad{message({kCall, 1, 1, 0}), {}}, Bad{message({kAnswer, 1}), {}},
                           Bad{message({kAnswer, 1, 1, 0, 7}), {}},  // bytes left over
                           Bad{message({kAnswer, 1, 1, 1}), {STDERR_FILENO}},
                           Bad{message({kRefused, 1, 1, 1}), {STDERR_FILENO}}, Bad()}) {
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

TEST_F(TransportTest, TellsOfTheEndOfItsPeer) {
    const sp<Recipient> told = new Recipient;
    const sp<Recipient> unlinked = new Recipient;
    EXPECT_TRUE(bool(remote->linkToDeath(told, 42)));
    EXPECT_TRUE(bool(remote->linkToDeath(unlinked, 43)));
    EXPECT_TRUE(bool(remote->unlinkToDeath(unlinked)));
    EXPECT_FALSE(bool(remote->unlinkToDeath(unlinked)));
    EXPECT_FALSE(bool(remote->linkToDeath(nullptr, 1)));
    server.reset();
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_EQ(told->died.get_future().get(), (std::pair<uint64_t, bool>{42, true}));
    const Return<Status> answer = remote->configure(configurationOf(0));
    EXPECT_FALSE(answer.isOk());
    EXPECT_EQ(answer.description(),
              "Status(EX_TRANSACTION_FAILED): 'DEAD_OBJECT: the peer has closed the connection'");
    remote.clear();
    EXPECT_EQ(unlinked->died.get_future().wait_for(std::chrono::seconds(0)),
              std::future_status::timeout);
}

TEST_F(TransportTest, SaysWhyItCannotListen) {
    const auto problemWith = [this](const std::string& where) {
        std::string problem;
        EXPECT_EQ(host::Server::listen(where, client, problem), nullptr);
        return problem;
    };
    EXPECT_EQ(problemWith(path), path + " is in use by another provider");
    std::ofstream(folder / "file") << "text";
    EXPECT_EQ(problemWith(folder / "file"), folder / "file exists and is not a socket");
    EXPECT_NE(problemWith(folder / "no/socket").find("No such file"), std::string::npos);
    EXPECT_NE(problemWith(std::string(200, 'x')).find("1 to 107 characters"), std::string::npos);
    std::string problem;
    EXPECT_EQ(host::connect<IFDSession>(folder / "nobody", problem), nullptr);
    EXPECT_NE(problem.find("No such file"), std::string::npos);

    // What a killed provider left behind is taken over.
    remote.clear();
    std::filesystem::rename(path, folder / "left");
    server.reset();
    std::filesystem::rename(folder / "left", path);
    serve();
    struct stat file = {};
    EXPECT_EQ(stat(path.c_str(), &file), 0);
    EXPECT_EQ(file.st_mode & 0777U, 0600U);
}

TEST_F(TransportTest, RefusesAnotherUser) {
    if (geteuid() != 0) GTEST_SKIP() << "only root can become another user";
    const auto connectAsNobody = [this] {
        RawClient other(path);
        const pid_t child = fork();
        if (child == 0) {
            if (setresuid(65534, 65534, 65534) != 0) _exit(2);
            _exit(other.connect() && !other.isClosed() ? 1 : 0);
        }
        int status = -1;
        waitpid(child, &status, 0);
        return status;
    };
    EXPECT_EQ(connectAsNobody(), 0);
    // Even when the file's mode and folder would let it.
    std::filesystem::permissions(folder.path(), std::filesystem::perms::all);
    std::filesystem::permissions(path, std::filesystem::perms::all);
    EXPECT_EQ(connectAsNobody(), 0);
    EXPECT_TRUE(eventually([&] { return log.count("another user's connection is refused") == 1; }));

    // Nor is another user's server taken for the provider.
    RawClient foreign(folder / "foreign");
    const pid_t child = fork();
    if (child == 0) {
        if (setresuid(65534, 65534, 65534) != 0 || !foreign.listen()) _exit(1);
        pause();
    }
    std::string problem;
    EXPECT_TRUE(eventually([&] {
        EXPECT_EQ(host::connect<IFDSession>(folder / "foreign", problem), nullptr);
        return problem.find("is another user's") != std::string::npos;
    })) << problem;
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
}

// ---- The limits, each one below, at, and one above ----

TEST_F(TransportTest, TakesWhatIsWithinTheLimitsAndNoMore) {
    remote.clear();
    server.reset();
    const FewDescriptors few(512);
    serve();
    setUpStream();
    for (const int beyond : {-1, 0, 1}) {
        const bool fits = beyond <= 0;
        const auto offset = [beyond](size_t limit) {
            return static_cast<size_t>(static_cast<int64_t>(limit) + beyond);
        };
        // Bytes of a message: all that a request takes without settings, and settings.
        CaptureRequest request = requestFor(1, 1, nullptr);
        constexpr size_t kWithoutSettings = 16 + 16 + 19 + 4 + 19;
        request.settings.resize(offset(host::kMaxMessageBytes - kWithoutSettings));
        EXPECT_EQ(remote->processCaptureRequest(request).isOk(), fits) << "bytes " << beyond;

        // Descriptors of a message.
        const size_t fds = offset(host::kMaxMessageFds);
        native_handle_t* const fence = native_handle_create(static_cast<int>(fds), 0);
        const UniqueFd event(eventfd(0, EFD_CLOEXEC));
        std::fill_n(&fence->data[0], fds, event.get());
        request = requestFor(1, 1, nullptr);
        request.outputBuffers[0].acquireFence = fence;
        EXPECT_EQ(remote->processCaptureRequest(request).isOk(), fits) << "descriptors " << beyond;
        native_handle_delete(fence);

        // Free slots when a descriptor arrives: it may get the last number before the reserve.
        {
            EXPECT_TRUE(remote->ping().isOk());  // served after what came before was let go of
            const TakenUpTo taken(
                offset(few.limit() - host::kConnectionFds - host::kReservedFds - 1));
            const CaptureRequest brings = requestFor(1, 2, buffer.handle());
            const Return<Status> answer = remote->processCaptureRequest(brings);
            EXPECT_EQ(answer.isOk(), fits) << "slots " << beyond;
            EXPECT_TRUE(fits || answer.description().find("too few descriptor slots are free") !=
                                    std::string::npos);
            EXPECT_TRUE(remote->ping().isOk());  // calls without descriptors still pass
        }

        // Connections: this test's own is one of them.
        const int descriptors = kit::Holdings::of().descriptors;
        std::vector<sp<IFDSession>> connections;
        std::string problem;
        while (connections.size() + 1 < offset(host::kMaxConnections)) {
            connections.push_back(host::connect<IFDSession>(path, problem));
            ASSERT_NE(connections.back(), nullptr) << problem;
        }
        EXPECT_EQ(connections.back()->ping().isOk(), fits) << "connections " << beyond;
        connections.clear();
        EXPECT_TRUE(eventually([&] { return kit::Holdings::of().descriptors <= descriptors; }));
    }
    EXPECT_TRUE(remote->ping().isOk());
}

}  // namespace testing_support
