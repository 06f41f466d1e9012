#pragma once

#include <utils/StrongPointer.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "IFDControl.h"

namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation {
class FDSession;
}

namespace control {

using vendor::zoru::zoruprovider::fdstream::V1_0::implementation::FDSession;

/**
 * What the provider's camera plays now; empty, or giving nothing, where there is none. Called on
 * any thread, by several at once; must not wait.
 */
using StatusSource = std::function<std::optional<CameraStatus>()>;

/**
 * Serves a session's controls on a socket of their own, in the session's process. Meanwhile it is
 * the session's observer. When it goes the socket is removed, and who follows no longer does.
 */
class ControlServer {
public:
    /** Null, and a sentence in `problem`, as host::Server::listen(). */
    static std::unique_ptr<ControlServer> listen(const std::string& path,
                                                 const ::android::sp<FDSession>& session,
                                                 StatusSource status, std::string& problem);
    virtual ~ControlServer() = default;
};

}  // namespace control
