// Platform and transport, from many threads: what a missing lock breaks the thread sanitizer tells.

#include <android/log.h>
#include <cutils/properties.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <utils/Thread.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "buffer_mapper.h"
#include "closing.h"
#include "holdings.h"
#include "host/log.h"
#include "host/properties.h"
#include "host/remote.h"
#include "host/served_watch.h"
#include "raw_socket.h"
#include "request_bounds.h"
#include "served_calls.h"
#include "served_channel.h"
#include "slot_reserve.h"
#include "support/interposed.h"
#include "support/session_fixture.h"
#include "support/spy_mapper.h"
#include "support/stress.h"

namespace testing_support {

namespace {

constexpr size_t kRounds = 300;

void print(size_t /*round*/) {
    __android_log_print(ANDROID_LOG_INFO, "lock", "line");
}

/** Takes a line at a time, as it is promised. */
struct Counting : public host::LogSink {
    void write(const host::LogLine& /*line*/) override { ++count; }
    size_t count = 0;
};

struct Ending : public android::Thread {
    using Thread::run;
    bool threadLoop() override { return false; }
};

/** Runs, and has ended, while somebody else's run() takes the first reference. */
struct Early : public Ending {
    void onFirstRef() override {
        run("early");
        while (isRunning())
            std::this_thread::yield();
    }
};

/** Says that it was told without giving the other threads an order. */
struct Recipient : public android::hardware::hidl_death_recipient {
    void serviceDied(uint64_t /*cookie*/, const android::wp<host::IBase>& /*who*/) override {
        isTold.store(true, std::memory_order_relaxed);
    }
    std::atomic<bool> isTold{false};
};

/** Its end needs the channel, and the thread that waited for the peer's death. */
struct Demanding : public Recipient {
    Demanding(host::CallChannel& linked, int before) : channel(linked), threads(before) {}
    ~Demanding() override {
        EXPECT_FALSE(channel.unlinkToDeath(other));
        EXPECT_TRUE(eventually([this] { return kit::Holdings::of().threads == threads; }));
    }
    host::CallChannel& channel;
    const int threads;
    const android::sp<Recipient> other = new Recipient;
};

}  // namespace

TEST(LockTest, IsKeptByPropertiesAndLog) {
    race({{"set", [](size_t) { host::setProperty("lock", "1"); }},
          {"clear", [](size_t) { host::clearProperty("lock"); }},
          {"get", [](size_t) { property_get_bool("lock", 0); }}},
         kRounds);

    Counting outer;
    const host::ScopedLogSink scope(outer);
    race({{"print", print}, {"another print", print}}, kRounds);
    EXPECT_EQ(outer.count, 2 * kRounds);
    const auto capture = [](size_t) { const LogLines inner; };
    race({{"print", print}, {"another print", print}, {"capture", capture}}, kRounds);

    host::LogCapture log;
    constexpr std::chrono::milliseconds kAtOnce(0);
    race({{"print", print},
          {"lines", [&](size_t) { log.lines(); }},
          {"texts", [&](size_t) { log.texts("lock"); }},
          {"count", [&](size_t) { log.count("line"); }},
          {"clear", [&](size_t) { log.clear(); }},
          {"waitFor", [&](size_t) { static_cast<void>(log.waitFor("none", 1, kAtOnce)); }}},
         kRounds);
}

TEST(LockTest, IsKeptByTheMappersOfAProcess) {
    // Without a service, whose count of references would order the threads.
    const host::ScopedMapper none(nullptr, nullptr);
    const auto get2 = [](size_t) { mapper2::IMapper::getService(); };
    const auto get3 = [](size_t) { mapper3::IMapper::getService(); };
    const auto scope = [](size_t) { const host::ScopedMapper inner(nullptr, nullptr); };
    race({{"2", get2}, {"2", get2}, {"asked2", [&](size_t) { none.asked2(); }}}, kRounds);
    race({{"3", get3}, {"3", get3}, {"asked3", [&](size_t) { none.asked3(); }}}, kRounds);
    race({{"scope", scope}, {"2", get2}, {"3", get3}}, kRounds);
}

TEST(LockTest, IsKeptByTheMapper) {
    auto& mapper = host::detail::BufferMapper::get();
    const host::Buffer buffer = allocate(16, 8);
    // The last one is known all the time, the first ones are freed, the others are made meanwhile.
    std::vector<buffer_handle_t> imported(2 * kRounds + 1);
    const auto import = [&](size_t i) { mapper.import(buffer.handle(), imported[i]); };
    const buffer_handle_t& known = imported.back();
    const host::detail::MapperRect whole = {0, 0, 16, 8};
    void* data = nullptr;
    host::detail::MapperLayout layout = {};
    import(2 * kRounds);
    for (size_t i = 0; i < kRounds; ++i) {
        import(i);
        mapper.lock(known, 3, whole, data);
    }
    race({{"import", [&](size_t i) { import(kRounds + i); }},
          {"free", [&](size_t i) { mapper.free(imported[i]); }},
          {"lock", [&](size_t) { mapper.lock(known, 3, whole, data); }},
          {"lockYCbCr", [&](size_t) { mapper.lockYCbCr(known, 3, whole, layout); }},
          {"unlock", [&](size_t) { mapper.unlock(known); }},
          {"geometryOf", [&](size_t) { mapper.geometryOf(known); }},
          {"counters", [&](size_t) { mapper.counters(); }},
          {"failLock", [&](size_t) { mapper.failLock(0, 0); }}},
         kRounds);
    for (size_t i = kRounds; i < imported.size(); ++i)
        mapper.free(imported[i]);
}

TEST(LockTest, IsKeptByAThread) {
    const sp<Ending> thread = new Ending;
    const auto run = [&](size_t) {
        while (thread->run("ending") != android::NO_ERROR)
            std::this_thread::yield();
    };
    const auto join = [&](size_t) { thread->join(); };
    race({{"run", run}, {"another run", run}}, kRounds / 10);
    race({{"run", run}, {"join", join}, {"another join", join}}, kRounds / 10);
    thread->join();
    EXPECT_EQ((new Early)->run("late"), android::NO_ERROR);  // goes with its thread
}

TEST(LockTest, IsKeptByWhatIsServedAndClosedLater) {
    const auto close = [](size_t) { host::detail::closeLater(host::UniqueFd(dup(STDERR_FILENO))); };
    const auto look = [](size_t) { static_cast<void>(host::detail::isClosingBehind()); };
    race({{"close", close}, {"another close", close}, {"isClosingBehind", look}}, kRounds / 3);

    const sp<host::IBase> object = new host::IBase;
    std::vector<std::unique_ptr<host::ServedWatch>> watches(2 * kRounds);
    const auto make = [&](size_t i) { watches[i] = std::make_unique<host::ServedWatch>(object); };
    for (size_t i = 0; i < kRounds; ++i)
        make(i);
    race({{"watch", [&](size_t i) { make(kRounds + i); }},
          {"let go", [&](size_t i) { watches[i].reset(); }},
          {"watchesOf", [&](size_t) { host::detail::watchesOf(object.get()); }}},
         kRounds);
    host::detail::ServedCalls calls([](host::ServedEnd) {});
    for (size_t i = 0; i < kRounds; ++i)
        calls.begin();
    race({{"begin", [&](size_t) { calls.begin(); }},
          {"end", [&](size_t) { calls.end(); }},
          {"wait", [&](size_t) { static_cast<void>(calls.waitForAll({})); }}},
         kRounds);
    race({{"channelEnded", [&](size_t) { calls.channelEnded(host::ServedEnd::LET_GO); }},
          {"callOff", [&](size_t) { calls.callOff(); }}},
         kRounds);
}

TEST(LockTest, IsKeptByInterfacesBoundsAndSlots) {
    const auto enter = [](size_t i) { host::registerInterface(std::to_string(i).c_str(), {}); };
    const auto find = [](size_t i) {
        while (host::detail::findInterface(std::to_string(i).c_str()) == nullptr)
            std::this_thread::yield();
    };
    race({{"register", enter}, {"find", find}}, kRounds);

    host::RequestBounds bounds;
    const CaptureRequest request = requestFor(1, 1, nullptr);
    const hidl_vec<CaptureResult> results = {resultFor(request)};
    std::vector<std::optional<host::RequestBounds::Place>> places(2 * kRounds);
    for (size_t i = 0; i < kRounds; ++i)
        places[i].emplace(bounds, request);
    race({{"place", [&](size_t i) { places[kRounds + i].emplace(bounds, request); }},
          {"let go", [&](size_t i) { places[i].reset(); }},
          {"handedOver", [&](size_t) { bounds.handedOver(results); }},
          {"restart", [&](size_t) { bounds.restart(); }}},
         kRounds);

    const auto serve = [](size_t) { const host::detail::SlotReserve reserve; };
    race({{"serve", serve}, {"another serve", serve}}, kRounds);
    std::optional<Meanwhile> other;
    {
        const host::detail::SlotReserve::Opened opened;
        other.emplace([&] { serve(0); }, Other::WAITS);
    }
    other.reset();
}

TEST(LockTest, IsKeptByAChannelWhosePeerDies) {
    struct Link {
        std::pair<host::UniqueFd, host::UniqueFd> ends = kit::socketPair();
        host::CallChannel channel{std::move(ends.first)};
        // Handed over as it is: a copy's count would order the threads.
        Recipient* told = new Recipient;
        const sp<android::hardware::hidl_death_recipient> recipient = told;
    };
    std::vector<Link> links(20);
    const sp<android::hardware::hidl_death_recipient> never = new Recipient;
    host::CallChannel& first = links[0].channel;
    const auto link = [&](size_t) { first.linkToDeath(never, 0, nullptr); };
    const auto unlink = [&](size_t) {
        while (!first.unlinkToDeath(never))
            std::this_thread::yield();
    };
    race({{"link", link}, {"another link", link}, {"unlink", unlink}}, links.size());
    while (first.unlinkToDeath(never)) {
    }
    for (Link& each : links)
        each.channel.linkToDeath(each.recipient, 0, nullptr);
    const auto unlinkWhenTold = [&](size_t i) {
        while (!links[i].told->isTold.load(std::memory_order_relaxed))
            std::this_thread::yield();
        EXPECT_FALSE(links[i].channel.unlinkToDeath(links[i].recipient));
    };
    const auto call = [&](size_t i) {
        static_cast<void>(links[i].channel.call(1, {}, [](host::Reader& /*reader*/) {}));
    };
    race({{"die", [&](size_t i) { links[i].ends.second.reset(); }},
          {"unlink when told", unlinkWhenTold},
          {"call", call},
          {"another call", call}},
         links.size());
}

TEST(LockTest, IsNotHeldWhileARecipientIsLetGoOf) {
    const Watchdog watchdog([] { return "unlinkToDeath"; }, std::chrono::seconds(20));
    auto [one, other] = kit::socketPair();
    host::CallChannel channel(std::move(one));
    sp<android::hardware::hidl_death_recipient> recipient =
        new Demanding(channel, kit::Holdings::of().threads);
    ASSERT_TRUE(channel.linkToDeath(recipient, 0, nullptr));
    // The caller's own reference goes meanwhile, so that the channel's is the last one.
    const DuringWakeUp letGo([&recipient = recipient] { recipient.clear(); });
    EXPECT_TRUE(channel.unlinkToDeath(recipient));
}

}  // namespace testing_support
