// A message and what comes with it: the reader, and every record's behind it. In memory, but the
// descriptors, of whose kinds a client's are looked at, are real.

#include <fcntl.h>

#include <vector>

#include "host/log.h"
#include "message_oracle.h"
#include "support.h"

namespace {

using host::detail::Header;

/** Its header is usually as a well-behaved peer's, so that the records are reached. */
std::vector<uint8_t> messageFrom(FuzzedDataProvider& data, fuzz::Served served, size_t fds) {
    std::vector<uint8_t> message;
    if (data.ConsumeIntegral<uint8_t>() != 0) {
        const uint32_t kind = data.PickValueInArray(
            {Header::CALL, Header::CALL, Header::CALL, Header::ANSWER, Header::REFUSED});
        const uint32_t methods = served == fuzz::CONTROL ? 16 : 4;  // and one that is none
        Header header = {kind, data.ConsumeIntegralInRange<uint32_t>(0, methods), 1,
                         static_cast<uint32_t>(fds)};
        if (data.ConsumeProbability<float>() < 0.05F) header.fds = data.ConsumeIntegral<uint32_t>();
        message = fuzz::messageOf(header);
    }
    const auto body = data.ConsumeRemainingBytes<uint8_t>();
    message.insert(message.end(), body.begin(), body.end());
    return message;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    const host::LogCapture quiet;
    FuzzedDataProvider data(bytes, size);
    const fuzz::Served served =
        data.PickValueInArray({fuzz::CALLBACK, fuzz::SESSION, fuzz::CONTROL, fuzz::SESSION});
    const bool isFromClient = data.ConsumeBool();
    std::vector<int> fds(data.ConsumeIntegralInRange<size_t>(0, isFromClient ? 4 : 65));
    bool mayCross = true;
    for (int& fd : fds) {
        const int kind = isFromClient ? data.ConsumeIntegralInRange<int>(0, 5) : 0;
        mayCross = mayCross && kind < fuzz::kMayCross;
        fd = fcntl(fuzz::kKind[kind].get(), F_DUPFD_CLOEXEC, 3);
    }
    const fuzz::Reading reading =
        fuzz::readMessage(served, isFromClient ? host::Peer::CLIENT : host::Peer::PROVIDER,
                          messageFrom(data, served, fds.size()), fds);
    fuzz::expect(reading.fault == nullptr, reading.fault);
    fuzz::expect(mayCross || !reading.isTaken, "a descriptor crosses that may not");
    for (const int fd : fds)
        fuzz::expectSoon([fd] { return fcntl(fd, F_GETFD) < 0; }, "a descriptor is left open");
    return 0;
}
