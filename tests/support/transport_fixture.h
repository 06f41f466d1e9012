#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <memory>
#include <string>

#include "host/channel.h"
#include "support/session_fixture.h"

namespace testing_support {

using android::hardware::camera::common::V1_0::Status;

/** A session that is served on a socket, and a client of it in the same process. */
class TransportFixture : public SessionFixture {
protected:
    TransportFixture() {
        char name[] = "/tmp/fdstream-test-XXXXXX";
        folder = mkdtemp(name);
        path = folder + "/socket";
        session->handleSetCallback(nullptr);  // what a test sets goes through the socket
        serve();
    }
    ~TransportFixture() override {
        remote.clear();
        endCallback();
        server.reset();
        std::filesystem::remove_all(folder);
    }

    void serve() {
        std::string problem;
        server = host::Server::listen(path, client, problem);
        ASSERT_NE(server, nullptr) << problem;
        remote = host::connect<IFDSession>(path, problem);
        ASSERT_NE(remote, nullptr) << problem;
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

    /** Waits until no thread is in the callback, or will be. */
    void endCallback() {
        session->handleSetCallback(nullptr);
        callback.clear();
        deliveries.waitForDeath();
    }

    std::string folder;
    std::string path;
    std::unique_ptr<host::Server> server;
    sp<IFDSession> remote;
};

}  // namespace testing_support
