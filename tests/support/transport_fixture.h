#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "host/channel.h"
#include "support/raw_client.h"
#include "support/session_fixture.h"
#include "temporary_folder.h"

namespace testing_support {

using android::hardware::camera::common::V1_0::Status;

/** A session that is served on a socket, and a client of it in the same process. */
class TransportFixture : public SessionFixture {
protected:
    TransportFixture() {
        session->handleSetCallback(nullptr);  // what a test sets goes through the socket
        serve();
    }
    ~TransportFixture() override {
        remote.clear();
        endCallback();
        server.reset();
    }

    void serve() {
        std::string problem;
        server = host::Server::listen(path, client, problem);
        ASSERT_NE(server, nullptr) << problem;
        remote = connect();
    }
    /** Another client. */
    sp<IFDSession> connect() const {
        std::string problem;
        sp<IFDSession> another = host::connect<IFDSession>(path, problem);
        EXPECT_NE(another, nullptr) << problem;
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
    void notify(FDNotifyMsg msg = {}) { session->sendNotify(msg); }

    /** Waits until no thread is in the callback, or will be. */
    void endCallback() {
        session->handleSetCallback(nullptr);
        callback.clear();
        deliveries.waitForDeath();
    }

    const kit::TemporaryFolder folder;
    const std::string path = folder / "socket";
    std::unique_ptr<host::Server> server;
    sp<IFDSession> remote;
};

}  // namespace testing_support
