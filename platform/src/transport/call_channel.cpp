#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <thread>

#include "host/limits.h"
#include "host/remote.h"
#include "socket.h"
#include "start_thread.h"

namespace host {

using ::android::hardware::hidl_death_recipient;
using ::android::hardware::Status;
using detail::Failure;
using detail::Header;

namespace {

std::string noAnswer() {
    return "no answer within " + std::to_string(kCallPatience.count()) + " ms";
}

}  // namespace

/** Waits for the end of the socket on a thread of its own; destroying it calls the wait off. */
class CallChannel::DeathWatch {
public:
    explicit DeathWatch(sp<hidl_death_recipient> recipient)
        : mRecipient(std::move(recipient)), mStop(eventfd(0, EFD_CLOEXEC)) {}
    ~DeathWatch() {
        if (!mThread.joinable()) return;
        eventfd_write(mStop.get(), 1);
        // The recipient may be what lets go of the proxy, on this very thread.
        if (mThread.get_id() == std::this_thread::get_id()) {
            mThread.detach();
        } else {
            mThread.join();
        }
    }
    DeathWatch(const DeathWatch&) = delete;
    DeathWatch& operator=(const DeathWatch&) = delete;

    /** False when there is no descriptor or no thread for it. */
    bool start(int socket, uint64_t cookie, const ::android::wp<IBase>& who) {
        // Everything by value: the recipient may let go of this watch while it is being told.
        const auto watch = [socket, stop = mStop.get(), told = mRecipient, cookie, who] {
            pollfd entries[] = {{socket, POLLRDHUP, 0}, {stop, POLLIN, 0}};
            while (poll(entries, 2, -1) < 0 && errno == EINTR) {
            }
            if (entries[1].revents == 0) told->serviceDied(cookie, who);
        };
        return mStop.isValid() && detail::startThread(mThread, "death", watch);
    }

    bool tells(const sp<hidl_death_recipient>& recipient) const { return mRecipient == recipient; }

private:
    const sp<hidl_death_recipient> mRecipient;
    const UniqueFd mStop;
    std::thread mThread;
};

CallChannel::CallChannel(UniqueFd socket) : mSocket(std::move(socket)) {}

CallChannel::~CallChannel() = default;

Status CallChannel::call(uint32_t method, const Outgoing& out,
                         const std::function<void(Reader&)>& read) {
    const auto deadline = std::chrono::steady_clock::now() + kCallPatience;
    std::unique_lock<std::mutex> lock(mMutex);
    if (!mTurn.wait_until(lock, deadline, [this] { return !mBusy || mDead; })) {
        return Status::fromStatusT(::android::TIMED_OUT, noAnswer().c_str());
    }
    if (mDead) {
        return Status::fromStatusT(::android::DEAD_OBJECT, "the peer has closed the connection");
    }
    mBusy = true;
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
        failure = detail::receiveMessage(mSocket.get(), answer, mBuffer, in, deadline);
        alive = failure.isOk() && answer.serial == header.serial && answer.kind != Header::CALL;
        if (!failure.isOk()) return failure;
        if (!alive) return {::android::FAILED_TRANSACTION, "the answer is to another call"};
        if (answer.kind == Header::REFUSED) {
            return {::android::FAILED_TRANSACTION,
                    std::string(reinterpret_cast<const char*>(in.data), in.size)};
        }
        Reader reader(in);
        read(reader);
        alive = reader.complete();
        if (!alive) return {::android::FAILED_TRANSACTION, "the answer does not add up"};
        return {};
    };
    const Failure failure = exchange();

    lock.lock();
    mBusy = false;
    if (!alive) {
        mDead = true;
        shutdown(mSocket.get(), SHUT_RDWR);
    }
    mTurn.notify_all();
    lock.unlock();
    if (failure.isOk()) return Status::ok();
    const std::string text = failure.text.empty() ? noAnswer() : failure.text;
    return Status::fromStatusT(failure.status, text.c_str());
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
    std::unique_ptr<DeathWatch> ended;  // ends after the lock: it waits for its thread
    const std::lock_guard<std::mutex> lock(mMutex);
    const auto found = std::find_if(mWatches.begin(), mWatches.end(),
                                    [&](const auto& watch) { return watch->tells(recipient); });
    if (found == mWatches.end()) return false;
    ended = std::move(*found);
    mWatches.erase(found);
    return true;
}

}  // namespace host
