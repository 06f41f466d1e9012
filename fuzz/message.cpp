// A message and what comes with it: the reader, and every record's behind it. In memory, but a
// client's descriptors, whose kinds are looked at, are real.

#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "fake_descriptors.h"
#include "message_oracle.h"
#include "raw_socket.h"
#include "src/socket.h"
#include "support.h"

namespace {

using host::UniqueFd;
using host::detail::Header;

/** One of each kind; only the first ones may cross. */
class Kinds {
public:
    static constexpr int kMayCross = 3;

    int duplicate(int kind) const { return fcntl(mFds[kind].get(), F_DUPFD_CLOEXEC, 3); }
    int count() const { return static_cast<int>(sizeof(mFds) / sizeof(mFds[0])); }

private:
    const UniqueFd mFds[6] = {UniqueFd(memfd_create("any", MFD_CLOEXEC)),
                              UniqueFd(eventfd(0, EFD_CLOEXEC)),
                              kit::rawSocket(),
                              UniqueFd(open("/dev/null", O_RDWR | O_CLOEXEC)),
                              UniqueFd(open("/tmp", O_RDONLY | O_DIRECTORY | O_CLOEXEC)),
                              kit::socketPair(SOCK_STREAM).first};
};

/** Usually as a well-behaved peer's, so that the records are reached. */
Header headerFrom(FuzzedDataProvider& data, fuzz::Served served, size_t fds) {
    constexpr Header::Kind kKinds[] = {Header::CALL, Header::CALL, Header::CALL, Header::ANSWER,
                                       Header::REFUSED};
    const uint32_t methods = served == fuzz::Served::CONTROL ? 16 : 4;  // and one that is none
    Header header = {data.PickValueInArray(kKinds),
                     data.ConsumeIntegralInRange<uint32_t>(0, methods), 1,
                     static_cast<uint32_t>(fds)};
    if (data.ConsumeProbability<float>() < 0.05F) header.fds = data.ConsumeIntegral<uint32_t>();
    return header;
}

std::vector<uint8_t> messageFrom(FuzzedDataProvider& data, fuzz::Served served, size_t fds) {
    std::vector<uint8_t> message;
    if (data.ConsumeIntegral<uint8_t>() != 0) {
        const Header header = headerFrom(data, served, fds);
        const auto* const bytes = reinterpret_cast<const uint8_t*>(&header);
        message.assign(bytes, bytes + sizeof(header));
    }
    const auto body = data.ConsumeRemainingBytes<uint8_t>();
    message.insert(message.end(), body.begin(), body.end());
    return message;
}

void readWithFakes(fuzz::Served served, FuzzedDataProvider& data) {
    std::vector<int> fds(data.ConsumeIntegralInRange<size_t>(0, fuzz::fakeCloses.size() - 1));
    for (size_t i = 0; i < fds.size(); ++i)
        fds[i] = fuzz::kFirstFake + static_cast<int>(i);
    for (auto& closes : fuzz::fakeCloses)
        closes = 0;
    const fuzz::Reading reading =
        fuzz::readMessage(served, host::Peer::PROVIDER, messageFrom(data, served, fds.size()), fds);
    fuzz::expect(reading.fault == nullptr, reading.fault);
    for (size_t i = 0; i < fds.size(); ++i)
        fuzz::expect(fuzz::isClosedOnce(i), "a descriptor is not closed once");
}

void readWithKinds(fuzz::Served served, FuzzedDataProvider& data) {
    static const Kinds kinds;
    std::vector<int> fds(data.ConsumeIntegralInRange<size_t>(0, 4));
    bool mayCross = true;
    for (int& fd : fds) {
        const int kind = data.ConsumeIntegralInRange<int>(0, kinds.count() - 1);
        mayCross = mayCross && kind < Kinds::kMayCross;
        fd = kinds.duplicate(kind);
    }
    const fuzz::Reading reading =
        fuzz::readMessage(served, host::Peer::CLIENT, messageFrom(data, served, fds.size()), fds);
    fuzz::expect(reading.fault == nullptr, reading.fault);
    fuzz::expect(mayCross || !reading.isTaken, "a descriptor crosses that may not");
    for (const int fd : fds)
        fuzz::expectSoon([fd] { return fcntl(fd, F_GETFD) < 0; }, "a descriptor is left open");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    const fuzz::QuietLog quiet;
    FuzzedDataProvider data(bytes, size);
    constexpr fuzz::Served kServed[] = {fuzz::Served::CALLBACK, fuzz::Served::SESSION,
                                        fuzz::Served::CONTROL, fuzz::Served::SESSION};
    const fuzz::Served served = data.PickValueInArray(kServed);
    const bool isFromClient = data.ConsumeBool();
    isFromClient ? readWithKinds(served, data) : readWithFakes(served, data);
    return 0;
}
