#pragma once

#include <sys/types.h>
#include <utils/StrongPointer.h>
#include <vendor/zoru/zoruprovider/fdstream/1.0/IFDSession.h>

#include <memory>
#include <string>
#include <vector>

#include "child_process.h"

namespace tools {

/** A provider that was started for a scene or more. Killed with this object if it was not stopped.
 */
class ProviderProcess {
public:
    /** A provider that listens, at a place of its own. Null after a sentence on stderr. */
    static std::unique_ptr<ProviderProcess> start(std::vector<std::string> arguments);

    pid_t id() const { return mChild->id(); }
    const std::string& socket() const { return mSocket; }
    /** A connection of its own; null after a sentence on stderr. */
    android::sp<vendor::zoru::zoruprovider::fdstream::V1_0::IFDSession> connect() const;
    /** Turns the frames that come from now on. False after a sentence on stderr. */
    bool flip();
    /** Ends it in order. False after a sentence on stderr. */
    bool stop();

private:
    ProviderProcess(std::unique_ptr<kit::ChildProcess> child, std::string socket)
        : mChild(std::move(child)), mSocket(std::move(socket)) {}

    const std::unique_ptr<kit::ChildProcess> mChild;
    const std::string mSocket;
};

}  // namespace tools
