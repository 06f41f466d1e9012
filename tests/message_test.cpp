// One message of each kind, with every one or two bits of it flipped, cut off at every byte, and
// with every number of descriptors beside it.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cstring>
#include <vector>

#include "message_oracle.h"
#include "src/control_fields.h"
#include "src/record_fields.h"
#include "support/slow.h"
#include "support/transport_fixture.h"

namespace testing_support {

namespace {

using fuzz::messageOf;
using host::detail::Header;

const host::UniqueFd memory(memfd_create("any", MFD_CLOEXEC));

struct Message {
    const char* name;
    fuzz::Served served;
    uint32_t fds;  ///< how many come with it
    std::vector<uint8_t> bytes;
};

/** One of each kind; what has buffers has one, one fence, and 8 bytes of settings. */
std::vector<Message> messages() {
    const host::Buffer buffer = kit::allocate({16, 8});
    CaptureRequest request = requestFor(3, 5, buffer.handle());
    request.settings.resize(8);
    request.outputBuffers[0].acquireFence = handleOf({memory.get()});
    CaptureResult result = resultFor(request);
    result.result.resize(8);
    control::Followed followed = {};
    followed.scene.crops.resize(1);
    const auto call = [](uint32_t method, uint32_t fds = 0) {
        return Header{Header::CALL, method, 7, fds};
    };
    using namespace fuzz;  // NOLINT: who is served
    return {
        {"a follower's step", CONTROL, 0, messageOf(call(14), followed)},
        {"a tracking control", CONTROL, 0, messageOf(call(5), control::TrackControl())},
        {"a ping", SESSION, 0, messageOf(call(0))},
        {"a callback", SESSION, 1, messageOf(call(1, 1), true)},
        {"a configuration", SESSION, 0, messageOf(call(2), configurationOf(0))},
        {"a request", SESSION, 2, messageOf(call(3, 2), request)},
        {"a result", CALLBACK, 2, messageOf(call(1, 2), hidl_vec<CaptureResult>{result})},
        {"a notification", CALLBACK, 0, messageOf(call(2), hidl_vec<FDNotifyMsg>{FDNotifyMsg()})},
        {"an answer", SESSION, 0, messageOf(Header{Header::ANSWER, 1, 7, 0}, uint32_t{0})}};
}

/** Whether a message is taken; nothing else may happen to it, or to what comes with it. */
bool isTaken(const Message& message, size_t sent) {
    std::vector<int> fds(sent);
    for (int& fd : fds)
        fd = fcntl(memory.get(), F_DUPFD_CLOEXEC, 0);
    const fuzz::Reading reading =
        fuzz::readMessage(message.served, host::Peer::PROVIDER, message.bytes, fds);
    EXPECT_EQ(reading.fault, nullptr) << reading.fault;
    for (const int fd : fds) {
        EXPECT_TRUE(eventually([fd] { return fcntl(fd, F_GETFD) < 0; })) << "one is left open";
    }
    return reading.isTaken;
}

}  // namespace

TEST(MessageTest, IsTakenAsItIsOrNotAtAllWhateverBitsAreFlipped) {
    // More than a million reads, which take some seconds. Where all is slow every
    // 23rd second bit has to do.
    const size_t step = isSlow() ? 23 : 1;
    for (Message message : messages()) {
        SCOPED_TRACE(message.name);
        const auto flip = [&](size_t bit) {
            message.bytes[bit / 8] ^= static_cast<uint8_t>(1U << bit % 8);
        };
        ASSERT_TRUE(isTaken(message, message.fds));
        for (size_t one = 0; one < message.bytes.size() * 8; ++one) {
            flip(one);
            isTaken(message, message.fds);
            for (size_t other = one + 1; other < message.bytes.size() * 8; other += step) {
                flip(other);
                isTaken(message, message.fds);
                flip(other);
                ASSERT_FALSE(HasFailure()) << "bits " << one << " and " << other;
            }
            flip(one);
        }
    }
}

TEST(MessageTest, IsNotTakenWhenItIsCutOffOrLonger) {
    for (Message message : messages()) {
        SCOPED_TRACE(message.name);
        const size_t whole = message.bytes.size();
        for (size_t size = whole + 9; size-- > 0;) {
            message.bytes.resize(size);
            EXPECT_EQ(isTaken(message, message.fds), size == whole) << size << " bytes";
        }
    }
}

TEST(MessageTest, IsTakenWithTheDescriptorsThatItAnnouncesOnly) {
    constexpr size_t kMost = 17;
    for (Message message : messages()) {
        SCOPED_TRACE(message.name);
        for (uint32_t announced = 0; announced <= kMost; ++announced) {
            memcpy(&message.bytes[offsetof(Header, fds)], &announced, sizeof(announced));
            for (size_t sent = 0; sent <= kMost; ++sent)
                EXPECT_EQ(isTaken(message, sent), announced == sent && sent == message.fds)
                    << announced << " announced, " << sent << " sent";
        }
    }
}

}  // namespace testing_support
