#pragma once

#include <vendor/zoru/zoruprovider/fdstream/1.0/IFDSessionCallback.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <tuple>
#include <vector>

#include "IFDControl.h"
#include "host/limits.h"
#include "host/remote.h"
#include "src/closing.h"
#include "src/control_fields.h"
#include "src/record_fields.h"
#include "src/socket.h"

namespace fuzz {

using namespace android::hardware::camera::device::V3_2;     // NOLINT: the records' own
using namespace vendor::zoru::zoruprovider::fdstream::V1_0;  // NOLINT: the interfaces' own
using android::hardware::hidl_vec;
using android::hardware::camera::common::V1_0::Status;
using host::detail::Header;

/** Behind the end of a channel that reads a message: to its number a method's is added. */
enum Served : uint32_t { SESSION = 100, CALLBACK = 200, CONTROL = 300 };

/** What became of a message. */
struct Reading {
    bool isTaken = false;         ///< all of it was read as what its method takes
    const char* fault = nullptr;  ///< what is wrong with that; null when all is as it has to be
};

/** Reads what comes with a message, and writes it again. False when it is something else. */
template <typename... Records>
bool rewrite(host::Reader& reader, host::Outgoing& out) {
    std::tuple<Records...> records;
    std::apply(reader, records);
    std::apply(host::Writer{out}, records);
    return reader.complete() && reader.refusal().empty();
}

/** The descriptor of a callback is its proxy's, and not written again. */
inline bool rewriteCallback(host::Reader& reader, host::Outgoing& out) {
    android::sp<host::IBase> callback;
    const bool isOne = host::readInterface(reader, IFDSessionCallback::descriptor, callback);
    host::Writer{out}(callback != nullptr);
    return isOne && reader.complete() && reader.refusal().empty();
}

constexpr uint32_t kAnswerTo = 50;
/** By who is served and a method's number. */
inline const std::map<uint32_t, bool (*)(host::Reader&, host::Outgoing&)> kReaders = {
    {SESSION + 1, rewriteCallback},
    {SESSION + 2, rewrite<StreamConfiguration>},
    {SESSION + 3, rewrite<CaptureRequest>},
    {SESSION + kAnswerTo + 1, rewrite<Status>},
    {CALLBACK + 1, rewrite<hidl_vec<CaptureResult>>},
    {CALLBACK + 2, rewrite<hidl_vec<FDNotifyMsg>>},
    {CONTROL + 14, rewrite<control::Followed>},
    {CONTROL + kAnswerTo, rewrite<control::Answer, control::Event>},
    {CONTROL + kAnswerTo + 1, rewrite<control::Answer, control::CameraStatus>}};

/**
 * Reads a message as an end of a channel does, and looks whether it was right to take it: then what
 * it was read as, written again, is this message, with these descriptors. They are closed
 * afterwards, in the background if need be.
 */
inline Reading readMessage(Served served, host::Peer from, const std::vector<uint8_t>& message,
                           const std::vector<int>& fds) {
    host::Incoming in;
    for (const int fd : fds)
        in.fds.emplace_back(fd);
    Header header = {};
    const auto failure = host::detail::parseMessage(message.data(), message.size(), 0, header, in);
    const bool isKnown = header.kind == Header::CALL || header.kind == Header::ANSWER ||
                         header.kind == Header::REFUSED;
    const bool isMessage = message.size() >= sizeof(header) && isKnown &&
                           header.fds == fds.size() && fds.size() <= host::kMaxMessageFds;
    if (failure.isOk() != isMessage) return {false, "a message is none, or the other way round"};
    if (!failure.isOk()) return {false, failure.text.empty() ? "nothing says why" : nullptr};
    host::Reader reader(in, from);
    host::Outgoing out;
    const auto found = kReaders.find(
        served + (header.kind == Header::CALL ? header.method : kAnswerTo + header.method % 2));
    const bool isTaken = (found == kReaders.end() ? rewrite<> : found->second)(reader, out);
    const bool isSame = std::equal(in.data, in.data + in.size, out.bytes.data(),
                                   out.bytes.data() + out.bytes.size()) &&
                        (out.fds == fds || (served == SESSION && header.method == 1));
    // A client's are looked at first, which costs more than all the rest.
    if (from == host::Peer::CLIENT) host::detail::closeUnused(in.fds);
    return {isTaken, !isTaken || isSame ? nullptr : "something else was read than came"};
}

/** The message of this header and these values. */
template <typename... Values>
std::vector<uint8_t> messageOf(const Header& header, const Values&... values) {
    host::Outgoing out;
    out.bytes.append(&header, sizeof(header));
    host::Writer{out}(values...);
    return {out.bytes.data(), out.bytes.data() + out.bytes.size()};
}

}  // namespace fuzz
