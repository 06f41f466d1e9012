#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "host/channel.h"
#include "raw_client.h"
#include "support/session_fixture.h"
#include "temporary_folder.h"

namespace testing_support {

using android::hardware::camera::common::V1_0::Status;
using kit::kAnswer;
using kit::kCall;
using kit::kConfigure;
using kit::kRefused;
using kit::kRequest;
using kit::kSetCallback;
using kit::RawClient;
using kit::rawMessage;

/** A handle that holds no more than these descriptors, which stay the caller's. */
hidl_handle handleOf(const std::vector<int>& fds);

/** A session that is served on a socket, and a client of it in the same process. */
class TransportFixture : public SessionFixture {
protected:
    TransportFixture();
    ~TransportFixture() override;

    void serve();
    /** Another client. */
    sp<IFDSession> connect() const;
    /** Another one, without manners. */
    RawClient connectRaw() const;
    /** A call answered with this status. */
    static void expectStatus(const Return<Status>& answer, Status status);
    void setUpStream();
    /** What stands behind the colon when the call is refused on its way; empty when it is not. */
    std::string refusalOf(const CaptureRequest& request);
    /** How many log lines have this in them, the letter of their priority in front. */
    int64_t linesWith(const std::string& part) const;
    void notify(FDNotifyMsg msg = {}) { session->sendNotify(msg); }

    /** Waits until no thread is in the callback, or will be. */
    void endCallback();

    const kit::TemporaryFolder folder;
    const std::string path = folder / "socket";
    std::unique_ptr<host::Server> server;
    sp<IFDSession> remote;
};

}  // namespace testing_support
