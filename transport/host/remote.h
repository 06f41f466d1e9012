#pragma once

#include <android/hidl/base/1.0/IBase.h>
#include <hidl/Status.h>

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "host/unique_fd.h"
#include "host/wire.h"

/**
 * Interfaces between processes, for the interface library's proxies and stubs. One idea carries it:
 * an interface is one end of a socket. A channel takes calls one way and answers the other, one at
 * a time; so there is nothing to sort out, a call from inside a call takes another channel, and the
 * death of a peer is the end of its socket. An interface that goes with a call is one end of a
 * fresh channel.
 *
 * Two classes of error never mix. A fault of the peer (bytes that are no message, counts that lie,
 * a method that does not exist, descriptors that were lost) ends that channel with one line in the
 * log. A refusal is an answer like any other.
 */
namespace host {

using ::android::sp;
using ::android::hidl::base::V1_0::IBase;

/**
 * The caller's end of a channel. Any thread may call; calls take turns in their order, and each
 * waits for its turn, its way and its answer no longer than kCallPatience. After a failure on the
 * way the channel is dead for good: later calls fail at once. An answer carries no descriptors.
 * Resource type, shared by its proxy alone.
 */
class CallChannel {
public:
    /** `peer` is who serves the other end; a client's socket is closed where nobody waits for it.
     */
    explicit CallChannel(UniqueFd socket, Peer peer = Peer::PROVIDER);
    ~CallChannel();
    CallChannel(const CallChannel&) = delete;
    CallChannel& operator=(const CallChannel&) = delete;

    /** Sends a call and hands its answer to `read`, which tells whether it made sense. */
    ::android::hardware::Status call(uint32_t method, const Outgoing& out,
                                     const std::function<void(Reader&)>& read);

    /** Told once, on a thread of its own, when the peer has gone; at once when it is gone already.
     */
    bool linkToDeath(const sp<::android::hardware::hidl_death_recipient>& recipient,
                     uint64_t cookie, const ::android::wp<IBase>& who);
    /** On return it is not told any more, or is being told now; this does not wait for that. */
    bool unlinkToDeath(const sp<::android::hardware::hidl_death_recipient>& recipient);

private:
    class DeathWatch;

    UniqueFd mSocket;
    const Peer mPeer;
    const bool mHasTimeout;  // a time-out of the socket's own, which a client's has not

    std::mutex mMutex;
    std::condition_variable mTurn;
    // Guarded by mMutex.
    std::vector<uint64_t> mTickets;  // in the order of the turns; the first has its turn
    uint64_t mNextTicket = 0;
    // What calls fail with once one has failed on its way.
    ::android::hardware::Status mDeath;
    std::vector<std::unique_ptr<DeathWatch>> mWatches;
    // Used by whose turn it is.
    uint32_t mSerial = 0;
    std::vector<uint8_t> mBuffer;
};

/** Takes the calls of one served object apart. */
class Stub {
public:
    virtual ~Stub() = default;
    /**
     * Reads the arguments, calls the object, writes the answer. False when there is no such method,
     * or the arguments do not add up. The object is not called then, nor when the reader refuses
     * what came, which is the answer.
     */
    virtual bool dispatch(uint32_t method, Reader& reader, Writer& writer) = 0;
};

/** How an interface is served and called; registered by the interface library when it is loaded. */
struct InterfaceMakers {
    sp<IBase> (*proxy)(std::unique_ptr<CallChannel> channel);
    std::unique_ptr<Stub> (*stub)(const sp<IBase>& object);
};
void registerInterface(const char* descriptor, const InterfaceMakers& makers);

/**
 * Hands an interface over with a call: the object is served on one end of a fresh channel until the
 * peer lets go of the other. Null is legal. False when no channel could be made.
 */
bool writeInterface(Writer& writer, const char* descriptor, const sp<IBase>& object);
/** What writeInterface() wrote: a proxy, or null. False when it was not that. */
bool readInterface(Reader& reader, const char* descriptor, sp<IBase>& object);

}  // namespace host
