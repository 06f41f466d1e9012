#pragma once

namespace host::detail {

/**
 * Keeps the last kConnectionFds descriptor slots of the process out of everybody's reach while a
 * server is there, by a lower limit: what clients cause (duplicates in queues, descriptors that
 * arrive) ends before them. Thread-safe.
 */
class SlotReserve {
public:
    SlotReserve();
    ~SlotReserve();
    SlotReserve(const SlotReserve&) = delete;
    SlotReserve& operator=(const SlotReserve&) = delete;

    /** False when so few descriptors may be open that nothing can be kept. */
    bool isHeld() const { return mHeld; }

    /** Opens the reserve for the scope of this object: for a connection that finds no other slot.
     */
    class Opened {
    public:
        Opened();
        ~Opened();
        Opened(const Opened&) = delete;
        Opened& operator=(const Opened&) = delete;

    private:
        unsigned long mLimit;
    };

    /**
     * Whether descriptors that have just arrived leave kReservedFds more slots free below the
     * limit; if not, they are to be closed, so that calls without descriptors still find some.
     * Always, in a process that serves nobody: what arrives there is what it asked for.
     */
    static bool isUntouched();

private:
    bool mHeld = false;
};

}  // namespace host::detail
