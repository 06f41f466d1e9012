#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/unique_fd.h"

namespace kit {

/** The folder of the program that is running. */
std::filesystem::path programFolder();

/**
 * A program that this one started, and what it prints. It gets SIGTERM when this program ends in
 * any way, and SIGKILL when this object goes first. Operations are for one thread.
 */
class ChildProcess {
public:
    /** Null, and a sentence in `problem`, when it cannot be started. */
    static std::unique_ptr<ChildProcess> start(const std::filesystem::path& program,
                                               const std::vector<std::string>& arguments,
                                               std::string& problem);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t id() const { return mId; }
    /** Sends a signal; nothing happens when the program has ended. */
    void signal(int number) const;
    /** The next line that it prints; nothing when none comes for so long, or at the end. */
    std::optional<std::string> nextLine(std::chrono::milliseconds patience);
    /** What waitpid() says of its end; nothing when it goes on for so long. */
    std::optional<int> waitForEnd(std::chrono::milliseconds patience);

private:
    ChildProcess(pid_t id, host::UniqueFd output) : mId(id), mOutput(std::move(output)) {}

    const pid_t mId;
    host::UniqueFd mOutput;
    std::string mUnread;
    std::optional<int> mEnd;
};

}  // namespace kit
