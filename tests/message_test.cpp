// One message of each kind, with every one or two bits of it flipped, cut off at every byte, and
// with every number of descriptors beside it.

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "fake_descriptors.h"
#include "message_oracle.h"
#include "records.h"
#include "src/control_fields.h"
#include "src/record_fields.h"
#include "src/socket.h"
#include "support/slow.h"

namespace testing_support {

namespace {

using android::hardware::hidl_vec;
using android::hardware::camera::device::V3_2::CaptureResult;
using fuzz::Served;
using host::detail::Header;
using kit::CaptureRequest;
using vendor::zoru::zoruprovider::fdstream::V1_0::FDNotifyMsg;

struct Message {
    const char* name;
    Served served;
    std::vector<uint8_t> bytes;
    std::vector<int> fds;
};

template <typename... Values>
Message messageOf(const char* name, Served served, uint32_t method, size_t fds,
                  const Values&... values) {
    host::Outgoing out;
    host::Writer writer(out);
    writer(values...);
    Message message = {name, served, std::vector<uint8_t>(sizeof(Header)), std::vector<int>(fds)};
    const Header header = {Header::CALL, method, 7, static_cast<uint32_t>(fds)};
    memcpy(message.bytes.data(), &header, sizeof(header));
    message.bytes.insert(message.bytes.end(), out.bytes.data(),
                         out.bytes.data() + out.bytes.size());
    for (size_t i = 0; i < fds; ++i)
        message.fds[i] = fuzz::kFirstFake + static_cast<int>(i);
    return message;
}

/** With one buffer, one fence, and 8 bytes of settings. */
CaptureRequest request() {
    native_handle_t* const buffer = native_handle_create(1, 9);
    native_handle_t* const fence = native_handle_create(1, 0);
    CaptureRequest request = kit::requestFor(3, 5);
    request.settings.resize(8);
    request.outputBuffers[0].buffer.setTo(buffer, true);
    request.outputBuffers[0].acquireFence.setTo(fence, true);
    buffer->data[0] = fence->data[0] = fuzz::kFirstFake;  // what is sent counts
    return request;
}

std::vector<Message> messages() {
    CaptureResult result = kit::resultFor({});
    result.result.resize(8);
    const CaptureRequest sent = request();
    Message withBuffers = messageOf("a result", Served::CALLBACK, 1, 2, uint32_t{1},
                                    result.frameNumber, result.fmqResultSize, result.result,
                                    sent.outputBuffers, result.inputBuffer, result.partialResult);
    Message answer = messageOf("an answer", Served::SESSION, 1, 0, uint32_t{0});
    const uint32_t kind = Header::ANSWER;
    memcpy(answer.bytes.data(), &kind, sizeof(kind));
    control::Followed followed = {};
    followed.scene.crops.resize(1);
    return {
        messageOf("a follower's step", Served::CONTROL, 14, 0, followed),
        messageOf("a tracking control", Served::CONTROL, 5, 0, control::TrackControl{}),
        messageOf("a ping", Served::SESSION, 0, 0),
        messageOf("a callback", Served::SESSION, 1, 1, uint8_t{1}),
        messageOf("a configuration", Served::SESSION, 2, 0, kit::configurationOf({640, 480})),
        messageOf("a request", Served::SESSION, 3, 2, sent),
        withBuffers,
        messageOf("a notification", Served::CALLBACK, 2, 0, hidl_vec<FDNotifyMsg>{FDNotifyMsg{}}),
        answer};
}

/** Whether a message is taken; nothing else may happen to it, or to what comes with it. */
bool isTaken(const Message& message, size_t sent) {
    const std::vector<int> fds(message.fds.begin(),
                               message.fds.begin() + static_cast<ptrdiff_t>(sent));
    for (size_t i = 0; i < sent; ++i)
        fuzz::fakeCloses[i] = 0;
    const fuzz::Reading reading =
        fuzz::readMessage(message.served, host::Peer::PROVIDER, message.bytes, fds);
    if (reading.fault != nullptr) ADD_FAILURE() << reading.fault;
    for (size_t i = 0; i < sent; ++i)
        if (!fuzz::isClosedOnce(i)) ADD_FAILURE() << "descriptor " << i << " is not closed once";
    return reading.isTaken;
}

}  // namespace

TEST(MessageTest, IsTakenAsItIsOrNotAtAllWhateverBitsAreFlipped) {
    // More than a million reads, which take half a second. Where all is slow every
    // 23rd second bit has to do.
    const size_t step = isSlow() ? 23 : 1;
    for (Message message : messages()) {
        SCOPED_TRACE(message.name);
        const auto flip = [&](size_t bit) {
            message.bytes[bit / 8] ^= static_cast<uint8_t>(1U << bit % 8);
        };
        ASSERT_TRUE(isTaken(message, message.fds.size()));
        for (size_t one = 0; one < message.bytes.size() * 8; ++one) {
            flip(one);
            isTaken(message, message.fds.size());
            for (size_t other = one + 1; other < message.bytes.size() * 8; other += step) {
                flip(other);
                isTaken(message, message.fds.size());
                flip(other);
                ASSERT_FALSE(HasFailure()) << "bits " << one << " and " << other;
            }
            flip(one);
        }
    }
}

TEST(MessageTest, IsNotTakenWhenItIsCutOffOrLonger) {
    for (const Message& whole : messages()) {
        Message cut = whole;
        for (size_t size = 0; size <= whole.bytes.size() + 8; ++size) {
            cut.bytes = whole.bytes;
            cut.bytes.resize(size);
            EXPECT_EQ(isTaken(cut, whole.fds.size()), size == whole.bytes.size())
                << whole.name << ", " << size << " bytes";
        }
    }
}

TEST(MessageTest, IsTakenWithTheDescriptorsThatItAnnouncesOnly) {
    constexpr size_t kMost = 17;
    for (Message message : messages()) {
        const size_t owned = message.fds.size();
        for (uint32_t announced = 0; announced <= kMost; ++announced) {
            memcpy(&message.bytes[offsetof(Header, fds)], &announced, sizeof(announced));
            for (size_t sent = 0; sent <= kMost; ++sent) {
                message.fds.resize(sent);
                for (size_t i = 0; i < sent; ++i)
                    message.fds[i] = fuzz::kFirstFake + static_cast<int>(i);
                EXPECT_EQ(isTaken(message, sent), announced == sent && sent == owned)
                    << message.name << ", " << announced << " announced, " << sent << " sent";
            }
        }
    }
}

}  // namespace testing_support
