#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

namespace kit {

/** What a process has of what it could leak. Value type. */
struct Holdings {
    size_t descriptors = 0;
    size_t mappings = 0;  ///< of buffer memory
    size_t threads = 0;

    bool operator==(const Holdings& other) const {
        return descriptors == other.descriptors && mappings == other.mappings &&
               threads == other.threads;
    }
};

/** The holdings of a process of this user once they stay the same; after a while as they are. */
Holdings settledHoldings(pid_t process);

/** One row of the table below. */
struct NamedHoldings {
    std::string name;
    Holdings holdings;
};

void printHoldings(const std::vector<NamedHoldings>& rows);

}  // namespace kit
