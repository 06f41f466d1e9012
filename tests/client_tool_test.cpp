// The client program's way from its start to its end, whatever its provider and others do, and what
// a provider says of its clients.

#include <android/log.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <future>
#include <string>

#include "client_watch.h"
#include "host/channel.h"
#include "support/client_tool_fixture.h"

namespace testing_support {

namespace {
using ClientToolTest = ClientToolFixture;
}  // namespace

TEST_F(ClientToolTest, EndsInOrderWhenItIsInterrupted) {
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        after(5, [this, number] { kill(tool, number); });
        EXPECT_EQ(run("--frames 0 --json json --raw raw"), 0) << number << read("err");
        EXPECT_TRUE(has(read("json"), "\"interrupted\"")) << read("json");
        EXPECT_TRUE(exists("raw") && !exists("raw.part") && !exists("json.part"));
        EXPECT_EQ(std::filesystem::file_size(folder / "raw") % kit::kFrameBytes, 0U);
        std::filesystem::remove(folder / "json");
    }
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
    after(3, [this] {
        EXPECT_TRUE(eventually([this] { return !read("raw.part").empty(); }));
        server.reset();
    });
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
    const std::string socket = folder / "of-a-program";
    const auto provider = startShell("exec " PROVIDER_TOOL " --socket " + socket);
    EXPECT_EQ(provider->nextLine(kPatience), "listening on " + socket);
    const auto first = startShell("exec " CLIENT_TOOL " --frames 0 --socket " + socket);
    EXPECT_NE(first->nextLine(kPatience).value_or(""), "");  // some frames
    std::string problem;
    auto other = host::connect<IFDSession>(socket, problem);
    EXPECT_TRUE(other->setCallback(callback).isOk());
    EXPECT_TRUE(has(first->rest(kPatience), "another client has taken the session over"));
    EXPECT_EQ(first->exitCode(kPatience), 4);

    EXPECT_TRUE(other->setCallback(nullptr).isOk());
    provider->signal(SIGTERM);
    const std::string it = "client " + std::to_string(first->id());
    const std::string me = "client " + std::to_string(getpid());
    const std::string said = provider->rest(kPatience);
    // What is said between them hangs on the moment: the first may go before the other's call ends.
    EXPECT_TRUE(matches(said, "^" + it + " came\n" + me + " came\n(" + me +
                                  " took the session over from " + it + "\n)?(.* of " + it +
                                  " waits? for nobody: .*\n)?" + it + " went\n"))
        << said;
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
    // Lost with its channel, or answered with an error on the new one: whichever call timed out.
    EXPECT_TRUE(matches(read("json"), "\"(missing|failed)\": [1-4],")) << read("json");
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

TEST(ClientWatchTest, SaysOnceForAClientThatItsRequestsWaitForNobody) {
    std::string said;
    tools::ClientWatch watch([&](const std::string& line) { said += line + "\n"; });
    const auto ask = [&](pid_t client, uint64_t id, bool accepted) {
        watch.asks(client, id);
        watch.asked(client, id, accepted);
    };
    for (const pid_t client : {1, 2, 1})
        watch.came(client);
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
    for (const pid_t client : {1, 1, 2})
        watch.went(client);
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
