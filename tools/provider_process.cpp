#include "provider_process.h"

#include <err.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <optional>

#include "default_socket.h"
#include "host/channel.h"

namespace tools {

namespace {

using android::sp;
using vendor::zoru::zoruprovider::fdstream::V1_0::IFDSession;

constexpr std::chrono::seconds kPatience(20);

/** Waits until it prints a line that begins so. */
bool says(kit::ChildProcess& child, const std::string& beginning) {
    while (const std::optional<std::string> line = child.nextLine(kPatience)) {
        if (line->rfind(beginning, 0) == 0) return true;
    }
    return false;
}

/** Null after a sentence on stderr. */
std::unique_ptr<kit::ChildProcess> startListening(const std::vector<std::string>& arguments) {
    std::string problem;
    std::unique_ptr<kit::ChildProcess> child =
        kit::ChildProcess::start(kit::programFolder() / "fdstream-provider", arguments, problem);
    if (child == nullptr) {
        warnx("%s", problem.c_str());
        return nullptr;
    }
    if (says(*child, "listening on ")) return child;
    warnx("the provider does not start");
    return nullptr;
}

}  // namespace

std::unique_ptr<ProviderProcess> ProviderProcess::start(std::vector<std::string> arguments) {
    std::string problem;
    const std::optional<std::filesystem::path> folder = kit::privateFolder(problem);
    if (!folder) {
        warnx("%s", problem.c_str());
        return nullptr;
    }
    const std::string socket = *folder / ("demo-" + std::to_string(getpid()) + ".sock");
    arguments.insert(arguments.end(), {"--socket", socket});
    std::unique_ptr<kit::ChildProcess> child = startListening(arguments);
    if (child == nullptr) return nullptr;
    return std::unique_ptr<ProviderProcess>(new ProviderProcess(std::move(child), socket));
}

sp<IFDSession> ProviderProcess::connect() const {
    std::string problem;
    sp<IFDSession> session = host::connect<IFDSession>(mSocket, problem);
    if (session == nullptr) warnx("%s", problem.c_str());
    return session;
}

bool ProviderProcess::flip() {
    mChild->signal(SIGHUP);
    if (says(*mChild, "frames come ")) return true;
    warnx("the provider does not turn its frames");
    return false;
}

bool ProviderProcess::stop() {
    mChild->signal(SIGTERM);
    const std::optional<int> status = mChild->waitForEnd(kPatience);
    if (!status) {
        warnx("the provider does not end");
    } else if (WIFSIGNALED(*status)) {
        warnx("the provider was ended by signal %d", WTERMSIG(*status));
    } else if (WEXITSTATUS(*status) != 0) {
        warnx("the provider ended with exit code %d", WEXITSTATUS(*status));
    } else {
        return true;
    }
    return false;
}

}  // namespace tools
