#include <android-base/thread_annotations.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <memory>
#include <set>
#include <thread>
#include <utility>

#include "closing.h"
#include "host/channel.h"
#include "host/limits.h"
#include "host/remote.h"
#include "host/unique_lock.h"
#include "socket.h"
#include "start_thread.h"

namespace host {

using ::android::hardware::hidl_death_recipient;
using ::android::hardware::Status;
using detail::Failure;
using detail::Header;

namespace {

/** Of the channels to clients. Never destroyed, because a thread may still call during the exit. */
struct ClientSockets {
    std::mutex mutex;
    std::set<int> open GUARDED_BY(mutex);
};

ClientSockets& clientSockets() {
    static auto* const instance = new ClientSockets;
    return *instance;
}

std::string noAnswer() {
    return "no answer within " + std::to_string(kCallPatience.count()) + " ms";
}

Status statusOf(const Failure& failure) {
    if (failure.isOk()) return {};
    return Status::fromStatusT(failure.status,
                               (failure.text.empty() ? noAnswer() : failure.text).c_str());
}

/** The beginning of what the peer says, with every character that is not printable replaced. */
std::string printable(const Incoming& in) {
    constexpr size_t kMost = 120;
    std::string text(reinterpret_cast<const char*>(in.data), std::min(in.size, kMost));
    std::replace_if(
        text.begin(), text.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
    return text;
}

}  // namespace

/**
 * Waits for the end of the socket on a thread of its own. Destroying it cancels that, without
 * waiting for the thread: the recipient may be what destroys it, or may wait for whoever does.
 */
class CallChannel::DeathWatch {
public:
    explicit DeathWatch(const sp<hidl_death_recipient>& recipient)
        : mShared(std::make_shared<Shared>()) {
        mShared->recipient = recipient;
    }
    ~DeathWatch() {
        sp<hidl_death_recipient> cancelled;  // may be the last one, so it goes after the lock
        const std::lock_guard<std::mutex> lock(mShared->mutex);
        std::swap(cancelled, mShared->recipient);
        if (mShared->stop.isValid()) eventfd_write(mShared->stop.get(), 1);
    }
    DeathWatch(const DeathWatch&) = delete;
    DeathWatch& operator=(const DeathWatch&) = delete;

    /** False when there are no descriptors or no thread for it. */
    bool start(int socket, uint64_t cookie, const ::android::wp<IBase>& who) {
        mShared->socket.reset(fcntl(socket, F_DUPFD_CLOEXEC, 0));
        mShared->stop.reset(eventfd(0, EFD_CLOEXEC));
        if (!mShared->socket.isValid() || !mShared->stop.isValid()) return false;
        std::thread thread;
        const auto watch = [shared = mShared, cookie, who] {
            pollfd entries[] = {{shared->socket.get(), POLLRDHUP, 0},
                                {shared->stop.get(), POLLIN, 0}};
            while (poll(entries, 2, -1) < 0 && errno == EINTR) {
            }
            const sp<hidl_death_recipient> told = shared->end();
            if (told != nullptr) told->serviceDied(cookie, who);
        };
        if (!detail::startThread(thread, "death", watch)) return false;
        thread.detach();
        return true;
    }

    bool tells(const sp<hidl_death_recipient>& recipient) const {
        const std::lock_guard<std::mutex> lock(mShared->mutex);
        return mShared->recipient == recipient;
    }

private:
    /** Shared with the thread, which may end later than the watch. */
    struct Shared {
        /** The recipient to tell; null when that was cancelled. */
        sp<hidl_death_recipient> end() {
            UniqueFd closedLast;  // closed without the mutex, because that can wait for the peer
            const std::lock_guard<std::mutex> lock(mutex);
            closedLast = std::move(socket);
            stop.reset();
            return std::exchange(recipient, nullptr);
        }

        std::mutex mutex;
        // Closed by the thread at its end, under mutex; its thread reads them without.
        UniqueFd socket;
        UniqueFd stop;
        sp<hidl_death_recipient> recipient GUARDED_BY(mutex);  // null once told or cancelled
    };

