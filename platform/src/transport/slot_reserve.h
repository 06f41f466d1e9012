#pragma once

namespace host::detail {

/**
 * Keeps the last descriptor slots of a process that serves out of its clients' reach.
 *
 * While a server is there the process's limit is kConnectionFds lower; those slots are for
 * connections, which raise it for a moment. The kReservedFds below the limit are for calls on their
 * way. What clients cause to stay (duplicates in queues, descriptors that arrived) is let go of at
 * once when it got one of these numbers, also while the limit is raised: numbers are given out from
 * the lowest, so that all others are taken then. Thread-safe.
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

    /** Whether this number is one that may not stay; never in a process that serves nobody. */
    static bool isReserved(int fd);

private:
    bool mHeld = false;
};

}  // namespace host::detail
