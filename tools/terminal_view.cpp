#include "terminal_view.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "picture.h"

namespace tools {

namespace {

constexpr int kTextWidth = 22;
constexpr int kGap = 2;
constexpr size_t kRecentFrames = 20;
constexpr Colour kBox = {90, 220, 90};

int even(double value) {
    return std::max(2, static_cast<int>(value) / 2 * 2);
}

/** The largest picture that leaves room for the text, one column and half a line for each pixel. */
kit::FrameSize fitting(kit::FrameSize size, int columns, int lines) {
    const double scale = std::min(static_cast<double>(columns - kTextWidth) / size.width,
                                  static_cast<double>(lines) * 2 / size.height);
    return {even(size.width * scale), even(size.height * scale)};
}

/** Where a part of the frame is in a picture of another size. */
camera::Rect placeIn(const Picture& picture, kit::FrameSize size, const camera::Rect& part) {
    const int left = part.x * picture.width / size.width;
    const int top = part.y * picture.height / size.height;
    return {left, top, std::max(1, part.width * picture.width / size.width),
            std::max(1, part.height * picture.height / size.height)};
}

std::vector<std::string> textOf(const Answer& answer, const Figures& figures, double rate,
                                const std::vector<std::string>& more) {
    char perSecond[32];
    snprintf(perSecond, sizeof(perSecond), "%.1f frames/s", rate);
    char latency[32];
    snprintf(latency, sizeof(latency), "%.1f ms", inMilliseconds(answer.latency));
    std::vector<std::string> lines = {"frame " + std::to_string(answer.frameNumber),
                                      perSecond,
                                      latency,
                                      "",
                                      "delivered " + std::to_string(figures.delivered),
                                      "failed    " + std::to_string(figures.failed()),
                                      "wrong     " + std::to_string(figures.wrong)};
    lines.insert(lines.end(), more.begin(), more.end());
    lines.insert(lines.end(), {"", "Ctrl-C ends"});
    return lines;
}

void put(const std::string& text) {
    fwrite(text.data(), 1, text.size(), stdout);
    fflush(stdout);
}

}  // namespace

TerminalView::TerminalView(kit::FrameSize size) : mSize(size), mColours(coloursOfTerminal()) {
    put("\x1b[?1049h\x1b[?25l\x1b[2J");  // another screen, no cursor
}

TerminalView::~TerminalView() {
    put("\x1b[?25h\x1b[?1049l");
}

std::string TerminalView::obstacle() {
    const char* const terminal = getenv("TERM");
    if (isatty(STDOUT_FILENO) == 0) return "--watch needs a terminal to show the stream in";
    if (terminal == nullptr || strcmp(terminal, "dumb") == 0)
        return "--watch needs a terminal whose cursor can be moved, which TERM does not promise";
    return {};
}

TerminalView::Window TerminalView::window() {
    winsize size = {};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0)
        return {80, 24};
    return {size.ws_col, size.ws_row};
}

void TerminalView::show(const Answer& answer, const Figures& figures,
                        const std::vector<std::string>& more,
                        const std::vector<camera::Rect>& boxes) {
    mRecent.push_back(answer.arrival);
    if (mRecent.size() > kRecentFrames) mRecent.pop_front();
    const double rate = framesPerSecond({mRecent.begin(), mRecent.end()});

    std::string out = "\x1b[H";
    const Window now = window();
    if (now.columns != mWindow.columns || now.lines != mWindow.lines) out += "\x1b[2J";
    mWindow = now;

    Picture picture = scaled(answer.frame, mSize, fitting(mSize, mWindow.columns, mWindow.lines));
    for (const camera::Rect& box : boxes)
        outline(picture, placeIn(picture, mSize, box), kBox, 1);
    const int pictureColumns = std::min(picture.width, mWindow.columns);
    const int textColumns = std::max(0, mWindow.columns - picture.width - kGap);
    const std::vector<std::string> text = textOf(answer, figures, rate, more);
    const int textLines = textColumns > 0 ? static_cast<int>(text.size()) : 0;
    const int lines = std::min(std::max(picture.height / 2, textLines), mWindow.lines);
    for (int line = 0; line < lines; ++line) {
        if (line > 0) out += "\r\n";
        if (line < picture.height / 2) drawLine(out, picture, line, pictureColumns, mColours);
        if (line >= textLines) continue;
        // What is to the right of an earlier, longer line goes away.
        out += "\x1b[" + std::to_string(picture.width + kGap + 1) + "G\x1b[K";
        out += text[static_cast<size_t>(line)].substr(0, static_cast<size_t>(textColumns));
    }
    put(out);
}

}  // namespace tools
