#include "child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <system_error>
#include <thread>
#include <tuple>
#include <utility>

#include "raw_socket.h"

namespace kit {

namespace {

using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

constexpr int kNotRun = 127;

/** What is left to do between fork and exec, where other threads' locks may be held for ever. */
[[noreturn]] void become(const char* program, char* const* arguments, const ChildOptions& options,
                         int input, int output, pid_t parent) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    // The parent may have ended before it was asked to be watched.
    const bool ready = getppid() == parent && dup2(output, STDOUT_FILENO) >= 0 &&
                       (!options.errorsToo || dup2(output, STDERR_FILENO) >= 0) &&
                       (!options.takesInput || dup2(input, STDIN_FILENO) >= 0) &&
                       (options.folder.empty() || chdir(options.folder.c_str()) == 0);
    if (ready) execv(program, arguments);
    _exit(kNotRun);
}

bool makePipe(host::UniqueFd& reading, host::UniqueFd& writing) {
    int ends[2] = {-1, -1};
    if (pipe2(ends, O_CLOEXEC) != 0) return false;
    reading.reset(ends[0]);
    writing.reset(ends[1]);
    return true;
}

int remainingMs(Clock::time_point deadline) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return static_cast<int>(std::max(left, decltype(left){0}));
}

}  // namespace

fs::path programFolder() {
    std::error_code error;
    return fs::read_symlink("/proc/self/exe", error).parent_path();
}

std::unique_ptr<ChildProcess> ChildProcess::start(const fs::path& program,
                                                  const std::vector<std::string>& arguments,
                                                  std::string& problem,
                                                  const ChildOptions& options) {
    host::UniqueFd theirInput;
    host::UniqueFd theirOutput;
    host::UniqueFd input;
    host::UniqueFd output;
    if (options.takesInput) std::tie(input, theirInput) = socketPair(SOCK_STREAM);
    if (access(program.c_str(), X_OK) != 0 || !makePipe(output, theirOutput) ||
        (options.takesInput && !input.isValid())) {
        problem = program.string() + " cannot be started: " + strerror(errno);
        return nullptr;
    }
    std::vector<std::string> words = {program.string()};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> pointers;
    pointers.reserve(words.size() + 1);
    for (std::string& word : words)
        pointers.push_back(word.data());
    pointers.push_back(nullptr);

    const pid_t parent = getpid();
    const pid_t id = fork();
    if (id == 0)
        become(program.c_str(), pointers.data(), options, theirInput.get(), theirOutput.get(),
               parent);
    if (id < 0) {
        problem = program.string() + " cannot be started: " + strerror(errno);
        return nullptr;
    }
    return std::unique_ptr<ChildProcess>(new ChildProcess(id, std::move(input), std::move(output)));
}

std::unique_ptr<ChildProcess> ChildProcess::startShell(const std::string& line,
                                                       std::string& problem,
                                                       const ChildOptions& options) {
    return start("/bin/sh", {"-c", line}, problem, options);
}

ChildProcess::~ChildProcess() {
    if (mEnd) return;
    signal(SIGKILL);
    while (waitpid(mId, nullptr, 0) < 0 && errno == EINTR) {
    }
}

void ChildProcess::signal(int number) const {
    if (!mEnd) kill(mId, number);
}

bool ChildProcess::write(const std::string& text) const {
    const ssize_t sent = send(mInput.get(), text.data(), text.size(), MSG_NOSIGNAL);
    return sent == static_cast<ssize_t>(text.size());
}

std::string ChildProcess::rest(std::chrono::milliseconds patience) {
    const Clock::time_point deadline = Clock::now() + patience;
    std::string text;
    while (const auto line = nextLine(std::chrono::milliseconds(remainingMs(deadline))))
        text += *line + "\n";
    return text + std::exchange(mUnread, {});
}

std::optional<std::string> ChildProcess::nextLine(std::chrono::milliseconds patience) {
    const Clock::time_point deadline = Clock::now() + patience;
    for (;;) {
        const size_t end = mUnread.find('\n');
        if (end != std::string::npos) {
            std::string line = mUnread.substr(0, end);
            mUnread.erase(0, end + 1);
            return line;
        }
        pollfd entry = {mOutput.get(), POLLIN, 0};
        const int ready = poll(&entry, 1, remainingMs(deadline));
        char bytes[1024];
        const ssize_t count = ready > 0 ? read(mOutput.get(), bytes, sizeof(bytes)) : ready;
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return std::nullopt;
        mUnread.append(bytes, static_cast<size_t>(count));
    }
}

std::optional<int> ChildProcess::waitForEnd(std::chrono::milliseconds patience) {
    constexpr std::chrono::milliseconds kPause(5);
    const Clock::time_point deadline = Clock::now() + patience;
    while (!mEnd) {
        int status = 0;
        if (waitpid(mId, &status, WNOHANG) == mId) mEnd = status;
        if (mEnd || Clock::now() >= deadline) break;
        std::this_thread::sleep_for(kPause);
    }
    return mEnd;
}

int ChildProcess::exitCode(std::chrono::milliseconds patience) {
    const std::optional<int> status = waitForEnd(patience);
    return status && WIFEXITED(*status) ? WEXITSTATUS(*status) : -1;
}

}  // namespace kit
