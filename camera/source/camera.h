#pragma once

#include <utils/StrongPointer.h>

#include <functional>
#include <future>
#include <memory>
#include <string>

#include "FDSession.h"
#include "source/filler.h"
#include "source/handover.h"
#include "source/player.h"
#include "source/source_options.h"
#include "source/stop_signal.h"

namespace camera {

/**
 * A camera in software: plays a source into a session's requests, for the scope of this object. One
 * thread decodes and keeps the pace, the other takes requests, fills their buffers and answers; the
 * newest frame alone is between them, so that a slow client never changes when frames are due.
 *
 * Both threads end with it, within 200 ms, whatever they wait for; but a client that does not
 * answer a notification is only hung up on by end(). Requests that it has taken are answered with
 * errors then, which that client does not get; so another camera can follow on the same session.
 */
class Camera {
public:
    using Session = Filler::Session;

    /**
     * `say` is called by one thread at a time, and must not wait: with the reason when the source
     * breaks, and with what keeps a client's buffers from being filled.
     */
    Camera(android::sp<Session> session, const SourceOptions& options, Say say);
    ~Camera() { end(); }
    Camera(const Camera&) = delete;
    Camera& operator=(const Camera&) = delete;

    /**
     * Opens the source, within five seconds, and starts both threads. False, and a sentence's end
     * in `problem`, when it cannot be opened. REQUIRES: called once.
     */
    bool start(std::string& problem);
    /**
     * Ends both threads and waits for that. Calls `hangUp`, if it is there, when a client holds
     * them up; it has to end the calls to clients. Not while start() runs.
     */
    void end(const std::function<void()>& hangUp = {});

    // Any thread.

    /** Ends what start() waits for; nothing starts any more. */
    void giveUp() const { mStop.raise(); }
    /** From now on frames are announced to the client. Before, nobody would hear it. */
    void clientCame() { mFiller.clientCame(); }
    /** Nothing is announced any more, and requests that are kept are answered with errors. */
    void clientWent() { mFiller.clientWent(); }
    CameraStatus status() const { return mHandover.status(); }

    /** What is played, for a line after the start. */
    std::string description() const;

private:
    const StopSignal mStop;
    Handover mHandover;
    Player mPlayer;
    Filler mFiller;
    // Of the two threads.
    std::future<void> mDecoding;
    std::future<void> mFilling;
};

}  // namespace camera
