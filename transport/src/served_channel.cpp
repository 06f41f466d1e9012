#include "served_channel.h"

#include <android/log.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "closing.h"
#include "host/descriptor_bound.h"
#include "host/limits.h"
#include "socket.h"
#include "start_thread.h"

#define LOG_TAG "transport"

namespace host::detail {

namespace {

void logEnd(const char* why) {
    __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "a channel ends: %s", why);
}

bool answer(int socket, const Header& call, Header::Kind kind, const Outgoing& out) {
    const Header header = {kind, call.method, call.serial, static_cast<uint32_t>(out.fds.size())};
    const Failure failure =
        sendMessage(socket, header, out, std::chrono::steady_clock::now() + kCallPatience);
    if (!failure.isOk() && failure.status != ::android::DEAD_OBJECT) {
        logEnd(failure.text.empty() ? "the peer does not read its answers" : failure.text.c_str());
    }
    return failure.isOk();
}

bool refuse(int socket, const Header& call, const std::string& why) {
    Outgoing out;
    out.bytes.append(why.data(), why.size());
    return answer(socket, call, Header::REFUSED, out);
}

/** Reports a call to the watches of the served object, for the scope of this object. */
class WatchedCall {
public:
    explicit WatchedCall(const Watches& watches) : mWatches(watches) {
        for (const auto& calls : mWatches)
            calls->begin();
    }
    ~WatchedCall() {
        for (const auto& calls : mWatches)
            calls->end();
    }
    WatchedCall(const WatchedCall&) = delete;
    WatchedCall& operator=(const WatchedCall&) = delete;

private:
    const Watches& mWatches;
};

/** What came with a call. Closes what was not used of it at the end. */
struct Arrival {
    Arrival() = default;
    ~Arrival() { closeUnused(in.fds); }
    Arrival(const Arrival&) = delete;
    Arrival& operator=(const Arrival&) = delete;

    Header call = {};
    Incoming in;
};

/** Refuses a call. False when the channel has to end, because too much waits to be closed. */
bool refuseAndClose(int socket, Arrival& arrival, const std::string& why) {
    const bool answered = refuse(socket, arrival.call, why);
    auto& fds = arrival.in.fds;
    const bool isAnyLeft =
        std::any_of(fds.begin(), fds.end(), [](const UniqueFd& fd) { return fd.isValid(); });
    closeUnused(fds);
    if (!isAnyLeft || !isClosingBehind()) return answered;
    logEnd("it brings what has to be closed, and too much waits for that already");
    return false;
}

/** Serves one call. False when the channel has ended; `end` then says how. */
bool serveOne(int socket, Stub& stub, Peer peer, std::vector<uint8_t>& buffer,
              const Watches& watches, ServedEnd& end) {
    Arrival arrival;
    auto& [call, in] = arrival;
    const Failure failure = receiveMessage(socket, call, buffer, in, {});
    const WatchedCall watched(watches);
    if (!failure.isOk()) {
        if (failure.status == ::android::DEAD_OBJECT) return false;
        logEnd(failure.text.c_str());
        // A call that lost its descriptors has all of its bytes, so its caller can be told.
        if (failure.status == ::android::NO_MEMORY) refuse(socket, call, failure.text);
        return false;
    }
    if (call.kind != Header::CALL) {
        logEnd("bytes that are no call");
        return false;
    }
    const bool isShort = std::any_of(in.fds.begin(), in.fds.end(),
                                     [](const UniqueFd& fd) { return isBeyondBound(fd.get()); });
    if (isShort) return refuseAndClose(socket, arrival, "too few descriptor slots are free");
    Reader reader(in, peer);
    Outgoing out;
    Writer writer(out);
    if (!stub.dispatch(call.method, reader, writer)) {
        logEnd("no such method, or arguments that do not add up");
        return false;
    }
    if (!reader.refusal().empty()) return refuseAndClose(socket, arrival, reader.refusal());
    const bool answered = answer(socket, call, Header::ANSWER, out);
    if (!answered) end = ServedEnd::GIVEN_UP;
    return answered;
}

}  // namespace

ServedEnd serveChannel(int socket, Stub& stub, Peer peer, const Watches& watches) {
    std::vector<uint8_t> buffer;
    ServedEnd end = ServedEnd::LET_GO;
    while (serveOne(socket, stub, peer, buffer, watches, end)) {
    }
    shutdown(socket, SHUT_RDWR);
    return end;
}

bool serveDetached(UniqueFd socket, const sp<IBase>& object, std::unique_ptr<Stub> stub) {
    auto serve = [socket = std::move(socket), stub = std::move(stub),
                  watches = watchesOf(object.get())] {
        const ServedEnd end = serveChannel(socket.get(), *stub, Peer::PROVIDER, watches);
        for (const auto& calls : watches)
            calls->channelEnded(end);
    };
    std::thread thread;
    const bool started = startThread(thread, "callback", std::move(serve));
    if (started) thread.detach();
    return started;
}

bool makePair(UniqueFd& one, UniqueFd& other) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) return false;
    one.reset(ends[0]);
    other.reset(ends[1]);
    return true;
}

}  // namespace host::detail