    const std::shared_ptr<Shared> mShared;
};

CallChannel::CallChannel(UniqueFd socket, Peer peer)
    : mSocket(std::move(socket)),
      mPeer(peer),
      mHasTimeout(peer == Peer::PROVIDER && detail::setReceiveTimeout(mSocket.get())) {
    if (mPeer != Peer::CLIENT) return;
    const std::lock_guard<std::mutex> lock(clientSockets().mutex);
    clientSockets().open.insert(mSocket.get());
}

CallChannel::~CallChannel() {
    if (mPeer != Peer::CLIENT) return;
    {
        const std::lock_guard<std::mutex> lock(clientSockets().mutex);
        clientSockets().open.erase(mSocket.get());
    }
    detail::closeLater(std::move(mSocket));
}

void hangUpOnClients() {
    const std::lock_guard<std::mutex> lock(clientSockets().mutex);
    for (const int socket : clientSockets().open)
        shutdown(socket, SHUT_RDWR);
}

Status CallChannel::call(uint32_t method, const Outgoing& out,
                         const std::function<void(Reader&)>& read) {
    const auto deadline = std::chrono::steady_clock::now() + kCallPatience;
    UniqueLock lock(mMutex);
    const uint64_t ticket = mNextTicket++;
    mTickets.push_back(ticket);
    const bool hasTurn = mTurn.wait_until(lock, deadline, [&]() REQUIRES(mMutex) {
        return mTickets.front() == ticket || !mDeath.isOk();
    });
    if (!hasTurn || !mDeath.isOk()) {
        mTickets.erase(std::find(mTickets.begin(), mTickets.end(), ticket));
        return hasTurn ? mDeath : statusOf({::android::TIMED_OUT, {}});
    }
    lock.unlock();

    Header header = {Header::CALL, method, ++mSerial, static_cast<uint32_t>(out.fds.size())};
    Incoming in;
    bool alive = true;
    const auto exchange = [&]() -> Failure {
        Failure failure = detail::sendMessage(mSocket.get(), header, out, deadline);
        if (failure.status == ::android::FAILED_TRANSACTION) return failure;  // nothing was sent
        alive = failure.isOk();
        if (!alive) return failure;
        Header answer = {};
        failure = detail::receiveMessage(mSocket.get(), answer, mBuffer, in, deadline, mHasTimeout);
        alive = failure.isOk() && in.fds.empty() && answer.serial == header.serial &&
                answer.kind != Header::CALL;
        if (!failure.isOk()) return failure;
        if (!in.fds.empty())
            return {::android::FAILED_TRANSACTION, "the answer brings descriptors"};
        if (!alive) return {::android::FAILED_TRANSACTION, "the answer is to another call"};
        if (answer.kind == Header::REFUSED) {
            return {::android::FAILED_TRANSACTION, printable(in)};
        }
        Reader reader(in);
        read(reader);
        alive = reader.complete();
        if (!alive) return {::android::FAILED_TRANSACTION, "the answer does not add up"};
        return {};
    };
    const Failure failure = exchange();
    detail::closeUnused(in.fds);

    lock.lock();
    mTickets.erase(mTickets.begin());
    if (!alive) {
        mDeath = statusOf({::android::DEAD_OBJECT, failure.text});
        shutdown(mSocket.get(), SHUT_RDWR);
    }
    mTurn.notify_all();
    return statusOf(failure);
}

bool CallChannel::linkToDeath(const sp<hidl_death_recipient>& recipient, uint64_t cookie,
                              const ::android::wp<IBase>& who) {
    if (recipient == nullptr) return false;
    auto watch = std::make_unique<DeathWatch>(recipient);
    const std::lock_guard<std::mutex> lock(mMutex);
    if (!watch->start(mSocket.get(), cookie, who)) return false;
    mWatches.push_back(std::move(watch));
    return true;
}

bool CallChannel::unlinkToDeath(const sp<hidl_death_recipient>& recipient) {
    if (recipient == nullptr) return false;
    std::unique_ptr<DeathWatch> ended;  // destroyed after the lock, with it perhaps the recipient
    const std::lock_guard<std::mutex> lock(mMutex);
    const auto found = std::find_if(mWatches.begin(), mWatches.end(),
                                    [&](const auto& watch) { return watch->tells(recipient); });
    if (found == mWatches.end()) return false;
    ended = std::move(*found);
    mWatches.erase(found);
    return true;
}

}  // namespace host
