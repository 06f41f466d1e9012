#pragma once

#include <string>
#include <vector>

#include "host/log.h"

namespace testing_support {

using Lines = std::vector<std::string>;

/** The log of its scope, each line with the letter of its priority in front: "E text". */
class LogLines : public host::LogCapture {
public:
    /** The lines of one tag, or of all, in order. */
    Lines said(const std::string& tag = "") const;
    /** The same, and forgets all lines. */
    Lines take(const std::string& tag = "");
    /** How many lines are exactly this one. */
    int timesSaid(const std::string& line) const;
    /** Waits until this line is there; false after 10 s, or when its priority is another one. */
    bool waitUntilSaid(const std::string& line) const;
};

}  // namespace testing_support
