// Clients that are killed in the middle of their stream, and one that never reads: each a process.

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <thread>

#include "holdings.h"
#include "host/channel.h"
#include "support/run_shell.h"
#include "support/session_fixture.h"
#include "temporary_folder.h"

namespace testing_support {

namespace {

using KillTest = SessionFixture;

/** More when the environment asks for it, as the deeper checks do. */
int kills() {
    const char* const wanted = getenv("FDSTREAM_KILLS");
    return wanted != nullptr ? static_cast<int>(strtol(wanted, nullptr, 10)) : 25;
}

std::unique_ptr<kit::ChildProcess> startClient(const std::string& path) {
    kit::ChildOptions options;
    options.takesInput = true;
    std::string problem;
    auto process = kit::ChildProcess::start(CLIENT_PROBE, {"stream", path}, problem, options);
    EXPECT_NE(process, nullptr) << problem;
    return process;
}

}  // namespace

TEST_F(KillTest, ServesTheNextClientAndKeepsNothingOfTheLast) {
    const kit::TemporaryFolder folder;
    const std::string path = folder / "socket";
    std::string problem;
    const auto server = host::Server::listen(path, client, problem);
    ASSERT_NE(server, nullptr) << problem;
    std::atomic<bool> end{false};
    std::thread provider([&] {
        while (!end) {
            CaptureRequest request = {};
            if (session->getProcessCaptureRequest(request) == 0) {
                FDNotifyMsg msg = {};
                session->sendNotify(msg);
                session->sendCaptureResult(resultFor(request));
            } else {
                usleep(50);
            }
        }
    });
    std::minstd_rand random(static_cast<unsigned>(getpid()));
    const int alone = kit::Holdings::of().threads;
    kit::Holdings first;
    int held = 0;
    for (; held < kills(); ++held) {
        {
            const auto early = startClient(path);  // one that is still setting up
            usleep(static_cast<useconds_t>(random() % 8000));
        }
        // What it had sent is served to its end, so that it does not come after the next client's.
        EXPECT_TRUE(eventually([&] { return kit::Holdings::of().threads == alone; }));
        const auto process = startClient(path);
        if (process->nextLine(kPatience) != "1") break;
        // The same point of each client's life: nothing more than at the first one's.
        if (held == 0) first = kit::Holdings::of();
        const bool within = eventually([&] { return kit::Holdings::of().isWithin(first); });
        EXPECT_TRUE(within) << kit::Holdings::of().differenceFrom(first);
        if (!within || !process->write("g")) break;
        usleep(static_cast<useconds_t>(random() % 2000));
    }
    EXPECT_EQ(held, kills());
    printf("%d clients killed at random moments of their stream, as many of their set-up\n", held);
    end = true;
    provider.join();
    stop();
}

TEST_F(KillTest, IsNotStarvedByAClientThatNeverReads) {
    // Takes as long as the bounded wait: the silent client costs it once.
    const kit::TemporaryFolder folder;
    std::filesystem::permissions(folder.path(), std::filesystem::perms::all);
    const Output output = runShell("exec " CLIENT_PROBE " starve " + folder.path().string());
    EXPECT_EQ(output.exitCode, 0) << output.text;
}

}  // namespace testing_support
