#pragma once

#include <hidl/HidlSupport.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

#include "host/unique_fd.h"

/**
 * How records are sent. A record lists its fields once, in a specialisation of Fields; writing,
 * reading and every check of a length come from that list. Numbers are sent as they are in memory,
 * because both ends are on one machine. Descriptors go beside the bytes, in the order of the
 * handles that own them.
 */
namespace host {

/** Specialised for each record: `template <typename A, typename R> static void visit(A&, R&)`. */
template <typename Record>
struct Fields;

/**
 * What a descriptor may be that crosses to another process: only kinds that can be closed without
 * waiting. Memory is a memfd (not of huge pages); a fence is an eventfd, a sync file or a pipe's
 * end.
 */
enum class Crossing { MEMORY, FENCE, CHANNEL };

/** A handle of a record, and which kind its descriptors must be. */
template <typename Handle>
struct HandleOf {
    Handle& handle;
    Crossing kind;
};
template <typename Handle>
HandleOf<Handle> memory(Handle& handle) {
    return {handle, Crossing::MEMORY};
}
template <typename Handle>
HandleOf<Handle> fence(Handle& handle) {
    return {handle, Crossing::FENCE};
}

/** A growing string of bytes; a message of the usual size takes one allocation. Value type. */
class Bytes {
public:
    void append(const void* data, size_t size) {
        if (size > mRoom.size() - mSize) makeRoom(size);
        if (size > 0) memcpy(&mRoom[mSize], data, size);
        mSize += size;
    }
    const uint8_t* data() const { return mRoom.data(); }
    size_t size() const { return mSize; }

private:
    void makeRoom(size_t size);

    std::vector<uint8_t> mRoom;
    size_t mSize = 0;
};

/** What is sent after a message's header. The records that it was written from must outlive it. */
struct Outgoing {
    Bytes bytes;
    std::vector<int> fds;              ///< owned by the records, or by `handedOver`
    std::vector<UniqueFd> handedOver;  ///< given to the peer: closed with this record
};

/** What arrived after a message's header. `data` is valid until the channel's next message. */
struct Incoming {
    const uint8_t* data = nullptr;
    size_t size = 0;
    std::vector<UniqueFd> fds;
};

/** Appends values to what is sent. Descriptors are not duplicated here; sending does that. */
class Writer {
public:
    explicit Writer(Outgoing& out) : mOut(out) {}

    template <typename... Values>
    void operator()(const Values&... values) {
        (write(values), ...);
    }
    /** Passes a descriptor on. */
    void descriptor(UniqueFd fd);

private:
    template <typename T>
    void write(const T& value) {
        if constexpr (std::is_arithmetic_v<T> || std::is_enum_v<T>) {
            mOut.bytes.append(&value, sizeof(value));
        } else {
            Fields<T>::visit(*this, value);
        }
    }
    template <typename T>
    void write(const ::android::hardware::hidl_vec<T>& vector) {
        write(static_cast<uint32_t>(vector.size()));
        if constexpr (std::is_arithmetic_v<T>) {
            mOut.bytes.append(vector.data(), vector.size() * sizeof(T));
        } else {
            for (const T& element : vector)
                write(element);
        }
    }
    template <typename Handle>
    void write(const HandleOf<Handle>& carried) {
        const native_handle_t* const handle = carried.handle.getNativeHandle();
        write(handle != nullptr);
        if (handle != nullptr) writeHandle(*handle);
    }
    void writeHandle(const native_handle_t& handle);

    Outgoing& mOut;
};

/** Who sent what arrived. A client's descriptors are checked against what may cross. */
enum class Peer { PROVIDER, CLIENT };

/**
 * Takes values out of what arrived, which is not trusted. The first value that does not fit fails
 * the whole message: from then on nothing is read, and complete() is false. Nothing larger than a
 * handle is allocated before the bytes for it are known to be there.
 *
 * A message that fits but is not wanted is refused: reading goes on, but its descriptors stay in
 * Incoming, and the values must not be used.
 */
class Reader {
public:
    explicit Reader(Incoming& in, Peer peer = Peer::PROVIDER) : mIn(in), mPeer(peer) {}

    template <typename... Values>
    void operator()(Values&&... values) {
        (read(values), ...);
    }
    /** The next descriptor; invalid when none is left, or when the message is refused. */
    [[nodiscard]] UniqueFd descriptor(Crossing kind);
    /** Whether every value fitted, and all bytes and descriptors were taken. */
    [[nodiscard]] bool complete() const;

    /** Refuses the message, with a sentence for its sender; the first refusal counts. */
    void refuse(const std::string& why);
    /** Why the message is refused; empty when it is not. */
    [[nodiscard]] const std::string& refusal() const { return mRefusal; }

private:
    template <typename T>
    void read(T& value) {
        if constexpr (std::is_arithmetic_v<T> || std::is_enum_v<T>) {
            take(&value, sizeof(value));
        } else {
            Fields<T>::visit(*this, value);
        }
    }
    template <typename T>
    void read(::android::hardware::hidl_vec<T>& vector) {
        uint32_t count = 0;
        read(count);
        // A count is wrong when the bytes that are left cannot hold so many of the smallest
        // element.
        if (mFailed || count > left() / smallest<T>()) {
            mFailed = true;
            return;
        }
        vector.resize(count);
        if constexpr (std::is_arithmetic_v<T>) {
            take(vector.data(), count * sizeof(T));
        } else {
            for (T& element : vector)
                read(element);
        }
    }
    template <typename Handle>
    void read(HandleOf<Handle>& carried) {
        uint8_t present = 0;
        read(present);
        if (present > 1) mFailed = true;
        if (present == 1) readHandle(carried.handle, carried.kind);
    }
    void readHandle(::android::hardware::hidl_handle& handle, Crossing kind);

    /** The fewest bytes that a value of this type takes. */
    template <typename T>
    static constexpr size_t smallest() {
        if constexpr (std::is_arithmetic_v<T>) {
            return sizeof(T);
        } else {
            return Fields<T>::kSmallest;
        }
    }
    size_t left() const { return mIn.size - mAt; }
    void take(void* data, size_t size) {
        if (mFailed || size > left()) {
            mFailed = true;
            return;
        }
        if (size > 0) memcpy(data, &mIn.data[mAt], size);
        mAt += size;
    }

    Incoming& mIn;
    const Peer mPeer;
    size_t mAt = 0;
    size_t mNextFd = 0;
    bool mFailed = false;
    std::string mRefusal;
};

}  // namespace host
