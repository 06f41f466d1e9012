// A message and what comes with it: the reader, and every record's behind it. In memory, but the
// descriptors, of whose kinds a client's are looked at, are real.

#include <fcntl.h>

#include <vector>

#include "host/log.h"
#include "message_oracle.h"
#include "support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    using namespace fuzz;  // NOLINT: the oracle's
    const host::LogCapture quiet;
    FuzzedDataProvider data(bytes, size);
    const Served served = data.PickValueInArray({CALLBACK, SESSION, CONTROL, SESSION});
    const bool isFromClient = data.ConsumeBool();
    std::vector<int> fds(data.ConsumeIntegralInRange<size_t>(0, isFromClient ? 4 : 65));
    bool mayCross = true;
    for (int& fd : fds) {
        const int kind = isFromClient ? data.ConsumeIntegralInRange(0, kKinds - 1) : 0;
        mayCross = mayCross && kind < kMayCross;
        fd = fcntl(kKind[kind].get(), F_DUPFD_CLOEXEC, 3);
    }
    // Its header is usually as a well-behaved peer's, so that the records are reached.
    std::vector<uint8_t> message;
    if (data.ConsumeIntegral<uint8_t>() != 0) {
        Header header = {data.PickValueInArray({Header::CALL, Header::CALL, Header::CALL,
                                                Header::ANSWER, Header::REFUSED}),
                         data.ConsumeIntegralInRange<uint32_t>(0, served == CONTROL ? 16 : 4), 1,
                         static_cast<uint32_t>(fds.size())};
        if (data.ConsumeProbability<float>() < 0.05F) header.fds = data.ConsumeIntegral<uint32_t>();
        message = messageOf(header);
    }
    const auto body = data.ConsumeRemainingBytes<uint8_t>();
    message.insert(message.end(), body.begin(), body.end());
    const Reading reading =
        readMessage(served, isFromClient ? host::Peer::CLIENT : host::Peer::PROVIDER, message, fds);
    expect(reading.fault == nullptr, reading.fault);
    expect(mayCross || !reading.isTaken, "a descriptor crosses that may not");
    for (const int fd : fds)
        expectSoon([fd] { return fcntl(fd, F_GETFD) < 0; }, "a descriptor is left open");
    return 0;
}
