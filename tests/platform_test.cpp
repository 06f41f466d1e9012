// The platform stand-in, where the product or a client leans on what it does.

#include <android/log.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <hidl/Status.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utils/Thread.h>

#include <filesystem>
#include <future>
#include <thread>

#include "host/buffer.h"
#include "host/log.h"
#include "host/mapper.h"
#include "host/threads.h"
#include "support/interposed.h"
#include "support/leak_check.h"
#include "support/session_fixture.h"

namespace testing_support {

using android::RefBase;

namespace {

struct Counted : public RefBase {
    explicit Counted(int& alive, int32_t mode = 0) : mAlive(alive) {
        ++mAlive;
        if (mode != 0) extendObjectLifetime(OBJECT_LIFETIME_WEAK);
    }
    ~Counted() override {
        --mAlive;
        if (shownBy != nullptr) seenAtEnd = shownBy->get();
    }
    void onFirstRef() override { countAtFirstRef = getStrongCount(); }

    int& mAlive;
    int32_t countAtFirstRef = 0;
    /** What this still shows when the object ends goes to `seenAtEnd`. */
    const sp<Counted>* shownBy = nullptr;
    static const Counted* seenAtEnd;
};
const Counted* Counted::seenAtEnd = nullptr;

/** Runs `body` in each pass. */
class LoopThread : public android::Thread {
public:
    explicit LoopThread(std::function<bool()> body) : mBody(std::move(body)) {}
    using Thread::exitPending;

private:
    bool threadLoop() override { return mBody(); }

    std::function<bool()> mBody;
};

}  // namespace

TEST(LeakCheckTest, CatchesADescriptorAThreadAndAMapping) {
    const Holdings before = Holdings::now();
    EXPECT_EQ(Holdings::now().differenceFrom(before), "");
    const int fd = dup(STDERR_FILENO);
    EXPECT_NE(Holdings::now().differenceFrom(before).find("descriptors"), std::string::npos);
    close(fd);
    std::promise<void> end;
    std::thread thread([&] { end.get_future().wait(); });
    EXPECT_NE(Holdings::now().differenceFrom(before).find("threads"), std::string::npos);
    end.set_value();
    thread.join();
    {
        const host::Buffer buffer = allocate(4, 4);
        EXPECT_NE(Holdings::now().differenceFrom(before).find("mappings"), std::string::npos);
    }
}

TEST(RefBaseTest, KeepsTheCountsAndTheLifeTimes) {
    int alive = 0;
    sp<Counted> strong = new Counted(alive);
    EXPECT_EQ(strong->countAtFirstRef, 1);
    wp<Counted> weak(strong);
    EXPECT_EQ(weak.promote(), strong);
    sp<Counted> other = std::move(strong);
    other.clear();
    EXPECT_EQ(alive, 0);
    EXPECT_EQ(weak.promote(), nullptr);

    auto* const unheld = new Counted(alive);
    {
        const wp<Counted> early(unheld);
        const sp<Counted> first = early.promote();
        ASSERT_NE(first, nullptr);
        EXPECT_EQ(first->countAtFirstRef, 0);  // a promotion does not run onFirstRef()
    }
    EXPECT_EQ(alive, 0);

    // Each way of replacing an object lets go of it before it shows the other one.
    using Held = sp<Counted>;
    const std::function<void(Held&, Held)> ways[] = {
        [](Held& own, const Held& next) { own = next; },
        [](Held& own, const Held& next) { own = next.get(); },
        [](Held& own, Held next) { own = std::move(next); },
        [](Held& own, const Held&) { own.clear(); }};
    for (const auto& replace : ways) {
        strong = new Counted(alive);
        const Counted* const old = strong.get();
        strong->shownBy = &strong;
        replace(strong, new Counted(alive));
        EXPECT_EQ(Counted::seenAtEnd, old);
        EXPECT_NE(strong.get(), old);
    }
    EXPECT_EQ(alive, 0);  // the last way was clear()
    strong = new Counted(alive);
    sp<Counted>& same = strong;
    strong = same;
    strong = std::move(same);
    EXPECT_EQ(strong->getStrongCount(), 1);

    strong = new Counted(alive, 1);
    weak = strong;
    strong.clear();
    EXPECT_EQ(alive, 1);  // lives with its weak references
    EXPECT_NE(weak.promote(), nullptr);
    weak.clear();
    EXPECT_EQ(alive, 0);
    const Counted onTheStack(alive);
}

TEST(ThreadTest, RunsStopsAndRunsAgain) {
    const int threads = host::threadCount();
    std::atomic<int> passes{0};
    const sp<LoopThread> thread = new LoopThread([&] { return ++passes, true; });
    host::failNextThreadStart();
    EXPECT_EQ(thread->run("x"), android::UNKNOWN_ERROR);
    EXPECT_EQ(thread->getStrongCount(), 1);
    EXPECT_EQ(thread->join(), android::NO_ERROR);  // there is none
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(thread->run("a name of more than fifteen"), android::NO_ERROR);
        EXPECT_EQ(thread->run("again"), android::INVALID_OPERATION);
        EXPECT_TRUE(eventually([&] { return passes > 0; }));
        EXPECT_EQ(thread->requestExitAndWait(), android::NO_ERROR);
        EXPECT_FALSE(thread->isRunning());
        EXPECT_FALSE(thread->exitPending());
        EXPECT_EQ(host::threadCount(), threads);
        passes = 0;
    }
    // A forked child has no such thread: it must not wait for one.
    EXPECT_EQ(thread->run("parent"), android::NO_ERROR);
    const pid_t child = fork();
    if (child == 0) _exit(thread->join() == android::NO_ERROR ? 0 : 1);
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    thread->requestExit();
    thread->requestExit();
    EXPECT_EQ(thread->join(), android::NO_ERROR);
    EXPECT_TRUE(thread->exitPending());  // sticks until the next run
}

