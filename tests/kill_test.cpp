// Clients that are killed in the middle of their stream, and one that never reads: each a process.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <random>
#include <thread>

#include "host/channel.h"
#include "host/unique_fd.h"
#include "support/leak_check.h"
#include "support/session_fixture.h"

namespace testing_support {

namespace {

/** A client process, killed and waited for at the latest when this goes. */
class ClientProcess {
public:
    explicit ClientProcess(const std::string& path) {
        int input[2];
        int output[2];
        EXPECT_EQ(pipe2(input, O_CLOEXEC), 0);
        EXPECT_EQ(pipe2(output, O_CLOEXEC), 0);
        mInput.reset(input[1]);
        mOutput.reset(output[0]);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, input[0], STDIN_FILENO);
        posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
        std::string arguments[] = {CLIENT_PROBE, "stream", path};
        char* const argv[] = {arguments[0].data(), arguments[1].data(), arguments[2].data(),
                              nullptr};
        EXPECT_EQ(posix_spawn(&mProcess, CLIENT_PROBE, &actions, nullptr, argv, environ), 0);
        posix_spawn_file_actions_destroy(&actions);
        close(input[0]);
        close(output[1]);
    }
    ~ClientProcess() {
        kill(mProcess, SIGKILL);
        waitpid(mProcess, nullptr, 0);
    }
    ClientProcess(const ClientProcess&) = delete;
    ClientProcess& operator=(const ClientProcess&) = delete;

    bool waitForFirstFrame() const {
        pollfd entry = {mOutput.get(), POLLIN, 0};
        char byte = 0;
        return poll(&entry, 1, 20000) == 1 && read(mOutput.get(), &byte, 1) == 1 && byte == '1';
    }
    bool goOn() const { return write(mInput.get(), "g", 1) == 1; }

private:
    host::UniqueFd mInput;
    host::UniqueFd mOutput;
    pid_t mProcess = -1;
};

/** More when the environment asks for it, as the deeper checks do. */
int kills() {
    const char* const wanted = getenv("FDSTREAM_KILLS");
    return wanted != nullptr ? static_cast<int>(strtol(wanted, nullptr, 10)) : 25;
}

}  // namespace

class KillTest : public SessionFixture {
protected:
    KillTest() {
        char name[] = "/tmp/fdstream-test-XXXXXX";
        folder = mkdtemp(name);
    }
    ~KillTest() override { std::filesystem::remove_all(folder); }

    std::string folder;
};

TEST_F(KillTest, ServesTheNextClientAndKeepsNothingOfTheLast) {
    std::string problem;
    const auto server = host::Server::listen(folder + "/socket", client, problem);
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
            const ClientProcess early(folder + "/socket");  // one that is still setting up
            usleep(static_cast<useconds_t>(random() % 8000));
        }
        // What it had sent is served to its end, so that it does not come after the next client's.
        EXPECT_TRUE(eventually([&] { return kit::Holdings::of().threads == alone; }));
        const ClientProcess process(folder + "/socket");
        if (!process.waitForFirstFrame()) break;
        // The same point of each client's life: nothing more than at the first one's.
        if (held == 0) first = kit::Holdings::of();
        const bool within = eventually([&] { return kit::Holdings::of().isWithin(first); });
        EXPECT_TRUE(within) << kit::Holdings::of().differenceFrom(first);
        if (!within || !process.goOn()) break;
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
    std::filesystem::permissions(folder, std::filesystem::perms::all);
    const std::string command = "timeout 60 " CLIENT_PROBE " starve " + folder;
    EXPECT_EQ(system(command.c_str()), 0);
}

}  // namespace testing_support
