#pragma once

namespace host::detail {

/**
 * Keeps the last descriptor slots of a serving process out of its clients' reach.
 *
 * While there is a server, the last kConnectionFds slots of the process's limit are reserved for
 * connections, and the kReservedFds below them for calls that are being received. Whatever clients
 * make the process keep (duplicates in queues, descriptors that arrived) is closed at once when its
 * number is one of these or higher. The kernel gives the lowest free number, so a number that high
 * means that no other slot is free.
 *
 * Meanwhile the limit is raised by kArrivalFds, so that everything that arrives finds a slot; where
 * the hard limit allows less, those slots come out of the original limit. Where even that leaves
 * too few, the process is "tight": a message is looked at before it is taken out of its socket. The
 * topmost kConnectionFds slots are opened only while a connection is accepted. Thread-safe.
 */
class SlotReserve {
public:
    SlotReserve();
    ~SlotReserve();
    SlotReserve(const SlotReserve&) = delete;
    SlotReserve& operator=(const SlotReserve&) = delete;

    /** False when the process's limit is too low to reserve anything. */
    [[nodiscard]] bool isHeld() const { return mHeld; }

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

    /** Whether what a message brings might find no slot. */
    [[nodiscard]] static bool isTight();

private:
    bool mHeld = false;
};

}  // namespace host::detail
