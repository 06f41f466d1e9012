#include "soak_process.h"

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <thread>

#include "host/channel.h"

namespace tools {

namespace {

using android::sp;
using vendor::zoru::zoruprovider::fdstream::V1_0::IFDSession;

constexpr std::chrono::seconds kPatience(20);

int64_t residentKiBOf(pid_t process) {
    std::ifstream file("/proc/" + std::to_string(process) + "/statm");
    int64_t all = 0;
    int64_t resident = 0;
    file >> all >> resident;
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

}  // namespace

std::string endingInWords(int status) {
    if (WIFSIGNALED(status)) return "was ended by signal " + std::to_string(WTERMSIG(status));
    if (WEXITSTATUS(status) == 0) return {};
    return "ended with exit code " + std::to_string(WEXITSTATUS(status));
}

std::unique_ptr<SoakProcess> SoakProcess::start(std::string& problem) {
    std::unique_ptr<SoakProcess> process(new SoakProcess);
    kit::ChildOptions options;
    options.takesInput = true;
    options.folder = process->mFolder.path();
    process->mChild = kit::ChildProcess::start(kit::programFolder() / "fdstream-soak-provider",
                                               {process->socket()}, problem, options);
    if (process->mChild == nullptr) return nullptr;
    if (process->mChild->nextLine(kPatience)) return process;
    problem = "the provider does not start";
    return nullptr;
}

sp<IFDSession> SoakProcess::connect(std::string& problem) const {
    return host::connect<IFDSession>(socket(), problem);
}

std::optional<std::string> SoakProcess::ask(const std::string& command) {
    if (!mChild->write(command + "\n")) return std::nullopt;
    return mChild->nextLine(kPatience);
}

std::optional<SoakHoldings> SoakProcess::look() {
    const std::optional<std::string> buffers = ask("look");
    if (!buffers) return std::nullopt;
    return SoakHoldings{kit::Holdings::of(mChild->id()), std::stoll(*buffers),
                        residentKiBOf(mChild->id())};
}

std::optional<SoakHoldings> SoakProcess::holdings(const std::optional<SoakHoldings>& before) {
    if (!before) {
        kit::Holdings::settled(mChild->id());
        return look();
    }
    // Threads that end and sockets that are closed in the background have so long.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    std::optional<SoakHoldings> now = look();
    while (now && std::chrono::steady_clock::now() < deadline &&
           !(now->kernel == before->kernel && now->buffers == before->buffers)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        now = look();
    }
    return now;
}

std::string SoakProcess::ending() {
    const std::optional<int> status = mChild->waitForEnd(std::chrono::milliseconds(0));
    if (!status) return {};
    const std::string words = endingInWords(*status);
    return "the provider " + (words.empty() ? "ended" : words);
}

std::string SoakProcess::stop() {
    ask("end");
    const std::optional<int> status = mChild->waitForEnd(kPatience);
    if (!status) return "the provider does not end";
    const std::string words = endingInWords(*status);
    return words.empty() ? words : "the provider " + words;
}

}  // namespace tools
