#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>

#include <utils/Errors.h>
#include <utils/RefBase.h>

namespace android {

enum : int32_t { PRIORITY_DEFAULT = 0 };

/**
 * A thread that calls threadLoop() until it returns false or an exit is requested.
 *
 * The thread holds a strong reference to its object during each pass and a weak one between passes,
 * so the last reference may be dropped by the thread itself: the destructor then runs on it.
 * Operations may be called from any thread.
 *
 * The safe way to stop one on every platform: requestExit(), join(), and only then drop the last
 * reference. (On a device, a join() that starts after the thread has found its object gone may wait
 * for ever; here it returns.)
 */
class Thread : virtual public RefBase {
public:
    explicit Thread(bool canCallJava = true);
    ~Thread() override;

    /**
     * Starts the thread. Takes a strong reference for it, which runs onFirstRef() if it is the
     * first. The kernel keeps 15 characters of the name; a stack of 0 is the default size.
     * INVALID_OPERATION while running, UNKNOWN_ERROR when no thread could be made.
     */
    virtual status_t run(const char* name, int32_t priority = PRIORITY_DEFAULT, size_t stack = 0);
    /** Makes the thread exit after its current pass. */
    virtual void requestExit();
    /** Runs on the thread before the first pass; anything but 0 ends it. */
    virtual status_t readyToRun();

    /**
     * Requests the exit, waits until the thread is gone, and withdraws the request. On the thread
     * itself, while its loop runs: WOULD_BLOCK, with a warning, and no exit is requested.
     */
    status_t requestExitAndWait();
    /**
     * Waits until the thread is gone. On the thread itself it does not wait: WOULD_BLOCK, with a
     * warning, while its loop runs; 0 after that, as for a destructor at the thread's end.
     */
    status_t join();
    bool isRunning() const;

protected:
    /** Whether an exit was requested or the loop has ended, since the last run(). */
    bool exitPending() const;

private:
    virtual bool threadLoop() = 0;

    /** True, with a warning, on the thread itself while its loop runs. */
    bool wouldBlock(const char* operation) const;

    /** Shared with the running thread, which may outlive the object. */
    struct State;
    static void* entry(void* start);

    const std::shared_ptr<State> mState;
};

}  // namespace android
