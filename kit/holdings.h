#pragma once

#include <unistd.h>

#include <cstddef>
#include <string>

namespace kit {

/** What a process of this user has of what it could leak. Value type. */
struct Holdings {
    int descriptors = 0;
    int threads = 0;
    int mappings = 0;  ///< of buffer memory, the mapper's and others

    static Holdings of(pid_t process = getpid());
    /** The holdings once they stay the same; after a while as they are. */
    static Holdings settled(pid_t process = getpid());

    bool operator==(const Holdings& other) const { return differenceFrom(other).empty(); }
    bool isWithin(const Holdings& limit) const {
        return descriptors <= limit.descriptors && threads <= limit.threads &&
               mappings <= limit.mappings;
    }
    /** Empty when equal, else a sentence for each difference. */
    std::string differenceFrom(const Holdings& before) const;
};

/** Bytes that this process has from its allocator. */
size_t allocatedBytes();

}  // namespace kit
