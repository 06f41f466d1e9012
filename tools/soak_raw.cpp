#include "soak_raw.h"

#include <hidl/HidlSupport.h>

#include "host/wire.h"
#include "raw_socket.h"

namespace tools {

namespace {

constexpr uint32_t kCall = 0x464443;
constexpr uint32_t kSetCallback = 1;
constexpr uint32_t kRequest = 3;
constexpr uint32_t kNothing = 0;
constexpr uint32_t kSerial = 1;

RawCall callOf(uint32_t method, const host::Outgoing& arguments) {
    host::Outgoing out;
    host::Writer writer(out);
    writer(kCall, method, kSerial, static_cast<uint32_t>(arguments.fds.size()));
    out.bytes.append(arguments.bytes.data(), arguments.bytes.size());
    return {{out.bytes.data(), out.bytes.data() + out.bytes.size()}, arguments.fds};
}

}  // namespace

RawCall rawRequest(uint64_t bufferId, const native_handle_t* handle) {
    const android::hardware::hidl_handle carried(handle);
    host::Outgoing out;
    host::Writer writer(out);
    writer(kNothing, uint64_t{0}, kNothing);                          // frame number, no settings
    writer(int32_t{-1}, uint64_t{0}, false, kNothing, false, false);  // no input buffer
    writer(uint32_t{1}, int32_t{0}, bufferId, host::memory(carried), kNothing, false, false);
    return callOf(kRequest, out);
}

RawCall rawCallback(int socket) {
    host::Outgoing out;
    host::Writer writer(out);
    writer(true);
    out.fds.push_back(socket);
    return callOf(kSetCallback, out);
}

bool sendCall(int connection, const RawCall& call) {
    return kit::sendRaw(connection, call.bytes.data(), call.bytes.size(), call.fds);
}

}  // namespace tools
