#include "support/transport_fixture.h"

#include <algorithm>

namespace testing_support {

hidl_handle handleOf(const std::vector<int>& fds) {
    native_handle_t* const native = native_handle_create(static_cast<int>(fds.size()), 0);
    std::copy(fds.begin(), fds.end(), &native->data[0]);
    hidl_handle borrowed(native);
    hidl_handle owned(borrowed);
    native_handle_delete(native);
    return owned;
}

TransportFixture::TransportFixture() {
    session->handleSetCallback(nullptr);  // what a test sets goes through the socket
    serve();
}

TransportFixture::~TransportFixture() {
    remote.clear();
    endCallback();
    server.reset();
}

void TransportFixture::serve() {
    std::string problem;
    server = host::Server::listen(path, client, problem);
    ASSERT_NE(server, nullptr) << problem;
    remote = connect();
}

sp<IFDSession> TransportFixture::connect() const {
    std::string problem;
    sp<IFDSession> another = host::connect<IFDSession>(path, problem);
    EXPECT_NE(another, nullptr) << problem;
    return another;
}

RawClient TransportFixture::connectRaw() const {
    RawClient raw(path);
    EXPECT_TRUE(raw.connect());
    return raw;
}

void TransportFixture::expectStatus(const Return<Status>& answer, Status status) {
    ASSERT_TRUE(answer.isOk()) << answer.description();
    EXPECT_EQ(static_cast<Status>(answer), status);
}

void TransportFixture::setUpStream() {
    expectStatus(remote->setCallback(callback), Status::OK);
    expectStatus(remote->configure(configurationOf(0)), Status::OK);
}

std::string TransportFixture::refusalOf(const CaptureRequest& request) {
    const Return<Status> answer = remote->processCaptureRequest(request);
    const std::string text = answer.isOk() ? "" : answer.description();
    return text.substr(text.find(": ", text.find("FAILED_TRANSACTION")) + 1);
}

int64_t TransportFixture::linesWith(const std::string& part) const {
    const Lines lines = log.said();
    return std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
        return line.find(part) != std::string::npos;
    });
}

void TransportFixture::endCallback() {
    session->handleSetCallback(nullptr);
    callback.clear();
    deliveries.waitForDeath();
}

}  // namespace testing_support
