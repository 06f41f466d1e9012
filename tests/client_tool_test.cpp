// The client program, against a provider in this process that follows its clients as the provider
// program does.

#include <android/log.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <regex.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <mutex>
#include <sstream>
#include <thread>
#include <vector>

#include "ZoruUtil.h"
#include "child_process.h"
#include "client_watch.h"
#include "frame.h"
#include "host/channel.h"
#include "host/unique_fd.h"
#include "support/run_shell.h"
#include "support/session_fixture.h"
#include "temporary_folder.h"
#include "watched_session.h"

namespace testing_support {

namespace {

using kit::kFrameBytes;

std::string contentOf(const std::filesystem::path& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

bool has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

/** Whether an extended regular expression is found in the text. */
bool matches(const std::string& text, const std::string& expression) {
    regex_t compiled;
    if (regcomp(&compiled, expression.c_str(), REG_EXTENDED | REG_NOSUB) != 0) return false;
    const bool found = regexec(&compiled, text.c_str(), 0, nullptr, 0) == 0;
    regfree(&compiled);
    return found;
}

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

class ClientToolTest : public SessionFixture {
protected:
    ClientToolTest() {
        listen();
        provider = std::thread([this] {
            while (!end) {
                if (!provideOne()) usleep(100);
            }
        });
    }
    ~ClientToolTest() override {
        end = true;
        provider.join();
        server.reset();
    }

    void listen() {
        const auto watch = std::make_shared<tools::ClientWatch>([this](const std::string& line) {
            const std::lock_guard<std::mutex> lock(mutex);
            said += line + "\n";
        });
        host::ConnectionEvents events;
        events.came = [this, watch](pid_t process) {
            tool = process;
            watch->came(process);
        };
        events.went = [watch](pid_t process) { watch->went(process); };
        std::string problem;
        server = host::Server::listen(folder / "socket", new tools::WatchedSession(client, watch),
                                      problem, events);
        EXPECT_NE(server, nullptr) << problem;
    }

    /** Sends what an earlier client had asked for, and then what this one did. */
    bool provideOne() {
        CaptureRequest request = {};
        if (session->getProcessCaptureRequest(request) != 0) return false;
        CaptureResult result = resultFor(request);
        result.outputBuffers[0].bufferId = 5;
        session->sendCaptureResult(result);
        const sp<GraphicBuffer> wrapped =
            session->getBufferForId(request.outputBuffers[0].bufferId);
        ZoruUtil::copyTo(frame.data(), wrapped);
        session->sendCaptureResult(resultFor(request));
        if (++served == eventAfter) {
            const std::lock_guard<std::mutex> lock(eventMutex);
            event();
        }
        usleep(pauseUs);
        return true;
    }
    /** Runs this on the provider's thread when so many frames have been served, inside a run(). */
    void after(int frames, std::function<void()> what) {
        const std::lock_guard<std::mutex> lock(eventMutex);
        event = std::move(what);
        eventAfter = served + frames;
    }
    /** The exit code of the program with these arguments, after these words of the shell. */
    int run(const std::string& arguments, const std::string& before = "") const {
        kit::ChildOptions options;
        options.folder = folder.path();
        std::string problem;
        const auto shell = kit::ChildProcess::startShell(
            "exec >out 2>err; " + before + " timeout 60 " CLIENT_TOOL " --socket socket " +
                arguments,
            problem, options);
        EXPECT_NE(shell, nullptr) << problem;
        const int code = shell->exitCode(kPatience);
        // What an event did is seen from here on.
        const std::lock_guard<std::mutex> lock(eventMutex);
        return code;
    }
    std::string read(const std::string& name) const { return contentOf(folder / "" + name); }
    bool exists(const std::string& name) const {
        return std::filesystem::exists(folder / "" + name);
    }
    std::string saidSoFar() {
        const std::lock_guard<std::mutex> lock(mutex);
        return said;
    }

    const kit::TemporaryFolder folder;
    std::unique_ptr<host::Server> server;
    std::atomic<pid_t> tool{0};
    kit::Frame frame = kit::Frame(kFrameBytes, 7);
    std::atomic<bool> end{false};
    std::atomic<int> served{0};
    std::atomic<int> eventAfter{-1};
    std::atomic<useconds_t> pauseUs{0};
    mutable std::mutex eventMutex;
    std::function<void()> event;  // guarded by eventMutex
    std::thread provider;
    std::mutex mutex;
    std::string said;  // by the watch, guarded by mutex
};

TEST_F(ClientToolTest, LetsGoOfResultsThatAreNotItsOwn) {
    EXPECT_EQ(run("--frames 10 --json json --raw raw"), 0) << read("err");
    EXPECT_TRUE(has(read("json"), "\"delivered\": 10")) << read("json");
    EXPECT_FALSE(has(read("json"), "\"foreign\": 0")) << read("json");
    EXPECT_EQ(std::filesystem::file_size(folder / "raw"), 10 * kFrameBytes);
    EXPECT_FALSE(exists("raw.part") || exists("json.part"));
}

TEST_F(ClientToolTest, SaysWhatIsWrongWithACommandLine) {
    const std::pair<const char*, const char*> wrong[] = {
        {"--frames x", "--frames"},
        {"--size 3x4", "is no size"},
        {"--raw - --json -", "cannot both go to -"},
        {"--raw one --json one", "cannot both go to one"},
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

TEST_F(ClientToolTest, KeepsTheStandardOutputForWhatIsToGoThere) {
    EXPECT_EQ(run("--frames 3 --raw -"), 0) << read("err");
    EXPECT_EQ(read("out").size(), 3 * kFrameBytes);
    EXPECT_TRUE(has(read("err"), "delivered"));
    EXPECT_LE(widestLine(read("err")), 80U) << read("err");

    EXPECT_EQ(run("--frames 3 --buffers 2 --json -"), 0) << read("err");
    const std::string json = read("out");
    EXPECT_EQ(json.front(), '{');
    EXPECT_TRUE(has(json, "\"height\": 720") && has(json, "\"buffers\": 2")) << json;
    EXPECT_TRUE(has(json, "{\"frame\": 2, \"outcome\": \"delivered\"")) << json;
    const std::string guide = contentOf(JSON_GUIDE);
    for (size_t at = json.find("\":"); at != std::string::npos; at = json.find("\":", at + 1)) {
        const size_t start = json.rfind('"', at - 1) + 1;
        const std::string field = json.substr(start, at - start);
        EXPECT_TRUE(has(guide, "`" + field + "`")) << field;
    }
}

TEST_F(ClientToolTest, StopsWithOneSentenceWhenItCannotWrite) {
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

TEST_F(ClientToolTest, EndsInOrderWhenItIsInterrupted) {
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        after(5, [this, number] { kill(tool, number); });
        EXPECT_EQ(run("--frames 0 --json json --raw raw"), 0) << number << read("err");
        EXPECT_TRUE(has(read("json"), "\"interrupted\"")) << read("json");
        EXPECT_TRUE(exists("raw") && !exists("raw.part"));
        std::filesystem::remove(folder / "json");
    }
}

TEST_F(ClientToolTest, AsksForNoMoreThanIsRead) {
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

TEST_F(ClientToolTest, LeavesNoErrorBehindAtACleanEnd) {
    // Takes a second or two: without the wait at its end only some of twenty left one, and those at
    // a camera's pace.
    pauseUs = 20000;
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(run("--frames 2"), 0) << read("err");
    for (const host::LogLine& line : log.lines())
        EXPECT_LT(line.priority, ANDROID_LOG_ERROR) << line.text;
}

TEST_F(ClientToolTest, TellsAProviderThatIsGoneFromOneThatIsNotThere) {
    after(3, [this] { server.reset(); });
    EXPECT_EQ(run("--frames 100 --raw raw"), 3);
    EXPECT_TRUE(has(read("err"), "the provider is gone")) << read("err");
    EXPECT_TRUE(exists("raw.part") && !exists("raw"));
    EXPECT_EQ(run("--frames 1"), 3);  // nobody listens any more
    EXPECT_TRUE(has(read("err"), "there is no provider")) << read("err");
    EXPECT_TRUE(has(read("err"), "start one with fdstream-provider")) << read("err");

    auto waiting = std::async(std::launch::async, [this] { return run("--wait --frames 1"); });
    EXPECT_TRUE(eventually([&] { return has(read("err"), "waiting for a provider"); }));
    listen();
    EXPECT_EQ(waiting.get(), 0) << read("err");
}

TEST_F(ClientToolTest, EndsWhenAnotherClientTakesTheSession) {
    sp<IFDSession> other;
    std::string first;
    after(9, [&] {
        first = std::to_string(tool);
        std::string problem;
        other = host::connect<IFDSession>(folder / "socket", problem);
        ASSERT_NE(other, nullptr) << problem;
        EXPECT_TRUE(other->setCallback(callback).isOk());
    });
    EXPECT_EQ(run("--frames 0"), 4);
    EXPECT_TRUE(has(read("err"), "another client has taken the session over")) << read("err");
    ASSERT_NE(other, nullptr);

    const std::string me = std::to_string(getpid());
    const std::string lines =
        "^client " + first + " came\nclient " + me + " came\nclient " + me +
        " took the session over from client " + first + "\n[1-4] requests? of client " + first +
        " waits? for nobody: its callback was replaced\nclient " + first + " went\n$";
    EXPECT_TRUE(eventually([&] { return has(saidSoFar(), "client " + first + " went"); }));
    EXPECT_TRUE(matches(saidSoFar(), lines)) << saidSoFar();

    EXPECT_TRUE(other->setCallback(nullptr).isOk());
    EXPECT_TRUE(eventually([&] { return callback->getStrongCount() == 1; }));
}

TEST_F(ClientToolTest, ConnectsAnewWhenTheProviderGaveItUp) {
    // Takes as long as the bounded wait for a client that does not answer.
    const char* const failure =
        "threadLoop: processCaptureResult transaction failed: Status(EX_TRANSACTION_FAILED): "
        "'TIMED_OUT: no answer within 1000 ms'";
    after(5, [&] {
        EXPECT_TRUE(eventually([&] { return session->isCaptureRequestReady(); }));  // it loses one
        kill(tool, SIGSTOP);
        CaptureResult result = {};
        result.outputBuffers.resize(1);
        session->sendCaptureResult(result);
        EXPECT_TRUE(log.waitFor(failure));
        kill(tool, SIGCONT);
    });
    EXPECT_EQ(run("--frames 40 --json json"), 1) << read("err");
    EXPECT_TRUE(has(read("err"), "the provider has given this client up")) << read("err");
    EXPECT_TRUE(matches(read("json"), "\"missing\": [1-4],")) << read("json");
    EXPECT_TRUE(has(read("json"), "{\"frame\": 39,")) << read("json");
}

TEST_F(ClientToolTest, SaysThatTooManyInFlightOutliveTheirSecond) {
    pauseUs = 100000;  // ten frames a second, of which only the first three come
    after(3, [&] {
        EXPECT_TRUE(eventually([&] { return session->isCaptureRequestReady(); }));
        EXPECT_TRUE(eventually([&] { return !session->isCaptureRequestReady(); }));
    });
    EXPECT_EQ(run("--frames 13 --buffers 13"), 1);
    EXPECT_TRUE(matches(read("err"), "outlived the second.*--buffers [1-9]\n")) << read("err");
}

TEST_F(ClientToolTest, WatchesWithinTheWindowAndInItsColours) {
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

TEST(ClientWatchTest, SaysOnceForAClientThatItsRequestsWaitForNobody) {
    std::string said;
    tools::ClientWatch watch([&](const std::string& line) { said += line + "\n"; });
    const auto ask = [&](pid_t client, uint64_t id, bool accepted) {
        watch.asks(client, id);
        watch.asked(client, id, accepted);
    };
    watch.came(1);
    watch.came(2);
    watch.came(1);
    watch.callbackSet(1, true);
    ask(1, 7, true);
    ask(1, 8, true);
    ask(1, 9, false);
    watch.answered(7);
    watch.answered(9);
    watch.callbackSet(2, true);
    ask(1, 10, true);  // said already
    watch.configured();
    watch.callbackSet(1, true);
    ask(2, 11, false);
    ask(2, 11, true);
    ask(2, 12, true);
    watch.callbackSet(2, false);
    watch.went(1);
    watch.went(1);
    watch.went(2);
    EXPECT_EQ(said,
              "client 1 came\nclient 2 came\n"
              "client 2 took the session over from client 1\n"
              "1 request of client 1 waits for nobody: its callback was replaced\n"
              "client 1 took the session over from client 2\n"
              "a request of client 2 waits for nobody: client 1 has the session\n"
              "client 2 took away the callback of client 1\n"
              "client 1 went\nclient 2 went\n");
}

}  // namespace testing_support
