#include "control_server.h"

#include <utility>

#include "host/channel.h"
#include "host/limits.h"
#include "session_control.h"

namespace control {

namespace {

class Serving : public ControlServer {
public:
    Serving(::android::sp<SessionControl> control, std::unique_ptr<host::Server> server)
        : mControl(std::move(control)), mServer(std::move(server)) {}
    ~Serving() override {
        mControl->close();  // the server waits for its calls
        mServer.reset();
    }

private:
    const ::android::sp<SessionControl> mControl;
    std::unique_ptr<host::Server> mServer;
};

}  // namespace

std::unique_ptr<ControlServer> ControlServer::listen(const std::string& path,
                                                     const ::android::sp<FDSession>& session,
                                                     StatusSource status, std::string& problem) {
    const ::android::sp<SessionControl> control = new SessionControl(session, std::move(status));
    host::ConnectionEvents events;
    events.ended = [control = control.get()] { control->connectionEnded(); };
    std::unique_ptr<host::Server> server = host::Server::listen(
        path, control, problem, std::move(events), host::kMaxControlConnections);
    if (server == nullptr) return nullptr;
    return std::make_unique<Serving>(control, std::move(server));
}

}  // namespace control
