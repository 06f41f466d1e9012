#pragma once

#include <deque>
#include <string>
#include <vector>

#include "cells.h"
#include "figures.h"
#include "frame.h"
#include "stream_client.h"
#include "view/geometry.h"

namespace tools {

/**
 * Shows the stream in a terminal, two rows of the picture in each line, and what there is to say
 * beside it. In the colours that the terminal has, by TERM and COLORTERM; in characters of more or
 * less ink when it has none, or NO_COLOR is set. Keeps to the window, whatever its size. Has the
 * whole screen for its own life, and gives the old one back.
 */
class TerminalView {
public:
    explicit TerminalView(kit::FrameSize size);
    ~TerminalView();
    TerminalView(const TerminalView&) = delete;
    TerminalView& operator=(const TerminalView&) = delete;

    /** In words, why the standard output can show nothing; empty when it can. */
    static std::string obstacle();

    /**
     * `more` are lines beside the picture, after those that there always are. `boxes` are outlined
     * in it, with lines that are seen in a terminal of any size.
     */
    void show(const Answer& answer, const Figures& figures,
              const std::vector<std::string>& more = {},
              const std::vector<camera::Rect>& boxes = {});

private:
    struct Window {
        int columns;
        int lines;
    };

    static Window window();

    const kit::FrameSize mSize;
    const Colours mColours;
    Window mWindow = {};
    // Of the last second or so, for a rate that follows the stream.
    std::deque<Clock::time_point> mRecent;
};

}  // namespace tools
