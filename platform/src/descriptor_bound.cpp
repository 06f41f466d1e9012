#include "host/descriptor_bound.h"

#include <atomic>
#include <climits>

namespace host {

namespace {
std::atomic<int> bound{INT_MAX};
}  // namespace

void boundDescriptors(int first) {
    bound = first;
}

bool isBeyondBound(int fd) {
    return fd >= bound;
}

}  // namespace host
