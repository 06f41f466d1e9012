#pragma once

#include <android-base/thread_annotations.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

namespace host {

/** One call of __android_log_print(). */
struct LogLine {
    int priority;  ///< android_LogPriority
    std::string tag;
    std::string text;    ///< as written: a newline at its end belongs to it
    std::string thread;  ///< name of the writing thread
};

/** Takes log lines. write() may be called from any thread, one call at a time. */
class LogSink {
public:
    virtual ~LogSink() = default;
    virtual void write(const LogLine& line) = 0;
};

/**
 * Sends every line of the process to a sink for the scope of this object, and to the previous sink
 * again afterwards. No call of the sink is running when the destructor returns. Scopes nest.
 */
class ScopedLogSink {
public:
    explicit ScopedLogSink(LogSink& sink);
    ~ScopedLogSink();
    ScopedLogSink(const ScopedLogSink&) = delete;
    ScopedLogSink& operator=(const ScopedLogSink&) = delete;

private:
    LogSink* const mPrevious;
};

/** Keeps the lines of its scope. Any thread may ask while others write. */
class LogCapture {
public:
    LogCapture() : mSink(*this), mScope(mSink) {}
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LogLine> lines() const;
    /** The texts of one tag, or of all, in order. */
    std::vector<std::string> texts(const std::string& tag = "") const;
    /** How many lines have exactly this text. */
    int count(const std::string& text) const;
    /** Waits until `times` lines have this text; false when `limit` is over. */
    [[nodiscard]] bool waitFor(const std::string& text, int times = 1,
                               std::chrono::milliseconds limit = std::chrono::seconds(10)) const;
    void clear();

private:
    /** Apart, so that nothing of it changes while another thread may still be writing. */
    class Sink : public LogSink {
    public:
        explicit Sink(LogCapture& capture) : mCapture(capture) {}
        void write(const LogLine& line) override { mCapture.add(line); }

    private:
        LogCapture& mCapture;
    };

    void add(const LogLine& line);
    int countLocked(const std::string& text) const REQUIRES(mMutex);

    mutable std::mutex mMutex;
    mutable std::condition_variable mChanged;
    std::vector<LogLine> mLines GUARDED_BY(mMutex);
    Sink mSink;
    ScopedLogSink mScope;  // last, so that it goes first: its sink needs the rest
};

/** Writes no lines of a lower priority to stderr; sinks get all lines. By default none is left out.
 */
void setStderrLogPriority(int lowest);

}  // namespace host
