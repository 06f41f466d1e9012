#include "terminal_view.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "picture.h"

namespace tools {

namespace {

constexpr int kTextWidth = 22;
constexpr size_t kRecentFrames = 20;

struct Cells {
    int columns;
    int lines;
};

Cells terminalSize() {
    winsize size = {};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0)
        return {80, 24};
    return {size.ws_col, size.ws_row};
}

int even(double value) {
    return std::max(2, static_cast<int>(value) / 2 * 2);
}

/** The largest picture that leaves room for the text, one column and half a line for each pixel. */
FrameSize fitting(FrameSize size, Cells cells) {
    const double scale = std::min(static_cast<double>(cells.columns - kTextWidth) / size.width,
                                  static_cast<double>(cells.lines - 1) * 2 / size.height);
    return {even(size.width * scale), even(size.height * scale)};
}

using Colour = std::array<uint8_t, 3>;

Colour colourAt(const Picture& picture, int x, int y) {
    const size_t at =
        (static_cast<size_t>(y) * static_cast<size_t>(picture.width) + static_cast<size_t>(x)) * 3;
    return {picture.rgb[at], picture.rgb[at + 1], picture.rgb[at + 2]};
}

/** Sets one of the two colours of what follows, where it is not set already. */
void setColour(std::string& out, const char* which, Colour colour, std::optional<Colour>& current) {
    if (current == colour) return;
    current = colour;
    char sequence[32];
    snprintf(sequence, sizeof(sequence), "\x1b[%s;2;%d;%d;%dm", which, colour[0], colour[1],
             colour[2]);
    out += sequence;
}

void drawLine(std::string& out, const Picture& picture, int line) {
    std::optional<Colour> upper;
    std::optional<Colour> lower;
    for (int x = 0; x < picture.width; ++x) {
        setColour(out, "38", colourAt(picture, x, 2 * line), upper);
        setColour(out, "48", colourAt(picture, x, 2 * line + 1), lower);
        out += "\u2580";  // the upper half of the cell
    }
    out += "\x1b[0m";
}

std::vector<std::string> textOf(const Answer& answer, const Figures& figures, double rate) {
    char perSecond[32];
    snprintf(perSecond, sizeof(perSecond), "%.1f frames/s", rate);
    char latency[32];
    snprintf(latency, sizeof(latency), "%.1f ms", inMilliseconds(answer.latency));
    return {"frame " + std::to_string(answer.frameNumber),
            perSecond,
            latency,
            "",
            "delivered " + std::to_string(figures.delivered),
            "failed    " + std::to_string(figures.failed()),
            "wrong     " + std::to_string(figures.wrong),
            "",
            "Ctrl-C ends"};
}

void put(const std::string& text) {
    fwrite(text.data(), 1, text.size(), stdout);
    fflush(stdout);
}

}  // namespace

TerminalView::TerminalView(FrameSize size) : mSize(size) {
    put("\x1b[?1049h\x1b[?25l\x1b[2J");  // another screen, no cursor
}

TerminalView::~TerminalView() {
    put("\x1b[?25h\x1b[?1049l");
}

bool TerminalView::isPossible() {
    return isatty(STDOUT_FILENO) != 0;
}

void TerminalView::show(const Answer& answer, const Figures& figures) {
    mRecent.push_back(answer.arrival);
    if (mRecent.size() > kRecentFrames) mRecent.pop_front();
    const double rate = framesPerSecond({mRecent.begin(), mRecent.end()});

    const Picture picture = scaled(answer.frame, mSize, fitting(mSize, terminalSize()));
    const std::vector<std::string> text = textOf(answer, figures, rate);
    std::string out = "\x1b[H";
    const int lines = std::max(picture.height / 2, static_cast<int>(text.size()));
    for (int line = 0; line < lines; ++line) {
        if (line < picture.height / 2) drawLine(out, picture, line);
        // What is to the right of an earlier, longer line goes away.
        out += "\x1b[" + std::to_string(picture.width + 3) + "G\x1b[K";
        if (static_cast<size_t>(line) < text.size()) out += text[static_cast<size_t>(line)];
        out += "\r\n";
    }
    put(out + "\x1b[J");
}

}  // namespace tools
