#pragma once

#include <android-base/thread_annotations.h>
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
 * Interfaces between processes. One idea carries it: an interface is one end of a socket. A channel
 * carries calls one way and answers the other way, one at a time. So answers need not be matched to
 * calls, a call made from inside a call uses another channel, and a peer's death is the end of its
 * socket. An interface that is passed in a call is one end of a new channel.
 *
 * Two classes of error never mix. A fault of the peer (bytes that are no message, wrong counts, a
 * method that does not exist, lost descriptors) ends that channel with one line in the log. A
 * refusal is an answer like any other.
 */
namespace host {

using ::android::sp;
using ::android::hidl::base::V1_0::IBase;

/**
 * The caller's end of a channel, owned by one proxy. Any thread may call; calls take turns, first
 * come first served, and none takes longer than kCallPatience. Once a call has failed on its way
 * the channel stays dead: later calls fail at once. An answer carries no descriptors. Resource
 * type.
 */
class CallChannel {
public:
    /** `peer` serves the other end. A client's socket is closed in the background. */
    explicit CallChannel(UniqueFd socket, Peer peer = Peer::PROVIDER);
    ~CallChannel();
    CallChannel(const CallChannel&) = delete;
    CallChannel& operator=(const CallChannel&) = delete;

    /** Sends a call and has `read` take the values out of its answer. */
    [[nodiscard]] ::android::hardware::Status call(uint32_t method, const Outgoing& out,
                                                   const std::function<void(Reader&)>& read);

    /** Tells the recipient once, on a thread of its own, when the peer is gone (or is gone
     * already).
     */
    bool linkToDeath(const sp<::android::hardware::hidl_death_recipient>& recipient,
                     uint64_t cookie, const ::android::wp<IBase>& who);
    /** After the return it is not told any more, unless it is being told now; does not wait. */
    bool unlinkToDeath(const sp<::android::hardware::hidl_death_recipient>& recipient);

private:
    class DeathWatch;

    UniqueFd mSocket;
    const Peer mPeer;
    const bool mHasTimeout;  // whether the socket has a receive time-out; a client's has none

    std::mutex mMutex;
    std::condition_variable mTurn;
    // Of the waiting calls; the first one has its turn.
    std::vector<uint64_t> mTickets GUARDED_BY(mMutex);
    uint64_t mNextTicket GUARDED_BY(mMutex) = 0;
    // The failure of every further call once one has failed on its way.
    ::android::hardware::Status mDeath GUARDED_BY(mMutex);
    std::vector<std::unique_ptr<DeathWatch>> mWatches GUARDED_BY(mMutex);
    // Used by the call that has its turn.
    uint32_t mSerial = 0;
    std::vector<uint8_t> mBuffer;
};

/** Turns the messages of a channel into calls of one served object. */
class Stub {
public:
    virtual ~Stub() = default;
    /**
     * Reads the arguments, calls the object, writes the answer. False, without calling the object,
     * when there is no such method or the arguments are malformed. When the reader refuses what
     * arrived the object is not called either, and the refusal is the answer.
     */
    [[nodiscard]] virtual bool dispatch(uint32_t method, Reader& reader, Writer& writer) = 0;
};

/** How to make proxies and stubs of an interface; registered when this library is loaded. */
struct InterfaceMakers {
    sp<IBase> (*proxy)(std::unique_ptr<CallChannel> channel);
    std::unique_ptr<Stub> (*stub)(const sp<IBase>& object);
};
void registerInterface(const char* descriptor, const InterfaceMakers& makers);

/**
 * Passes an interface along with a call: the object is served on one end of a new channel until the
 * peer closes the other end. Null is legal. False when no channel could be made.
 */
[[nodiscard]] bool writeInterface(Writer& writer, const char* descriptor, const sp<IBase>& object);
/** Reads what writeInterface() wrote: a proxy, or null. False when something else is there. */
[[nodiscard]] bool readInterface(Reader& reader, const char* descriptor, sp<IBase>& object);

}  // namespace host
