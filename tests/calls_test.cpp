// Calls between processes, and their messages. Client and provider share this one here, so that a
// test sees both ends, or answers the caller's end by hand. One message of each kind is tried with
// every one or two bits of it flipped, cut off at every byte, and with every number of descriptors.

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <future>
#include <tuple>

#include "host/limits.h"
#include "host/remote.h"
#include "message_oracle.h"
#include "model/operands.h"
#include "model/words.h"
#include "raw_socket.h"
#include "support/interposed.h"
#include "support/transport_fixture.h"

namespace testing_support {

namespace {

using namespace fuzz;  // NOLINT: the oracle's
using CallsTest = TransportFixture;
using Clock = std::chrono::steady_clock;

struct Message {
    const char* name;
    Served served;
    uint32_t fds;  ///< how many come with it
    std::vector<uint8_t> bytes;
};

/** One of each kind; what has buffers has one, one fence, and 8 bytes of settings. */
std::vector<Message> messages() {
    const host::Buffer buffer = kit::allocate({16, 8});
    CaptureRequest request = requestFor(3, 5, buffer.handle());
    request.settings.resize(8);
    request.outputBuffers[0].acquireFence = handleOf({STDERR_FILENO});
    CaptureResult result = resultFor(request);
    result.result.resize(8);
    control::Event event;
    event.scene.crops.resize(1);
    const auto call = [](uint32_t method, uint32_t fds = 0, uint32_t kind = Header::CALL) {
        return Header{kind, method, 7, fds};
    };
    return {
        {"an event", CONTROL, 0, messageOf(call(12, 0, Header::ANSWER), control::Answer(), event)},
        {"a ping", SESSION, 0, messageOf(call(0))},
        {"a callback", SESSION, 1, messageOf(call(1, 1), true)},
        {"a configuration", SESSION, 0, messageOf(call(2), configurationOf(0))},
        {"a request", SESSION, 2, messageOf(call(3, 2), request)},
        {"a result", CALLBACK, 2, messageOf(call(1, 2), hidl_vec<CaptureResult>{result})},
        {"a notification", CALLBACK, 0, messageOf(call(2), hidl_vec<FDNotifyMsg>{FDNotifyMsg()})},
        {"an answer", SESSION, 0, messageOf(call(1, 0, Header::ANSWER), uint32_t{0})}};
}

/** Whether a message is taken; nothing else may happen to it, or to what comes with it. */
bool isTaken(const Message& message, size_t sent) {
    std::vector<int> fds(sent);
    std::generate(fds.begin(), fds.end(), [] { return dup(STDERR_FILENO); });
    const auto reading = readMessage(message.served, host::Peer::PROVIDER, message.bytes, fds);
    EXPECT_EQ(reading.fault, nullptr) << reading.fault;
    for (const int fd : fds)
        EXPECT_TRUE(eventually([fd] { return fcntl(fd, F_GETFD) < 0; })) << "one is left open";
    return reading.isTaken;
}

/** A channel whose calls a test answers by hand. */
struct HeldChannel {
    /** Why the call fails, of a status of the transport; empty when it does not. */
    std::string call(uint32_t method = 1) {
        const auto status =
            caller.call(method, {}, [this](host::Reader& /*reader*/) { reading(); });
        const std::string failed = "Status(EX_TRANSACTION_FAILED): ";
        return status.isOk() ? "" : status.description().substr(failed.size());
    }

    const host::Peer served = host::Peer::PROVIDER;
    std::function<void()> reading = [] {};  ///< runs when the answer has come
    std::pair<host::UniqueFd, host::UniqueFd> ends = kit::socketPair();
    const int socket = ends.first.get();
    host::CallChannel caller{std::move(ends.first), served};
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
    const FileSet files;
    EXPECT_EQ(inWords(files, kept), inWords(files, stream));

