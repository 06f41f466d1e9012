#include "soak_raw.h"

#include <hidl/HidlSupport.h>

#include "host/wire.h"
#include "raw_client.h"
#include "raw_socket.h"

namespace tools {

namespace {

constexpr uint32_t kNothing = 0;

}  // namespace

RawCall rawRequest(uint64_t bufferId, const native_handle_t* handle) {
    const android::hardware::hidl_handle carried(handle);
    host::Outgoing out;
    host::Writer writer(out);
    writer(kNothing, uint64_t{0}, kNothing);                          // frame number, no settings
    writer(int32_t{-1}, uint64_t{0}, false, kNothing, false, false);  // no input buffer
    writer(uint32_t{1}, int32_t{0}, bufferId, host::memory(carried), kNothing, false, false);
    const auto fds = static_cast<uint32_t>(out.fds.size());
    RawCall call = {kit::rawMessage({kit::kCall, kit::kRequest, 1, fds}), out.fds};
    call.bytes.insert(call.bytes.end(), out.bytes.data(), out.bytes.data() + out.bytes.size());
    return call;
}

bool sendCall(int connection, const RawCall& call) {
    return kit::sendRaw(connection, call.bytes.data(), call.bytes.size(), call.fds);
}

}  // namespace tools
