// Which descriptors a client may send across, what becomes of what the kernel adds to a message,
// and memory that may cross, at its worst.

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <tuple>

#include "holdings.h"
#include "host/limits.h"
#include "host/properties.h"
#include "host/unique_handle.h"
#include "memory_map.h"
#include "raw_socket.h"
#include "src/control_data.h"
#include "src/socket.h"
#include "support/kernel.h"
#include "support/transport_fixture.h"

namespace testing_support {

using host::UniqueFd;

namespace {

/** Options of a socket that have the kernel add to each message: credentials, and a pidfd where it
 * is new enough. */
constexpr int kAdding[] = {SO_PASSCRED, 76};

enum Place { NOWHERE, MEMORY, FENCE, CHANNEL };

UniqueFd opened(const std::string& name, int flags) {
    return UniqueFd(open(name.c_str(), flags | O_CLOEXEC, 0600));
}

}  // namespace

class DescriptorsTest : public TransportFixture {
protected:
    void expectToCross(int fd, Place where) {
        CaptureRequest request = requestFor(1, 77, nullptr);
        StreamBuffer& in = request.inputBuffer;
        StreamBuffer& out = request.outputBuffers[0];
        // Each fence, and behind another descriptor that may cross.
        for (hidl_handle* const fence :
             {&in.acquireFence, &in.releaseFence, &out.acquireFence, &out.releaseFence}) {
            *fence = handleOf({event.get(), fd});
            EXPECT_EQ(
                refusalOf(request),
                where == FENCE ? "" : " a fence takes an eventfd, a sync file or a pipe only'");
            *fence = {};
        }
        out.buffer = handleOf({fd});
        // Of two refusals the first is told.
        if (where == NOWHERE) out.releaseFence = handleOf({fd});
        EXPECT_EQ(refusalOf(request),
                  where == MEMORY ? "" : " a buffer's handle takes a memfd only'");
        const RawClient raw = connectRaw();
        EXPECT_EQ(raw.setCallback(fd), where == CHANNEL ? kAnswer : kRefused);
        if (where == CHANNEL) notify();  // which nobody answers
        EXPECT_TRUE(raw.isServed());
    }

