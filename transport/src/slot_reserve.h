#pragma once

namespace host::detail {

/**
 * Keeps the last descriptor slots of a process that serves out of its clients' reach.
 *
 * While a server is there, the last kConnectionFds of the process's limit are for connections, and
 * the kReservedFds below them for calls on their way. What clients cause to stay (duplicates in
 * queues, descriptors that arrived) is let go of at once when it got one of these numbers or a
 * higher one: numbers are given out from the lowest, so that all others are taken then.
 *
 * The limit itself is kArrivalFds higher meanwhile, so that whatever arrives finds a slot; the hard
 * limit may ask for some of those below the limit that was. Where it is too low for that, the
 * process is tight: messages have to be looked at before they are taken. The last kConnectionFds of
 * all are opened for a connection only. Thread-safe.
 */
class SlotReserve {
public:
    SlotReserve();
    ~SlotReserve();
    SlotReserve(const SlotReserve&) = delete;
    SlotReserve& operator=(const SlotReserve&) = delete;

    /** False when so few descriptors may be open that nothing can be kept. */
    bool isHeld() const { return mHeld; }

    /** Opens the slots for connections for the scope of this object. */
    class Opened {
    public:
        Opened();
        ~Opened();
        Opened(const Opened&) = delete;
        Opened& operator=(const Opened&) = delete;

    private:
        unsigned long mLimit;
    };

    /** Whether what a message brings may find no slot. */
    static bool isTight();

private:
    bool mHeld = false;
};

}  // namespace host::detail
