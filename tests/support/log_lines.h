#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "host/log.h"

namespace testing_support {

using Lines = std::vector<std::string>;

/** The log of its scope, each line with the letter of its priority in front: "E text". */
class LogLines : public host::LogCapture {
public:
    /** The lines of one tag, or of all, in order. */
    Lines said(const std::string& tag = "") const {
        Lines result;
        for (const host::LogLine& line : lines()) {
            if (tag.empty() || line.tag == tag)
                result.push_back("??VDIWEF"[line.priority] + (" " + line.text));
        }
        return result;
    }
    /** The same, and forgets all lines. */
    Lines take(const std::string& tag = "") {
        Lines result = said(tag);
        clear();
        return result;
    }
    /** How many lines have this in them. */
    int64_t linesWith(const std::string& part) const {
        const Lines all = said();
        return std::count_if(all.begin(), all.end(), [&](const std::string& line) {
            return line.find(part) != std::string::npos;
        });
    }
    /** How many lines are exactly this one. */
    int timesSaid(const std::string& line) const {
        const Lines all = said();
        return static_cast<int>(std::count(all.begin(), all.end(), line));
    }
    /** Waits until this line is there; false after 10 s, or when its priority is another one. */
    bool waitUntilSaid(const std::string& line) const {
        return waitFor(line.substr(2)) && timesSaid(line) > 0;
    }
};

}  // namespace testing_support