    const UniqueFd event{eventfd(0, EFD_CLOEXEC)};
};

TEST_F(DescriptorsTest, CrossWhereTheirKindBelongsAndNowhereElse) {
    const RawClient own = connectRaw();
    int pipe[2];
    ASSERT_EQ(pipe2(pipe, O_CLOEXEC), 0);
    ASSERT_EQ(mkfifo((folder / "fifo").c_str(), 0600), 0);
    const std::string memory = "/proc/self/fd/" + std::to_string(buffer.handle()->data[0]);
    // Invalid is what this user or kernel cannot have.
    const std::tuple<const char*, Place, UniqueFd> kinds[] = {
        {"memfd", MEMORY, UniqueFd(memfd_create("any", MFD_CLOEXEC | MFD_ALLOW_SEALING))},
        {"memfd of huge pages", NOWHERE, UniqueFd(memfd_create("h", MFD_CLOEXEC | MFD_HUGETLB))},
        {"eventfd", FENCE, UniqueFd(fcntl(event.get(), F_DUPFD_CLOEXEC, 0))},
        {"pipe, to read", FENCE, UniqueFd(pipe[0])},
        {"pipe, to write", FENCE, UniqueFd(pipe[1])},
        {"channel of nobody", CHANNEL, kit::rawSocket()},
        {"channel to the provider", CHANNEL, UniqueFd(fcntl(own.fd(), F_DUPFD_CLOEXEC, 0))},
        {"stream socket", NOWHERE, kit::socketPair(SOCK_STREAM).first},
        {"socket between machines", NOWHERE, UniqueFd(socket(AF_VSOCK, SOCK_SEQPACKET, 0))},
        {"file", NOWHERE, opened(folder / "file", O_RDWR | O_CREAT)},
        {"file in memory", NOWHERE, opened("/dev/shm", O_RDWR | O_TMPFILE)},
        {"folder", NOWHERE, opened(folder.path(), O_RDONLY)},
        {"device", NOWHERE, opened("/dev/null", O_RDWR)},
        {"terminal", NOWHERE, opened("/dev/ptmx", O_RDWR | O_NOCTTY)},
        {"pipe with a name", NOWHERE, opened(folder / "fifo", O_RDWR)},
        {"name of a memfd alone", NOWHERE, opened(memory, O_PATH)},
        {"epoll", NOWHERE, UniqueFd(epoll_create1(EPOLL_CLOEXEC))},
    };
    const int before = kit::Holdings::of().descriptors;
    for (const auto& [name, where, fd] : kinds) {
        SCOPED_TRACE(name);
        if (!fd.isValid()) printf("not tried, for want of one: %s\n", name);
        if (fd.isValid()) expectToCross(fd.get(), where);
        // Not more at once than may wait to be closed.
        EXPECT_TRUE(eventually([&] { return kit::Holdings::of().descriptors <= before + 8; }));
    }
    EXPECT_EQ(log.linesWith("a channel ends"), 1);  // the one on which the provider called itself
    EXPECT_EQ(log.linesWith("E sendNotify: notify transaction failed"), 2);
}

TEST(ControlDataTest, IsTakenOrClosedOrLeftAloneByItsKind) {
    // Made by hand, as kernels of any age put it into a message: with one descriptor each.
    struct Part {
        size_t size;
        int level, type, fd;
    };
    constexpr size_t kSize = CMSG_LEN(sizeof(int));
    const int fds[] = {dup(STDERR_FILENO), dup(STDERR_FILENO), dup(STDERR_FILENO)};
    Part parts[] = {{kSize, SOL_SOCKET, SCM_CREDENTIALS, STDERR_FILENO},
                    {kSize, SOL_SOCKET, SCM_RIGHTS, fds[0]},
                    {kSize, SOL_SOCKET, 4, fds[1]},  // SCM_PIDFD
                    {kSize, SOL_SOCKET + 1, SCM_RIGHTS, STDERR_FILENO},
                    {kSize, SOL_SOCKET, SCM_RIGHTS, fds[2]}};
    std::vector<UniqueFd> taken;
    msghdr message = {nullptr, 0, nullptr, 0, parts, sizeof(parts), 0};
    host::detail::takeDescriptors(message, taken);
    parts[0] = {1, SOL_SOCKET, SCM_RIGHTS, STDERR_FILENO};  // too short for its own header
    host::detail::takeDescriptors(message, taken);
    ASSERT_EQ(taken.size(), 2U);
    EXPECT_TRUE(taken[0].get() == fds[0] && taken[1].get() == fds[2]);
    EXPECT_LT(fcntl(fds[1], F_GETFD), 0);
}

TEST_F(DescriptorsTest, AllArriveThatTheKernelDeliversAndNothingStaysThatItAdds) {
    if (!kClosesWhatHasNoRoom) GTEST_SKIP() << "an emulator leaves open what has no room";
    if (!kAddsPidfds) printf("not tried, for want of one: a pidfd beside descriptors\n");
    const auto [mine, theirs] = kit::socketPair();
    const int on = 1;
    for (const int option : kAdding)
        setsockopt(theirs.get(), SOL_SOCKET, option, &on, sizeof(on));
    ASSERT_TRUE(kit::sendRaw(mine.get(), "", 1, std::vector(host::kMaxArrivingFds, STDERR_FILENO)));
    host::detail::Header came = {};
    std::vector<uint8_t> bytes;
    host::Incoming in;
    EXPECT_FALSE(host::detail::receiveMessage(theirs.get(), came, bytes, in, {}).isOk());
    EXPECT_EQ(in.fds.size(), host::kMaxArrivingFds);
    for (const UniqueFd& fd : in.fds)
        EXPECT_EQ(fcntl(fd.get(), F_GETFD), FD_CLOEXEC);  // no child inherits it
    // A peer that hands such a socket over as its callback finds it switched off.
    EXPECT_EQ(connectRaw().setCallback(theirs.get()), kAnswer);
    for (const int option : kAdding) {
        int isOn = 0;
        socklen_t size = sizeof(isOn);
        getsockopt(theirs.get(), SOL_SOCKET, option, &isOn, &size);
        EXPECT_EQ(isOn, 0) << option;
    }
}

class WeaponsTest : public TransportFixture {
protected:
    WeaponsTest() {
        host::setProperty("vendor.zoru.flipped", "true");
        setUpStream();
    }
    ~WeaponsTest() override { host::clearProperty("vendor.zoru.flipped"); }

