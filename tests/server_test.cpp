// Who is served and who is not; a hostile client speaks to the socket itself.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "host/channel.h"
#include "host/limits.h"
#include "host/threads.h"
#include "support/interposed.h"
#include "support/transport_fixture.h"

namespace testing_support {

using host::UniqueFd;

namespace {

using ServerTest = TransportFixture;
using android::hardware::hidl_death_recipient;
using android::hidl::base::V1_0::IBase;

struct Recipient : public hidl_death_recipient {
    void serviceDied(uint64_t cookie, const wp<IBase>& who) override {
        died.set_value({cookie, who.promote() != nullptr});
    }
    std::promise<std::pair<uint64_t, bool>> died;
};

}  // namespace

TEST_F(ServerTest, EndsAChannelThatIsAtFaultAndNoOther) {
    const std::string kNoMessage = "bytes that are no message";
    const std::string kNoSum = "no such method, or arguments that do not add up";
    const std::string kOthers = "other descriptors than the message announces";
    struct Fault {
        const char* name;
        std::vector<uint8_t> bytes;
        size_t fds;
        std::string said;
    };
    const Fault faults[] = {
        {"an empty message", {}, 0, kNoMessage},
        {"an empty message with descriptors", {}, 2, kNoMessage},
        {"an answer without a call", rawMessage({kAnswer, 1, 1, 0}), 0, "bytes that are no call"},
        {"no such method", rawMessage({kCall, 99, 1, 0}), 0, kNoSum},
        {"a record that does not add up", rawMessage({kCall, kRequest, 1, 0, 5}), 0, kNoSum},
        {"fewer descriptors than announced", rawMessage({kCall, kConfigure, 1, 2, 0, 0}), 1,
         kOthers},
        {"more than may cross at once", rawMessage({kCall, kConfigure, 1, 65, 0, 0}), 65,
         "too many descriptors"},
        {"a message that is too long",
         rawMessage({kCall, kConfigure, 1, 0}, host::kMaxMessageBytes), 0, "message too long"},
    };
    setUpStream();
    for (const Fault& fault : faults) {
        log.clear();
        RawClient hostile = connectRaw();
        hostile.send(fault.bytes, std::vector<int>(fault.fds, STDERR_FILENO));
        EXPECT_TRUE(hostile.isClosed()) << fault.name;
        EXPECT_EQ(log.texts("transport"), std::vector{"a channel ends: " + fault.said})
            << fault.name;
        EXPECT_EQ(linesWith("E a channel ends: "), 1) << fault.name;
        EXPECT_TRUE(remote->ping().isOk()) << fault.name;
    }
    printf("%zu faults, each the end of its own channel only\n", std::size(faults));
    // One that is cut off in the middle is no fault.
    log.clear();
    { RawClient gone = connectRaw(); }
    EXPECT_TRUE(remote->ping().isOk());
    EXPECT_TRUE(log.texts("transport").empty());
}

TEST_F(ServerTest, GoesOnWhenNoThreadCanBeMade) {
    EXPECT_TRUE(remote->ping().isOk());  // its own thread is there
    std::string problem;
    host::failNextThreadStart();
    EXPECT_EQ(host::Server::listen(folder / "other", client, problem), nullptr);
    EXPECT_NE(problem.find("no thread can be made"), std::string::npos);
    host::failNextThreadStart();
    EXPECT_FALSE(remote->setCallback(callback).isOk());
    host::failNextThreadStart();
    EXPECT_FALSE(bool(remote->linkToDeath(new Recipient, 1)));
    host::failNextThreadStart();
    RawClient refused = connectRaw();
    EXPECT_TRUE(refused.isClosed());
    EXPECT_TRUE(eventually(
        [&] { return linesWith("E a connection is refused: no thread can be made for it") == 1; }));
    EXPECT_TRUE(remote->ping().isOk());
    expectStatus(remote->setCallback(callback), Status::OK);
    RawClient served = connectRaw();
    EXPECT_TRUE(served.isServed());
}

TEST_F(ServerTest, SaysWhyItCannotListen) {
    const auto problemWith = [this](const std::string& where) {
        std::string problem;
        EXPECT_EQ(host::Server::listen(where, client, problem), nullptr);
        return problem;
    };
    EXPECT_EQ(problemWith(path), path + " is in use by another provider");
    std::ofstream(folder / "file") << "text";
    EXPECT_EQ(problemWith(folder / "file"), folder / "file exists and is not a socket");
    EXPECT_NE(problemWith(folder / "no/socket").find("No such file"), std::string::npos);
    EXPECT_NE(problemWith(std::string(200, 'x')).find("1 to 107 characters"), std::string::npos);
    std::string problem;
    EXPECT_EQ(host::connect<IFDSession>(folder / "nobody", problem), nullptr);
    EXPECT_NE(problem.find("No such file"), std::string::npos);

    // What a killed provider left behind is taken over.
    remote.clear();
    std::filesystem::rename(path, folder / "left");
    server.reset();
    std::filesystem::rename(folder / "left", path);
    serve();
    struct stat file = {};
    EXPECT_EQ(stat(path.c_str(), &file), 0);
    EXPECT_EQ(file.st_mode & 0777U, 0600U);
}

TEST_F(ServerTest, ChangesItsPathUnderTheFoldersLockAndIsNobodyElsesBeforeItListens) {
    const auto opened = [this] {
        int count = 0;
        std::error_code gone;
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
            count += std::filesystem::read_symlink(entry.path(), gone) == folder.path() ? 1 : 0;
        return count;
    };
    const UniqueFd own(open(folder.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ASSERT_EQ(flock(own.get(), LOCK_EX), 0);
    std::atomic<bool> ended{false};
    std::thread ending([&] {
        server.reset();
        ended = true;
    });
    // For a second it tries to get the lock, and has the folder open.
    bool isThere = false;
    EXPECT_TRUE(eventually([&] {
        isThere = std::filesystem::exists(path);
        return ended || opened() > 1;
    }));
    EXPECT_TRUE(isThere);
    flock(own.get(), LOCK_UN);
    ending.join();
    EXPECT_FALSE(std::filesystem::exists(path));

    struct stat file = {};
    const DuringListen look([&] { EXPECT_EQ(stat(path.c_str(), &file), 0); });
    serve();
    EXPECT_EQ(file.st_mode & 0777U, 0600U);
}

TEST_F(ServerTest, RefusesAnotherUser) {
    if (geteuid() != 0) GTEST_SKIP() << "only root can become another user";
    const auto connectAsNobody = [this] {
        RawClient other(path);
        const pid_t child = fork();
        if (child == 0) {
            if (setresuid(65534, 65534, 65534) != 0) _exit(2);
            _exit(other.connect() && !other.isClosed() ? 1 : 0);
        }
        int status = -1;
        waitpid(child, &status, 0);
        return status;
    };
    EXPECT_EQ(connectAsNobody(), 0);
    // Even when the file's mode and folder would let it.
    std::filesystem::permissions(folder.path(), std::filesystem::perms::all);
    std::filesystem::permissions(path, std::filesystem::perms::all);
    EXPECT_EQ(connectAsNobody(), 0);
    EXPECT_TRUE(
        eventually([&] { return linesWith("E another user's connection is refused") == 1; }));

    // Nor is another user's server taken for the provider.
    RawClient foreign(folder / "foreign");
    const pid_t child = fork();
    if (child == 0) {
        if (setresuid(65534, 65534, 65534) != 0 || !foreign.listen()) _exit(1);
        pause();
    }
    std::string problem;
    EXPECT_TRUE(eventually([&] {
        EXPECT_EQ(host::connect<IFDSession>(folder / "foreign", problem), nullptr);
        return problem.find("is another user's") != std::string::npos;
    })) << problem;
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
}

TEST_F(ServerTest, TellsOfTheEndOfItsPeer) {
    const sp<Recipient> told = new Recipient;
    const sp<Recipient> unlinked = new Recipient;
    EXPECT_TRUE(bool(remote->linkToDeath(told, 42)));
    EXPECT_TRUE(bool(remote->linkToDeath(unlinked, 43)));
    EXPECT_TRUE(bool(remote->unlinkToDeath(unlinked)));
    EXPECT_FALSE(bool(remote->unlinkToDeath(unlinked)));
    EXPECT_FALSE(bool(remote->linkToDeath(nullptr, 1)));
    server.reset();
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_EQ(told->died.get_future().get(), (std::pair<uint64_t, bool>{42, true}));
    const Return<Status> answer = remote->configure(configurationOf(0));
    EXPECT_FALSE(answer.isOk());
    EXPECT_EQ(answer.description(),
              "Status(EX_TRANSACTION_FAILED): 'DEAD_OBJECT: the peer has closed the connection'");
    remote.clear();
    EXPECT_EQ(unlinked->died.get_future().wait_for(std::chrono::seconds(0)),
              std::future_status::timeout);
}

}  // namespace testing_support