TEST(ThreadTest, EndsWhenItsObjectIsLetGoOf) {
    // Counted where the thread may still count when this function has ended.
    const auto counter = std::make_shared<std::atomic<int>>(0);
    const std::atomic<int>& passes = *counter;
    {
        const sp<LoopThread> thread = new LoopThread([counter] { return ++*counter, true; });
        thread->run("between");
        EXPECT_TRUE(eventually([&] { return passes >= 3; }));
    }  // no exit was asked for: the promotion fails
}

TEST(ThreadTest, RefusesToWaitForItselfWhileItsLoopRuns) {
    host::LogCapture log;
    LoopThread* own = nullptr;
    const sp<LoopThread> thread = new LoopThread([&] {
        EXPECT_EQ(own->join(), android::WOULD_BLOCK);
        EXPECT_EQ(own->requestExitAndWait(), android::WOULD_BLOCK);
        EXPECT_FALSE(own->exitPending());
        return false;
    });
    own = thread.get();
    thread->run("own");
    EXPECT_EQ(thread->join(), android::NO_ERROR);
    EXPECT_TRUE(thread->exitPending());  // until the next run, although nobody asked for it
    EXPECT_EQ(log.texts("Thread").size(), 2U);
}

TEST(RecordsTest, CopiesOwnMovesEmptyAndFailuresAreEmptyToo) {
    native_handle_t* const raw = native_handle_create(1, 1);
    raw->data[0] = STDERR_FILENO;
    raw->data[1] = 42;
    const hidl_handle borrowed(raw);
    hidl_handle copy(borrowed);  // owns, also as the copy of one that does not
    ASSERT_NE(copy.getNativeHandle(), nullptr);
    EXPECT_NE(copy->data[0], STDERR_FILENO);
    EXPECT_EQ(fcntl(copy->data[0], F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(copy->data[1], 42);
    const hidl_handle moved(std::move(copy));
    EXPECT_EQ(copy.getNativeHandle(), nullptr);  // NOLINT: what a move leaves is the question
    raw->numFds = 2;  // of two descriptors the second cannot be duplicated
    raw->data[1] = -1;
    const hidl_handle failed(borrowed);  // NOLINT(performance-unnecessary-copy-initialization)
    EXPECT_EQ(failed.getNativeHandle(), nullptr);
    raw->version = 13;
    EXPECT_NE(native_handle_close(raw), 0);
    EXPECT_NE(native_handle_delete(raw), 0);
    raw->version = 12;
    native_handle_delete(raw);
    EXPECT_EQ(native_handle_create(-1, 0), nullptr);
    EXPECT_EQ(native_handle_create(1025, 0), nullptr);
    // What belongs to another is copied, not moved away, when a vector grows.
    using android::hardware::hidl_string;
    hidl_string elements[] = {"one", "two"};
    android::hardware::hidl_vec<hidl_string> vector;
    vector.setToExternal(elements, 2);
    vector.resize(3);
    EXPECT_EQ(vector[1], "two");
    EXPECT_EQ(elements[1], "two");
}

TEST(ReturnDeathTest, EndsTheProcessWhenNobodyLooks) {
    using android::hardware::Status;
    const auto failed = [] { return Status::fromStatusT(android::DEAD_OBJECT, "gone"); };
    const Return<void> examined(failed());
    EXPECT_FALSE(examined.isOk());
    EXPECT_EQ(examined.description(), "Status(EX_TRANSACTION_FAILED): 'DEAD_OBJECT: gone'");
    EXPECT_EQ(Return<int>(failed()).withDefault(5), 5);
    EXPECT_DEATH({ const Return<void> ignored(failed()); }, "not checked.*DEAD_OBJECT: gone");
    EXPECT_DEATH(
        {
            Return<void> overwritten(failed());
            overwritten = Return<void>();
        },
        "not checked.*DEAD_OBJECT: gone");
    EXPECT_DEATH(static_cast<void>(int(Return<int>(failed()))), "failed HIDL call");
}

TEST(LogTest, CutsALineAndGivesThePreviousSinkBack) {
    host::LogCapture outer;
    {
        host::LogCapture inner;
        __android_log_print(ANDROID_LOG_INFO, "tag", "%s\n", std::string(2000, 'x').c_str());
        ASSERT_EQ(inner.lines().size(), 1U);
        EXPECT_EQ(inner.lines()[0].text, std::string(1023, 'x'));
        EXPECT_EQ(inner.lines()[0].priority, ANDROID_LOG_INFO);
    }
    __android_log_print(ANDROID_LOG_ERROR, "tag", "kept\n");
    EXPECT_EQ(outer.texts("tag"), std::vector<std::string>{"kept\n"});
}

// ---- The mapper, which takes handles from a process that it does not trust ----

TEST(MapperTest, MapsABufferOnceHoweverOftenItIsImported) {
    const host::Buffer buffer = allocate(640, 480);
    const host::MapperCounters before = host::mapperCounters();
    {
        const sp<GraphicBuffer> first = new GraphicBuffer(
            buffer.handle(), GraphicBuffer::CLONE_HANDLE, 640, 480, 35, 1, 0x33, 640);
        const sp<GraphicBuffer> again =
            new GraphicBuffer(first->handle, GraphicBuffer::CLONE_HANDLE, 320, 480, 35, 1, 0x33, 1);
        EXPECT_EQ(again->initCheck(), 0);
        EXPECT_EQ(again->stride, 1);
        android_ycbcr planes = {};
        EXPECT_EQ(again->lockYCbCr(0x33, &planes), 0);
        EXPECT_EQ(planes.ystride, 640U);
        EXPECT_EQ(again->unlock(), 0);
        EXPECT_EQ(again->unlock(), 0);  // the mapper refuses, and nobody is told
        EXPECT_EQ(again->lockYCbCr(0xF00, &planes), 3);
        host::failLock(5);
        EXPECT_EQ(again->lockYCbCr(0x33, &planes), 5);
        EXPECT_EQ(host::mapperCounters().mappings, before.mappings + 1);
        EXPECT_EQ(host::mapperCounters().maps, before.maps + 1);

        const sp<GraphicBuffer> wrong = new GraphicBuffer(
            buffer.handle(), GraphicBuffer::CLONE_HANDLE, 641, 480, 35, 1, 0x33, 641);
        EXPECT_NE(wrong->initCheck(), 0);
        EXPECT_EQ(wrong->width + wrong->height + wrong->stride + wrong->format, 0);
        EXPECT_GT(wrong->lockYCbCr(0x33, &planes), 0);
    }
    EXPECT_EQ(host::mapperCounters().mappings, before.mappings);
}

TEST(MapperTest, TellsTwoFilesApartWhoseInodesHaveTheSameNumber) {
    const OneInodeNumber wrapped;
    const host::Buffer one = allocate(8, 4);
    const host::Buffer other = allocate(8, 4);
    other.bytes()[0] = 7;
    const sp<GraphicBuffer> first = wrap(one);
    const sp<GraphicBuffer> second = wrap(other);
    android_ycbcr planes = {};
    ASSERT_EQ(second->lockYCbCr(0x33, &planes), 0);
    EXPECT_EQ(*static_cast<uint8_t*>(planes.y), 7);
}

TEST(MapperTest, RefusesARegionOutsideTheBufferAndAHandleItDoesNotKnow) {
    using android::hardware::graphics::mapper::V3_0::Error;
    const auto mapper = host::realMapper3();
    const host::Buffer buffer = allocate(64, 32);
    void* imported = nullptr;
    Error error = Error::NONE;
    const auto keep = [&](Error answer, void* handle) { error = answer, imported = handle; };
    ASSERT_TRUE(mapper->importBuffer(buffer.handle(), keep).isOk());
    const auto lock = [&](int32_t left, int32_t top, int32_t width, int32_t height) {
        EXPECT_TRUE(mapper
                        ->lock(imported, 3, {left, top, width, height}, nullptr,
                               [&](Error answer, void*, int32_t, int32_t) { error = answer; })
                        .isOk());
        return error;
    };
    EXPECT_EQ(lock(0, 0, 64, 32), Error::NONE);
    EXPECT_EQ(lock(60, 31, 4, 1), Error::NONE);
    EXPECT_EQ(lock(0, 0, 3072, 1), Error::NONE);  // all its bytes, as one row
    EXPECT_EQ(lock(0, 0, 3073, 1), Error::BAD_VALUE);
    EXPECT_EQ(lock(0, 0, 65, 2), Error::BAD_VALUE);
    EXPECT_EQ(lock(-1, 0, 4, 4), Error::BAD_VALUE);
    EXPECT_EQ(lock(1, 0, INT32_MAX, 2), Error::BAD_VALUE);
    EXPECT_EQ(Error(mapper->freeBuffer(imported)), Error::NONE);
    EXPECT_EQ(Error(mapper->freeBuffer(imported)), Error::BAD_BUFFER);
    EXPECT_EQ(lock(0, 0, 4, 4), Error::BAD_BUFFER);
}

TEST(MapperTest, ImportsNothingThatIsNoBuffer) {
    const host::Buffer buffer = allocate(64, 64);  // 6144 bytes
    native_handle_t* const forged = native_handle_clone(buffer.handle());
    const int own = forged->data[0];
    const host::MapperCounters before = host::mapperCounters();
    const auto imports = [&] {
        const sp<GraphicBuffer> wrapped =
            new GraphicBuffer(forged, GraphicBuffer::CLONE_HANDLE, 64, 64, 35, 1, 0x33, 64);
        return wrapped->initCheck() == 0;
    };
    EXPECT_TRUE(imports());

    // Integers that lie: each word out of bounds, and sizes beyond the file's.
    for (int word = 1; word <= 7; ++word) {
        const int honest = std::exchange(forged->data[word], -1);
        EXPECT_FALSE(imports()) << "word " << word;
        forged->data[word] = honest;
    }
    const int height = std::exchange(forged->data[3], 66);
    EXPECT_FALSE(imports());
    forged->data[3] = height;
    forged->numInts -= 1;
    EXPECT_FALSE(imports());
    forged->numInts += 1;

    // Files that are no sealed memory, or not enough of it.
    const auto importsFile = [&](int fd) {
        EXPECT_GE(fd, 0);
        forged->data[0] = fd;
        const bool result = imports();
        forged->data[0] = own;
        close(fd);
        return result;
    };
    const auto memory = [](off_t size, int seals) {
        const int fd = memfd_create("fdstream-buffer", MFD_CLOEXEC | MFD_ALLOW_SEALING);
        EXPECT_EQ(ftruncate(fd, size), 0);
        EXPECT_EQ(fcntl(fd, F_ADD_SEALS, seals), 0);
        return fd;
    };
    EXPECT_TRUE(importsFile(memory(6144, F_SEAL_SHRINK)));
    EXPECT_FALSE(importsFile(memory(6144, F_SEAL_GROW)));
    EXPECT_FALSE(importsFile(memory(6143, F_SEAL_SHRINK)));
    EXPECT_FALSE(importsFile(memory(6144, F_SEAL_SHRINK | F_SEAL_WRITE)));
    const auto most = static_cast<off_t>(host::kMaxBufferBytes);
    EXPECT_TRUE(importsFile(memory(most - 1, F_SEAL_SHRINK)));
    EXPECT_TRUE(importsFile(memory(most, F_SEAL_SHRINK)));
    EXPECT_FALSE(importsFile(memory(most + 1, F_SEAL_SHRINK)));
    const int writable = memory(6144, F_SEAL_SHRINK);
    const std::string name = "/proc/self/fd/" + std::to_string(writable);
    EXPECT_FALSE(importsFile(open(name.c_str(), O_RDONLY | O_CLOEXEC)));
    close(writable);
    EXPECT_FALSE(importsFile(open("/dev/zero", O_RDWR | O_CLOEXEC)));
    EXPECT_FALSE(importsFile(open("/tmp", O_RDONLY | O_DIRECTORY | O_CLOEXEC)));
    EXPECT_FALSE(importsFile(open("/tmp", O_RDWR | O_TMPFILE | O_CLOEXEC, 0600)));
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    EXPECT_FALSE(importsFile(ends[0]));
    EXPECT_FALSE(importsFile(ends[1]));

    native_handle_close(forged);
    native_handle_delete(forged);
    EXPECT_EQ(host::mapperCounters().imports - before.imports, 4);
    EXPECT_EQ(host::mapperCounters().mappings, before.mappings);
}

}  // namespace testing_support
