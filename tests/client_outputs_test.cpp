// What the client program writes, and where to.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <future>
#include <sstream>
#include <string>
#include <utility>

#include "host/unique_fd.h"
#include "support/client_tool_fixture.h"

namespace testing_support {

namespace {

using ClientOutputsTest = ClientToolFixture;
using kit::kFrameBytes;

size_t widestLine(const std::string& text) {
    size_t widest = 0;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
        widest = std::max(widest, line.size());
    return widest;
}

struct Extent {
    size_t columns = 0;
    size_t lines = 0;
};

/** How much of a terminal is written on by what --watch writes. */
Extent extentOf(const std::string& written) {
    Extent extent;
    size_t column = 1;
    size_t line = 1;
    const size_t end = written.find("\x1b[?25h");
    for (size_t at = written.find("\x1b[2J"); at < end; ++at) {
        const char byte = written[at];
        if (byte == '\x1b') {
            const size_t code = written.find_first_of("GHJKhlm", at);
            if (written[code] == 'H') column = line = 1;
            if (written[code] == 'G') column = std::stoul(written.substr(at + 2));
            at = std::min(code, written.size());
        } else if (byte == '\r') {
            column = 1;
        } else if (byte == '\n') {
            ++line;
        } else if ((byte & 0xC0) != 0x80) {
            extent.columns = std::max(extent.columns, column++);
            extent.lines = std::max(extent.lines, line);
        }
    }
    return extent;
}

}  // namespace

TEST_F(ClientOutputsTest, SaysWhatIsWrongWithACommandLine) {
    const std::pair<const char*, const char*> wrong[] = {
        {"--frames x", "--frames"},
        {"--size 3x0", "is no size"},
        {"--raw - --json -", "cannot both go to -"},
        {"--raw one --json one", "cannot both go to one"},
        {"--y4m - --raw -", "cannot both go to -"},
        {"--watch", "needs a terminal"},
        {"--watch --json -", "nothing else can go"},
        {"--compare socket --size 64x64", "1280x720"},
    };
    for (const auto& [arguments, text] : wrong) {
        EXPECT_EQ(run(arguments), 2) << arguments;
        EXPECT_EQ(read("err").rfind("fdstream-client: ", 0), 0U) << read("err");
        EXPECT_TRUE(has(read("err"), text)) << read("err");
        EXPECT_EQ(read("out"), "");
    }
    EXPECT_EQ(run("--help"), 0);
    EXPECT_LE(widestLine(read("out")), 80U) << read("out");
}

TEST_F(ClientOutputsTest, KeepsTheStandardOutputForWhatIsToGoThere) {
    EXPECT_EQ(run("--frames 3 --raw -"), 0) << read("err");
    EXPECT_EQ(read("out").size(), 3 * kFrameBytes);
    EXPECT_TRUE(has(read("err"), "delivered"));
    EXPECT_LE(widestLine(read("err")), 80U) << read("err");

    EXPECT_EQ(run("--frames 3 --buffers 2 --json -"), 0) << read("err");
    const std::string json = read("out");
    EXPECT_EQ(json.front(), '{');
    EXPECT_TRUE(has(json, "\"height\": 720") && has(json, "\"buffers\": 2")) << json;
    EXPECT_TRUE(has(json, "\"delivered\": 3")) << json;
    EXPECT_FALSE(has(json, "\"foreign\": 0")) << json;  // an earlier client's came, too
    EXPECT_TRUE(has(json, "{\"frame\": 2, \"outcome\": \"delivered\"")) << json;
    const std::string guide = contentOf(JSON_GUIDE);
    for (size_t at = json.find("\":"); at != std::string::npos; at = json.find("\":", at + 1)) {
        const size_t start = json.rfind('"', at - 1) + 1;
        const std::string field = json.substr(start, at - start);
        EXPECT_TRUE(has(guide, "`" + field + "`")) << field;
    }
}

TEST_F(ClientOutputsTest, StopsWithOneSentenceWhenItCannotWrite) {
    struct {
        const char* arguments;
        const char* before;
        const char* sentence;
    } const full[] = {
        {"--frames 0 --raw /dev/full", "", "/dev/full cannot be written: No space left on device"},
        {"--frames 0 >/dev/full", "", "standard output cannot be written: No space left on"},
        {"--frames 0 --raw - | head -c 1000", "", "standard output cannot be written: Broken pipe"},
        {"--frames 2 --json /dev/full", "", "/dev/full cannot be written: No space left on device"},
        {"--help >/dev/full", "", "standard output cannot be written: No space left on device"},
        {"--version >/dev/full", "", "standard output cannot be written: No space left on device"},
        {"--frames 0 --raw raw", "ulimit -f 4000;", "raw.part cannot be written: File too large"},
        {"--frames 0 --png .", "ln -s /dev/full frame-000.png.part;",
         "frame-000.png.part cannot be written: No space left on device"},
    };
    for (const auto& [arguments, before, sentence] : full) {
        run(arguments, before);
        const std::string err = read("err");
        const size_t first = err.find(sentence);
        EXPECT_NE(first, std::string::npos) << arguments << '\n' << err;
        EXPECT_EQ(err.find("cannot be written", first + 60), std::string::npos) << err;
    }
    EXPECT_TRUE(exists("raw.part") && !exists("raw"));
    EXPECT_EQ(run("--frames 2 --json /dev/full"), 1);
}

TEST_F(ClientOutputsTest, AsksForNoMoreThanIsRead) {
    ASSERT_EQ(mkfifo((folder / "pipe").c_str(), 0600), 0);
    const host::UniqueFd reader(open((folder / "pipe").c_str(), O_RDONLY | O_NONBLOCK));
    auto running = std::async(std::launch::async, [this] { return run("--frames 0 --raw pipe"); });
    EXPECT_TRUE(eventually([&] {
        const int before = served;
        usleep(100000);  // as long as it takes for some frames more
        pollfd entry = {reader.get(), POLLIN, 0};
        return poll(&entry, 1, 0) == 1 && served == before;
    }));
    EXPECT_LT(served, 50);
    kill(tool, SIGINT);
    EXPECT_EQ(running.get(), 1);
    EXPECT_TRUE(has(read("err"), "pipe cannot be written: Interrupted")) << read("err");
}

TEST_F(ClientOutputsTest, WatchesWithinTheWindowAndInItsColours) {
    struct {
        const char* environment;
        const char* colour;
        size_t columns;
        size_t lines;
    } const terminals[] = {
        {"TERM=xterm-256color", "8;5;", 100, 30},
        {"TERM=xterm COLORTERM=truecolor", "8;2;", 40, 6},
        {"TERM=xterm-256color COLORTERM=truecolor NO_COLOR=1", "", 10, 2},
        {"TERM=xterm", "", 24, 3},
    };
    for (const auto& [environment, colour, columns, lines] : terminals) {
        const std::string size =
            "stty cols " + std::to_string(columns) + " rows " + std::to_string(lines) + "; ";
        const std::string before = "script -qec '" + size + "env -u COLORTERM " + environment;
        EXPECT_EQ(run("--watch --frames 3' /dev/null </dev/null", before), 0) << read("out");
        const Extent shown = extentOf(read("out"));
        EXPECT_TRUE(shown.columns > 0 && shown.columns <= columns) << shown.columns;
        EXPECT_TRUE(shown.lines > 0 && shown.lines <= lines) << shown.lines;
        EXPECT_EQ(has(read("out"), "8;5;"), colour == std::string("8;5;")) << environment;
        EXPECT_EQ(has(read("out"), "8;2;"), colour == std::string("8;2;")) << environment;
    }
    EXPECT_EQ(run("--watch' /dev/null </dev/null", "script -qec 'TERM=dumb"), 2);
    EXPECT_TRUE(has(read("out"), "cursor")) << read("out");
}

}  // namespace testing_support