    const CaptureRequest request =
        recordOf<CaptureRequest>({10, 4, 23, 1, 1, 4, 3, 7, 3, 1, 8}, files);
    expectStatus(remote->processCaptureRequest(request), Status::OK);
    EXPECT_EQ(inWords(files, take()), inWords(files, CaptureRequest(request)));
    const CaptureResult result =
        recordOf<CaptureResult>({3, 4, 23, 3, 1, 9, 7, 6, 8, 15, 8}, files);
    session->sendCaptureResult(result);
    EXPECT_EQ(inWords(files, deliveries.waitFor(1)[0]), inWords(files, CaptureResult(result)));
    const FDNotifyMsg msg = {FDNotifyType::ERROR, 3, 1ULL << 60};
    notify(msg);
    EXPECT_EQ(inWords(files, hidl_vec<FDNotifyMsg>(deliveries.notified())),
              inWords(files, hidl_vec<FDNotifyMsg>{msg}));
}

TEST(CallChannelTest, TakesTurnsAndGivesUpInTimeWhateverComesBetween) {
    // Takes as long as the bounded wait, which is what it is about: what comes between comes late
    // in it, so that a wait that began anew would end long after it.
    HeldChannel channel;
    HeldChannel dying;
    HeldChannel unanswered;
    HeldChannel leaving;
    HeldChannel handedOver{host::Peer::CLIENT};
    HeldChannel slow;
    Gate gate;
    slow.reading = [&] { gate.hold(); };
    const timeval longer = {2, 0};  // whoever handed it over can set it
    setsockopt(handedOver.socket, SOL_SOCKET, SO_RCVTIMEO, &longer, sizeof(longer));

    constexpr int kLate = IS_SLOW ? 20 : 8;
    const auto start = Clock::now();
    std::vector<std::future<void>> calls;
    const auto begin = [&](HeldChannel& called, uint32_t method, int tenths,
                           const std::string& failure) {
        std::atomic<pid_t> caller{0};
        calls.push_back(std::async(std::launch::async, [&, method, tenths, failure] {
            caller = gettid();
            EXPECT_EQ(called.call(method), failure);
            EXPECT_GE(Clock::now() - start, host::kCallPatience * tenths / 10);
            EXPECT_LT(Clock::now() - start, host::kCallPatience * (tenths + kLate) / 10);
        }));
        EXPECT_TRUE(eventually([&] { return caller != 0 && isAsleep(caller); }));
    };
    const std::string late = "'TIMED_OUT: no answer within 1000 ms'";
    const std::string none = "bytes that are no message'";
    for (const uint32_t method : {1U, 2U, 3U}) {
        begin(channel, method, method < 3 ? 8 : 10, method < 3 ? "" : late);
        begin(dying, method, 0, (method == 1 ? "'FAILED_TRANSACTION: " : "'DEAD_OBJECT: ") + none);
    }
    begin(unanswered, 1, 10, late);
    begin(leaving, 1, 0, "'DEAD_OBJECT: the peer has closed the connection'");
    leaving.peer = RawClient(host::UniqueFd());  // which leaves the call unread
    begin(handedOver, 1, 10, late);
    slow.peer.send(rawMessage({kAnswer, 1, 1, 0}));
    begin(slow, 1, 10, "");
    begin(slow, 2, 10, late);  // for its turn, after which it keeps nobody waiting
    dying.peer.send({});       // which all that wait hear of at once
    std::this_thread::sleep_until(start + host::kCallPatience * 8 / 10);
    for (const uint32_t method : {1U, 2U, 3U}) {
        EXPECT_EQ(channel.peer.receivedMethod(), method);
        if (method < 3) channel.peer.send(rawMessage({kAnswer, method, method, 0}));
    }
    calls.back().wait();
    gate.open();
    slow.peer.send(rawMessage({kAnswer, 3, 2, 0}));
    EXPECT_EQ(slow.call(3), "");
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
        {rawMessage({kAnswer, 1, 1, 0, 7}), {}, "the answer does not add up"},
        {rawMessage({kRefused, 1, 1, 1}), {STDERR_FILENO}, "the answer brings descriptors"}};
    for (const auto& [bytes, fds, said] : answers) {
        HeldChannel channel;
        channel.peer.send(bytes, fds);
        channel.peer.send(rawMessage({kAnswer, 1, 2, 0}));
        EXPECT_EQ(channel.call(), "'FAILED_TRANSACTION: " + said + "'");
        const bool goesOn = said == refused;
        EXPECT_EQ(channel.call(), goesOn ? "" : "'DEAD_OBJECT: " + said + "'");
        EXPECT_EQ(channel.peer.receivedMethod(), 1U);
        EXPECT_NE(channel.peer.isClosed(), goesOn);
    }
}

TEST(MessageTest, IsTakenAsItIsOrNotAtAllWhateverComesOfItAndWithIt) {
    // More than a million reads, which take some seconds. Where all is slow every
    // 23rd second bit has to do.
    for (Message message : messages()) {
        SCOPED_TRACE(message.name);
        const auto flip = [&](size_t bit) {
            message.bytes[bit / 8] ^= static_cast<uint8_t>(1U << bit % 8);
        };
        for (size_t one = 0, bits = message.bytes.size() * 8; one < bits; ++one) {
            flip(one);
            isTaken(message, message.fds);
            for (size_t other = one + 1; other < bits; other += IS_SLOW ? 23U : 1U) {
                flip(other);
                isTaken(message, message.fds);
                flip(other);
                ASSERT_FALSE(HasFailure()) << "bits " << one << " and " << other;
            }
            flip(one);
        }
        for (size_t size = 0; size < message.bytes.size() + 9; ++size) {
            Message cut = message;
            cut.bytes.resize(size);
            EXPECT_EQ(isTaken(cut, cut.fds), size == message.bytes.size()) << size << " bytes";
        }
        for (uint32_t announced = 0; announced <= 17; ++announced) {
            memcpy(&message.bytes[offsetof(Header, fds)], &announced, sizeof(announced));
            for (size_t sent = 0; sent <= 17; ++sent)
                EXPECT_EQ(isTaken(message, sent), announced == sent && sent == message.fds)
                    << announced << " announced, " << sent << " sent";
        }
    }
}

}  // namespace testing_support