    void submitAs(uint64_t id, const native_handle_t* handle, Status answer = Status::OK) {
        expectStatus(remote->processCaptureRequest(requestFor(1, id, handle)), answer);
    }
};

TEST_F(WeaponsTest, TurnsNoMoreThanMemoryClaims) {
    constexpr size_t kClaimed = 16 * 12;
    constexpr size_t kThere = 1 << 20;
    const UniqueFd large(memfd_create("fdstream-buffer", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    host::detail::MemoryMap memory;
    ASSERT_TRUE(ftruncate(large.get(), kThere) == 0 && memory.map(large.get(), kThere));
    memory.data()[0] = 1;
    memory.data()[kClaimed] = 2;
    const host::UniqueHandle claim(native_handle_clone(buffer.handle()));
    dup3(large.get(), claim->data[0], O_CLOEXEC);
    fcntl(large.get(), F_ADD_SEALS, F_SEAL_SHRINK);
    submitAs(1, claim.get());
    CaptureRequest earlier = take();
    size_t turns = 0;
    for (const uint64_t id : {1U, 3U, 1U}) {
        submitAs(id, claim.get());
        // It is turned for the earlier one while this one has it, too.
        session->sendCaptureResult(resultFor(std::exchange(earlier, take())));
        deliveries.waitFor(++turns);
        // The first byte is the last one, or the first one again.
        EXPECT_EQ(memory.data()[turns % 2 == 1 ? 16 * 8 - 1 : 0], 1);
        EXPECT_EQ(memory.data()[kClaimed], 2);
        // From now on nobody can map it to write: the mapping that is there has to do, for another
        // buffer of this memory, too.
        EXPECT_EQ(fcntl(large.get(), F_ADD_SEALS, F_SEAL_FUTURE_WRITE), 0);
    }
    expectStatus(remote->configure(configurationOf(0)), Status::OK);
    submitAs(2, claim.get(), Status::ILLEGAL_ARGUMENT);
}

TEST_F(WeaponsTest, TurnsTheLargestBufferWhileTheOthersGoOn) {
    if (std::string(SANITIZERS) == "thread") GTEST_SKIP() << "its shadow of 256 MiB is too much";
    constexpr int kSide = 13376;
    expectStatus(remote->configure(configurationOf(0, {kSide, kSide})), Status::OK);
    const host::Buffer sparse = allocate({kSide, kSide});
    sparse.bytes()[3] = 7;
    submitAs(1, sparse.handle());
    serveOne();
    EXPECT_TRUE(remote->ping().isOk());
    // A busy machine may take more than the usual patience for so many bytes.
    for (int i = 0; i < 5 && !eventually([&] { return deliveries.count() == 1; }); ++i) {
    }
    EXPECT_EQ(sparse.bytes()[kSide * kSide - 4], 7);
    EXPECT_EQ(sparse.bytes()[3], 0);
}

TEST(RecordsTest, CopiesOwnMovesEmptyAndFailuresAreEmptyToo) {
    native_handle_t* const raw = native_handle_create(1, 2);
    EXPECT_EQ(raw->data[0] | raw->data[1] | raw->data[2], 0);
    raw->data[0] = STDERR_FILENO;
    const hidl_handle borrowed(raw);
    hidl_handle copy(borrowed);  // owns, also as the copy of one that does not
    EXPECT_EQ(fcntl(copy->data[0], F_GETFD), FD_CLOEXEC);
    const hidl_handle moved(std::move(copy));
    EXPECT_EQ(copy.getNativeHandle(), nullptr);  // NOLINT: what a move leaves is the question
    copy.setTo(native_handle_clone(raw), true);
    copy.setTo(native_handle_clone(raw), true);  // lets go of the one before
    copy = raw;                                  // so does this, and owns nothing
    copy.setTo(raw);
    copy.setTo(nullptr);
    EXPECT_GE(fcntl(STDERR_FILENO, F_GETFD), 0);  // nor is what it did not own closed
    raw->numFds = 3;  // of three descriptors the second cannot be duplicated
    raw->data[1] = -1;
    EXPECT_EQ(hidl_handle(borrowed).getNativeHandle(), nullptr);
    EXPECT_GE(fcntl(STDIN_FILENO, F_GETFD), 0);  // what the third would have been is not closed
    raw->numFds = 1;
    raw->data[0] = dup(STDERR_FILENO);
    raw->version = 13;
    EXPECT_NE(native_handle_close(raw), 0);
    EXPECT_NE(native_handle_delete(raw), 0);
    raw->version = 12;
    EXPECT_EQ(fcntl(raw->data[0], F_GETFD), 0);
    EXPECT_EQ(native_handle_close(raw), 0);
    errno = 77;
    EXPECT_EQ(native_handle_close(raw), 0);  // a second time, which close() refuses
    EXPECT_EQ(errno, 77);
    native_handle_delete(raw);
    for (const int count : {-1, 1025}) {
        EXPECT_EQ(native_handle_create(count, 0), nullptr);
        EXPECT_EQ(native_handle_create(0, count), nullptr);
    }
    // What belongs to another is copied, not moved away, when a vector grows.
    std::string element = "one";
    hidl_vec<std::string> vector;
    vector.setToExternal(&element, 1);
    vector.resize(2);
    EXPECT_EQ(vector[0] + element, "oneone");
}

TEST(ReturnDeathTest, EndsTheProcessWhenNobodyLooks) {
    using android::hardware::Status;
    const auto failed = [] { return Status::fromStatusT(android::DEAD_OBJECT, "gone"); };
    const Return<void> examined(failed());
    EXPECT_FALSE(examined.isOk());
    EXPECT_EQ(examined.description(), "Status(EX_TRANSACTION_FAILED): 'DEAD_OBJECT: gone'");
    EXPECT_EQ(Return<int>(failed()).withDefault(5), 5);
    EXPECT_DEATH({ const Return<void> ignored(failed()); }, "not checked.*DEAD_OBJECT: gone");
    EXPECT_DEATH(Return<void>{failed()} = Return<void>(), "not checked.*DEAD_OBJECT: gone");
    EXPECT_DEATH(static_cast<void>(int(Return<int>(failed()))), "failed HIDL call");
    EXPECT_TRUE(failed().exceptionCode() == -129 && Status::fromStatusT(android::OK, "").isOk());
    hidl_vec<char> bytes;
    EXPECT_DEATH(bytes.setToExternal(nullptr, size_t{1} << 32), "over 32 bits");
}

}  // namespace testing_support
