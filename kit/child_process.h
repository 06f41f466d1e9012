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

/** How a program is started, where that is not as usual. */
struct ChildOptions {
    bool takesInput = false;         ///< from write(), instead of this program's standard input
    bool errorsToo = false;          ///< its standard error is read with what it prints
    std::filesystem::path folder{};  ///< it runs in; empty: this program's
};

/**
 * A program that this one started, and what it prints. It gets SIGKILL when this object goes, and
 * SIGTERM when before that the thread ends that started it, or this program in any way. Operations
 * are for one thread. REQUIRES: this program's standard streams are open.
 */
class ChildProcess {
public:
    /**
     * Null, and a sentence in `problem`, when it cannot be started. What goes wrong only in the new
     * process, such as a folder that is not there, ends that with the exit code 127.
     */
    static std::unique_ptr<ChildProcess> start(const std::filesystem::path& program,
                                               const std::vector<std::string>& arguments,
                                               std::string& problem,
                                               const ChildOptions& options = {});
    /** The same for a line of the shell. */
    static std::unique_ptr<ChildProcess> startShell(const std::string& line, std::string& problem,
                                                    const ChildOptions& options = {});
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t id() const { return mId; }
    /** Sends a signal; nothing happens when the program has ended. */
    void signal(int number) const;
    /** Gives it something to read. False when it does not read any more. */
    bool write(const std::string& text) const;
    /** All that it prints until it ends, line by line; what has come when that takes so long. */
    std::string rest(std::chrono::milliseconds patience);
    /** The next line that it prints; nothing when none comes for so long, or at the end. */
    std::optional<std::string> nextLine(std::chrono::milliseconds patience);
    /** What waitpid() says of its end; nothing when it goes on for so long. */
    std::optional<int> waitForEnd(std::chrono::milliseconds patience);
    /** The exit code that it ended with; -1 when it goes on for so long or a signal ended it. */
    int exitCode(std::chrono::milliseconds patience);

private:
    ChildProcess(pid_t id, host::UniqueFd input, host::UniqueFd output)
        : mId(id), mInput(std::move(input)), mOutput(std::move(output)) {}

    const pid_t mId;
    host::UniqueFd mInput;  // a socket; invalid unless it takes input
    host::UniqueFd mOutput;
    std::string mUnread;
    std::optional<int> mEnd;
};

}  // namespace kit
