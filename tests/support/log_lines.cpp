#include "support/log_lines.h"

#include <algorithm>
#include <cstddef>

namespace testing_support {

Lines LogLines::said(const std::string& tag) const {
    Lines result;
    for (const host::LogLine& line : lines()) {
        if (!tag.empty() && line.tag != tag) continue;
        result.push_back("??VDIWEF"[line.priority] + (" " + line.text));
    }
    return result;
}

Lines LogLines::take(const std::string& tag) {
    Lines result = said(tag);
    clear();
    return result;
}

int LogLines::timesSaid(const std::string& line) const {
    const Lines all = said();
    return static_cast<int>(std::count(all.begin(), all.end(), line));
}

bool LogLines::waitUntilSaid(const std::string& line) const {
    return waitFor(line.substr(2)) && timesSaid(line) > 0;
}

}  // namespace testing_support
