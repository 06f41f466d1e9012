#pragma once

#include <deque>

#include "figures.h"
#include "frame.h"
#include "stream_client.h"

namespace tools {

/**
 * Shows the stream in a terminal of 24-bit colour, two rows of the picture in each line, and what
 * there is to say beside it. Has the whole screen for its own life, and gives the old one back.
 */
class TerminalView {
public:
    explicit TerminalView(FrameSize size);
    ~TerminalView();
    TerminalView(const TerminalView&) = delete;
    TerminalView& operator=(const TerminalView&) = delete;

    /** Whether the standard output is a terminal. */
    static bool isPossible();

    void show(const Answer& answer, const Figures& figures);

private:
    const FrameSize mSize;
    // Of the last second or so, for a rate that follows the stream.
    std::deque<Clock::time_point> mRecent;
};

}  // namespace tools
