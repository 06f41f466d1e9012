#include <android-base/thread_annotations.h>
#include <android/log.h>
#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <utility>

#include "host/log.h"
#include "host/unique_lock.h"

namespace host {

namespace {

constexpr size_t kLineBytes = 1023;
constexpr size_t kPrefixBytes = 128;

std::atomic<int> stderrPriority{ANDROID_LOG_UNKNOWN};

/** Never destroyed: a thread may log while the process exits. */
struct Router {
    std::mutex mutex;
    LogSink* sink GUARDED_BY(mutex) = nullptr;  // null is stderr
};

Router& router() {
    static auto* const instance = new Router;
    return *instance;
}

char letterOf(int priority) {
    constexpr char kLetters[] = "??VDIWEFS";
    return priority >= 0 && priority <= ANDROID_LOG_SILENT ? kLetters[priority] : '?';
}

/** Whether a line can be written without blocking on its reader. A client can cause many lines. */
bool isStderrReady() {
    pollfd entry = {STDERR_FILENO, POLLOUT, 0};
    return poll(&entry, 1, 0) > 0 && (entry.revents & POLLOUT) != 0;
}

/**
 * Writes in the layout of logcat's threadtime, one write per line. Lines that would block are
 * dropped; the next line that is written says how many.
 */
void writeToStderr(const LogLine& line) REQUIRES(router().mutex) {
    static int dropped = 0;
    if (line.priority < stderrPriority) return;
    if (!isStderrReady()) {
        ++dropped;
        return;
    }
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    char date[32];
    strftime(date, sizeof(date), "%m-%d %H:%M:%S", &local);
    char prefix[kPrefixBytes];
    snprintf(prefix, sizeof(prefix), "%s.%03ld %5d %5d %c %s: ", date, now.tv_nsec / 1000000,
             getpid(), gettid(), letterOf(line.priority), line.tag.c_str());
    std::string text = prefix + line.text;
    if (dropped > 0) text = "(" + std::to_string(std::exchange(dropped, 0)) + " dropped) " + text;
    if (text.back() != '\n') text += '\n';
    const ssize_t written = ::write(STDERR_FILENO, text.data(), text.size());
    static_cast<void>(written);  // there is nowhere to report a failure
}

/**
 * The device's log is C and never throws. So a line for which there is no memory ends the process
 * here: an exception that left a function which logs at its end would reach that function's caller.
 */
void dispatch(int priority, const char* tag, const char* text, const char* thread) noexcept {
    const LogLine line = {priority, tag != nullptr ? tag : "", text, thread};
    const std::lock_guard<std::mutex> lock(router().mutex);
    if (router().sink != nullptr) {
        router().sink->write(line);
    } else {
        writeToStderr(line);
    }
}

LogSink* exchangeSink(LogSink* sink) {
    Router& r = router();
    const std::lock_guard<std::mutex> lock(r.mutex);
    return std::exchange(r.sink, sink);
}

}  // namespace

void setStderrLogPriority(int lowest) {
    stderrPriority = lowest;
}

ScopedLogSink::ScopedLogSink(LogSink& sink) : mPrevious(exchangeSink(&sink)) {}

ScopedLogSink::~ScopedLogSink() {
    exchangeSink(mPrevious);
}

std::vector<LogLine> LogCapture::lines() const {
    const std::lock_guard<std::mutex> lock(mMutex);
    return mLines;
}

std::vector<std::string> LogCapture::texts(const std::string& tag) const {
    const std::lock_guard<std::mutex> lock(mMutex);
    std::vector<std::string> result;
    for (const LogLine& line : mLines) {
        if (tag.empty() || line.tag == tag) result.push_back(line.text);
    }
    return result;
}

int LogCapture::countLocked(const std::string& text) const {
    return static_cast<int>(std::count_if(mLines.begin(), mLines.end(),
                                          [&](const LogLine& line) { return line.text == text; }));
}

int LogCapture::count(const std::string& text) const {
    const std::lock_guard<std::mutex> lock(mMutex);
    return countLocked(text);
}

bool LogCapture::waitFor(const std::string& text, int times,
                         std::chrono::milliseconds limit) const {
    UniqueLock lock(mMutex);
    return mChanged.wait_until(lock, std::chrono::system_clock::now() + limit,
                               [&]() REQUIRES(mMutex) { return countLocked(text) >= times; });
}

void LogCapture::clear() {
    const std::lock_guard<std::mutex> lock(mMutex);
    mLines.clear();
}

void LogCapture::add(const LogLine& line) {
    const std::lock_guard<std::mutex> lock(mMutex);
    mLines.push_back(line);
    mChanged.notify_all();
}

}  // namespace host

int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
    char text[host::kLineBytes + 1];
    va_list arguments;
    va_start(arguments, fmt);
    vsnprintf(text, sizeof(text), fmt, arguments);
    va_end(arguments);
    char thread[16] = "";
    pthread_getname_np(pthread_self(), thread, sizeof(thread));
    host::dispatch(prio, tag, text, thread);
    return 1;
}
