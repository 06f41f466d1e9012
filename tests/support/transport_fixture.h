#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "host/channel.h"
#include "raw_client.h"
#include "support/session_fixture.h"
#include "temporary_folder.h"

namespace testing_support {

using android::hardware::camera::common::V1_0::Status;
using namespace kit;  // NOLINT: what a hostile client says

/** A handle that holds no more than these descriptors, which stay the caller's. */
inline hidl_handle handleOf(const std::vector<int>& fds) {
    native_handle_t* const native = native_handle_create(static_cast<int>(fds.size()), 0);
    std::copy(fds.begin(), fds.end(), &native->data[0]);
    hidl_handle duplicate(static_cast<const hidl_handle&>(hidl_handle(native)));
    native_handle_delete(native);
    return duplicate;
}

/** A session that is served on a socket, and a client of it in the same process. */
class TransportFixture : public SessionFixture {
protected:
    TransportFixture() {
        session->handleSetCallback(nullptr);  // what a test sets goes through the socket
        serve();
    }
    ~TransportFixture() override {
        remote.clear();
        // Until no thread is in the callback, or will be.
        session->handleSetCallback(nullptr);
        callback.clear();
        deliveries.waitForDeath();
    }

    void serve() {
        server = host::Server::listen(path, client, reason);
        ASSERT_NE(server, nullptr) << reason;
        remote = connect();
    }
    /** Another client. */
    sp<IFDSession> connect() {
        sp<IFDSession> another = host::connect<IFDSession>(path, reason);
        EXPECT_NE(another, nullptr) << reason;
        return another;
    }
    /** Another one, without manners. */
    RawClient connectRaw() const {
        RawClient raw(path);
        EXPECT_TRUE(raw.connect());
        return raw;
    }
    /** A call answered with this status. */
    static void expectStatus(const Return<Status>& answer, Status status) {
        ASSERT_TRUE(answer.isOk()) << answer.description();
        EXPECT_EQ(static_cast<Status>(answer), status);
    }
    void setUpStream() {
        expectStatus(remote->setCallback(callback), Status::OK);
        expectStatus(remote->configure(configurationOf(0)), Status::OK);
    }
    /** What stands behind the colon when the call is refused on its way; empty when it is not. */
    std::string refusalOf(const CaptureRequest& request) {
        const Return<Status> answer = remote->processCaptureRequest(request);
        const std::string text = answer.isOk() ? "" : answer.description();
        return text.substr(text.find(": ", text.find("FAILED_TRANSACTION")) + 1);
    }
    void notify(FDNotifyMsg msg = {}) { session->sendNotify(msg); }

    const kit::TemporaryFolder folder;
    const std::string path = folder / "socket";
    std::string reason;  ///< of whoever could not listen or connect
    std::unique_ptr<host::Server> server;
    sp<IFDSession> remote;
};

}  // namespace testing_support
