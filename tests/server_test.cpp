// Who is served and who is not, and what both sides are told of it. A hostile client speaks to the
// socket itself.

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <optional>
#include <tuple>

#include "host/limits.h"
#include "host/remote.h"
#include "host/served_watch.h"
#include "host/threads.h"
#include "raw_socket.h"
#include "support/interposed.h"
#include "support/run_shell.h"
#include "support/stress.h"
#include "support/transport_fixture.h"

namespace testing_support {

using ServerTest = TransportFixture;

TEST_F(ServerTest, EndsAChannelThatIsAtFaultOrReadsNoAnswerAndNoOther) {
    const std::tuple<kit::RawMessage, size_t, std::string> faults[] = {
        {rawMessage({kAnswer, 1, 1, 0}), 0, "bytes that are no call"},
        {rawMessage({kCall, 99, 1, 0}), 0, "no such method, or arguments that do not add up"},
        {rawMessage({kCall, kConfigure, 1, 65, 0, 0}), 65, "too many descriptors"},
        {rawMessage({kCall, kConfigure, 1, 0}, host::kMaxMessageBytes), 0, "message too long"}};
    host::ServedWatch watch(callback);
    host::ServedWatch others(new host::IBase);
    std::optional<Meanwhile> waiting;
    callback->during = [&] {
        EXPECT_TRUE(!watch.waitUntilAnswered({}) && others.waitUntilAnswered({}));
        waiting.emplace([&] { watch.waitUntilAnswered(std::chrono::seconds(15)); }, Other::WAITS);
    };
    {
        const host::ServedWatch gone(callback, [](host::ServedEnd) { ADD_FAILURE(); });
        const std::string inherited = runShell("ls /proc/self/fd").text;
        setUpStream();
        EXPECT_EQ(runShell("ls /proc/self/fd").text, inherited);  // by the processes of others
    }
    for (const auto& [bytes, fds, said] : faults) {
        RawClient hostile = connectRaw();
        hostile.send(bytes, std::vector<int>(fds, STDERR_FILENO));
        EXPECT_TRUE(hostile.isClosed());
        EXPECT_EQ(log.take("transport"), Lines{"E a channel ends: " + said});
        EXPECT_TRUE(remote->ping().isOk());
    }
    // A callback that is none changes nothing.
    EXPECT_EQ(connectRaw().setCallback(STDERR_FILENO), kRefused);
    notify();
    EXPECT_EQ(deliveries.notified().size(), 1U);
    waiting->expect(Other::GOES_ON);
    // Takes as long as the bounded wait, which is what it is about.
    const auto start = std::chrono::steady_clock::now();
    connectRaw().sendUnread(rawMessage({kCall, 0, 1, 0}));
    EXPECT_GE(std::chrono::steady_clock::now() - start, host::kCallPatience);
    EXPECT_EQ(log.take("transport"), Lines{"E a channel ends: the peer does not read its answers"});
}

TEST_F(ServerTest, SaysWhyItCannotServe) {
    const auto problemAt = [this](const std::string& where) {
        EXPECT_EQ(host::Server::listen(where, client, reason), nullptr);
        return reason;
    };
    EXPECT_EQ(problemAt(path), path + " is in use by another provider");
    std::ofstream(folder / "file") << "text";
    EXPECT_EQ(problemAt(folder / "file"), folder / "file exists and is not a socket");
    const host::UniqueFd stranger(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_TRUE(kit::listenRaw(stranger.get(), folder / "stranger"));
    EXPECT_EQ(problemAt(folder / "stranger"), folder / "stranger: Protocol wrong type for socket");
    // Waits for a second, which somebody who takes connections would not need.
    const RawClient busy(folder / "busy");
    const RawClient waiting(folder / "busy");
    EXPECT_TRUE(busy.listen() && waiting.connect());
    EXPECT_EQ(problemAt(folder / "busy"), folder / "busy is in use by another provider");
    for (const std::string& bad : {std::string(), std::string(108, 'x')})
        EXPECT_EQ(problemAt(bad), "a socket's path has 1 to 107 characters: " + bad);
    EXPECT_TRUE(remote->ping().isOk());  // its own thread is there
    host::failNextThreadStart();
    EXPECT_EQ(problemAt(folder / "other"), folder / "other: no thread can be made to serve it");
    host::failNextThreadStart();
    EXPECT_TRUE(connectRaw().isClosed());
    EXPECT_TRUE(log.waitUntilSaid("E a connection is refused: no thread can be made for it"));

    // What a killed provider left behind is taken over.
    remote.clear();
    std::filesystem::rename(path, folder / "left");
    std::ofstream(path) << "another's";
    server.reset();
    EXPECT_TRUE(std::filesystem::exists(path));
    std::filesystem::rename(folder / "left", path);
    serve();
}

TEST_F(ServerTest, ChangesItsPathUnderTheFoldersLockAndIsNobodyElsesBeforeItListens) {
    const host::UniqueFd own(open(folder.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ASSERT_EQ(flock(own.get(), LOCK_EX), 0);
    const auto start = std::chrono::steady_clock::now();
    server.reset();  // for a second it tries to get the lock, and then goes on without it
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    EXPECT_FALSE(std::filesystem::exists(path));
    flock(own.get(), LOCK_UN);
    const DuringListen look([this] {
        EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms(0600));
    });
    serve();
}

TEST_F(ServerTest, RefusesAnotherUser) {
    if (geteuid() != 0) GTEST_SKIP() << "only root can become another user";
    // Even when the file's mode and folder would let it.
    std::filesystem::permissions(folder.path(), std::filesystem::perms::all);
    std::filesystem::permissions(path, std::filesystem::perms::all);
    const RawClient other(path);
    const RawClient foreign(folder / "foreign");
    const pid_t child = fork();
    if (child == 0)
        _exit(setresuid(65534, 65534, 65534) == 0 && foreign.listen() && other.connect() &&
              pause() == 0);
    EXPECT_TRUE(log.waitUntilSaid("E another user's connection is refused") && other.isClosed());
    // Nor is another user's server taken for the provider.
    EXPECT_EQ(host::connect<IFDSession>(folder / "foreign", reason), nullptr);
    EXPECT_EQ(reason, folder / "foreign is another user's");
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
}

TEST_F(ServerTest, TellsOfTheEndOfItsPeer) {
    struct Recipient : public android::hardware::hidl_death_recipient {
        void serviceDied(uint64_t cookie, const wp<host::IBase>& who) override {
            died.set_value({cookie, who.promote() != nullptr});
        }
        std::promise<std::pair<uint64_t, bool>> died;
    };
    const sp<Recipient> told = new Recipient;
    EXPECT_FALSE(bool(remote->linkToDeath(nullptr, 40)));
    EXPECT_TRUE(bool(remote->linkToDeath(told, 41)));
    EXPECT_TRUE(bool(remote->unlinkToDeath(told)));
    EXPECT_FALSE(bool(remote->unlinkToDeath(told)));
    EXPECT_TRUE(bool(remote->linkToDeath(told, 42)));  // and told twice, its promise would break
    server.reset();
    auto death = told->died.get_future();
    ASSERT_EQ(death.wait_until(inTenSeconds()), std::future_status::ready);
    EXPECT_EQ(death.get(), (std::pair<uint64_t, bool>{42, true}));
    host::failNextThreadStart();
    EXPECT_FALSE(bool(remote->linkToDeath(told, 43)));
    EXPECT_EQ(refusalOf(requestFor(1, 1)),
              "Status(EX_TRANSACTION_FAILED): 'DEAD_OBJECT: the peer has closed the connection'");
}

}  // namespace testing_support
