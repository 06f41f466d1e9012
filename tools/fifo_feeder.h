#pragma once

#include <atomic>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>

namespace tools {

/**
 * Makes a named pipe and writes into it for whoever reads, on a thread of its own, until the reader
 * goes or this object does, which takes the pipe away.
 */
class FifoFeeder {
public:
    /** `next` gives what comes next, on that thread. REQUIRES: SIGPIPE is ignored. */
    FifoFeeder(std::filesystem::path path, std::function<std::string()> next);
    ~FifoFeeder();
    FifoFeeder(const FifoFeeder&) = delete;
    FifoFeeder& operator=(const FifoFeeder&) = delete;

private:
    void feed() const;
    int openForReader() const;
    bool writeAll(int fd, const std::string& bytes) const;

    const std::filesystem::path mPath;
    const std::function<std::string()> mNext;
    std::atomic<bool> mIsOver{false};
    std::thread mThread;
};

}  // namespace tools
