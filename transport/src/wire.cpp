#include "host/wire.h"

#include <algorithm>

#include "closing.h"
#include "descriptor_kind.h"
#include "host/unique_handle.h"

namespace host {

using ::android::hardware::hidl_handle;

namespace {

constexpr size_t kUsualBytes = 256;

/** Why a descriptor may not cross as this; null when it may. */
const char* faultOf(int fd, Crossing kind) {
    switch (kind) {
        case Crossing::MEMORY:
            return detail::isMemory(fd) ? nullptr : "a buffer's handle takes a memfd only";
        case Crossing::FENCE:
            return detail::isFence(fd) ? nullptr
                                       : "a fence takes an eventfd, a sync file or a pipe only";
        case Crossing::CHANNEL:
            break;
    }
    if (!detail::isChannelSocket(fd)) return "an interface takes a channel's socket only";
    // Closing it takes with it what its peer has left in it.
    return detail::isClosingBehind() ? "too much of what clients sent waits to be closed" : nullptr;
}

}  // namespace

void Bytes::makeRoom(size_t size) {
    mRoom.resize(std::max(kUsualBytes, 2 * (mSize + size)));
}

void Writer::descriptor(UniqueFd fd) {
    mOut.fds.push_back(fd.get());
    mOut.handedOver.push_back(std::move(fd));
}

void Writer::writeHandle(const native_handle_t& handle) {
    write(handle.numFds);
    write(handle.numInts);
    mOut.bytes.append(&handle.data[handle.numFds],
                      static_cast<size_t>(handle.numInts) * sizeof(int));
    mOut.fds.insert(mOut.fds.end(), &handle.data[0], &handle.data[handle.numFds]);
}

UniqueFd Reader::descriptor(Crossing kind) {
    if (mFailed || mNextFd == mIn.fds.size()) {
        mFailed = true;
        return {};
    }
    UniqueFd& next = mIn.fds[mNextFd++];
    if (mPeer == Peer::CLIENT) {
        if (const char* const fault = faultOf(next.get(), kind)) refuse(fault);
    }
    return mRefusal.empty() ? std::move(next) : UniqueFd();
}

void Reader::refuse(const std::string& why) {
    if (mRefusal.empty()) mRefusal = why;
}

void Reader::readHandle(hidl_handle& handle, Crossing kind) {
    int32_t numFds = 0;
    int32_t numInts = 0;
    read(numFds);
    read(numInts);
    UniqueHandle native(native_handle_create(numFds, numInts));
    if (native == nullptr) {  // more than a handle may have, or less than none
        mFailed = true;
        return;
    }
    take(&native->data[numFds], static_cast<size_t>(numInts) * sizeof(int));
    for (int i = 0; i < numFds; ++i)
        native->data[i] = descriptor(kind).release();
    handle.setTo(native.release(), true);
}

bool Reader::complete() const {
    return !mFailed && left() == 0 && mNextFd == mIn.fds.size();
}

}  // namespace host
