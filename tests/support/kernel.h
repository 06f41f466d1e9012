#pragma once

namespace testing_support {

/** What tests lean on, and what an old kernel, or an emulator in its place, does not do. */
struct Kernel {
    /** SO_PASSPIDFD: a descriptor of the sender's process goes with each message. */
    bool addsPidfds;
    /** Descriptors that find no room in the control data are closed, and MSG_CTRUNC tells of it. */
    bool closesWhatHasNoRoom;
};

/** Tried out by the first call, while there is one thread. */
const Kernel& kernel();

}  // namespace testing_support
