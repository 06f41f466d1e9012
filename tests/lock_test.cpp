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
#include "host/mapper.h"
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
    race({{"print", print},
          {"another print", print},
          {"capture", [](size_t) { const LogLines inner; }}},
         kRounds);

    host::LogCapture capture;
    const std::vector<Side> readers = {
        {"lines", [&](size_t) { capture.lines(); }},
        {"texts", [&](size_t) { capture.texts("lock"); }},
        {"count", [&](size_t) { capture.count("line"); }},
        {"clear", [&](size_t) { capture.clear(); }},
        {"waitFor", [&](size_t) {
             static_cast<void>(capture.waitFor("none", 1, std::chrono::milliseconds(0)));
         }}};
    for (const Side& reader : readers)
        race({{"print", print}, reader}, kRounds / 2);
}

TEST(LockTest, IsKeptByTheMappersOfAProcess) {
    // Without a service, whose count of references would order the threads.
    const host::ScopedMapper none(nullptr, nullptr);
    using Mapper2 = android::hardware::graphics::mapper::V2_0::IMapper;
    using Mapper3 = android::hardware::graphics::mapper::V3_0::IMapper;
    const auto get2 = [](size_t) { Mapper2::getService(); };
    const auto get3 = [](size_t) { Mapper3::getService(); };
    race({{"2.0", get2}, {"asked2", [&](size_t) { none.asked2(); }}, {"another 2.0", get2}},
         kRounds);
    race({{"3.0", get3}, {"asked3", [&](size_t) { none.asked3(); }}, {"another 3.0", get3}},
         kRounds);
    const auto scope = [](size_t) { const host::ScopedMapper inner(nullptr, nullptr); };
    race({{"scope", scope}, {"2.0", get2}, {"3.0", get3}}, kRounds);
}

TEST(LockTest, IsKeptByTheMapper) {
    using host::detail::BufferMapper;
    BufferMapper& mapper = BufferMapper::get();
    const host::Buffer buffer = allocate(16, 8);
    const auto import = [&](size_t) {
        buffer_handle_t imported = nullptr;
        mapper.import(buffer.handle(), imported);
        return imported;
    };
    std::vector<buffer_handle_t> imported(kRounds);
    std::vector<buffer_handle_t> freed;
    for (size_t i = 0; i < kRounds; ++i)
        freed.push_back(import(i));
    const buffer_handle_t known = import(0);
    const host::detail::MapperRect whole = {0, 0, 16, 8};
    void* data = nullptr;
    host::detail::MapperLayout layout = {};
    for (size_t i = 0; i < kRounds; ++i)
        mapper.lock(known, 3, whole, data);
    race({{"import", [&](size_t i) { imported[i] = import(i); }},
          {"free", [&](size_t i) { mapper.free(freed[i]); }},
          {"lock", [&](size_t) { mapper.lock(known, 3, whole, data); }},
          {"lockYCbCr", [&](size_t) { mapper.lockYCbCr(known, 3, whole, layout); }},
          {"unlock", [&](size_t) { mapper.unlock(known); }},
          {"geometryOf", [&](size_t) { mapper.geometryOf(known); }},
          {"counters", [&](size_t) { mapper.counters(); }},
          {"failLock", [&](size_t) { mapper.failLock(0, 0); }}},
         kRounds);
    imported.push_back(known);
    for (const buffer_handle_t handle : imported)
        mapper.free(handle);
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

TEST(LockTest, IsKeptByWhatClosesLater) {
    const auto close = [](size_t) { host::detail::closeLater(host::UniqueFd(dup(STDERR_FILENO))); };
    race({{"close", close},
          {"another close", close},
          {"isClosingBehind", [](size_t) { static_cast<void>(host::detail::isClosingBehind()); }}},
         kRounds / 3);
}

TEST(LockTest, IsKeptByWhatIsServed) {
    using host::detail::ServedCalls;
    const sp<host::IBase> object = new host::IBase;
    std::vector<std::unique_ptr<host::ServedWatch>> watches(2 * kRounds);
    const auto make = [&](size_t i) { watches[i] = std::make_unique<host::ServedWatch>(object); };
    for (size_t i = 0; i < kRounds; ++i)
        make(i);
    race({{"watch", [&](size_t i) { make(kRounds + i); }},
          {"let go", [&](size_t i) { watches[i].reset(); }},
          {"watchesOf", [&](size_t) { host::detail::watchesOf(object.get()); }}},
         kRounds);
    ServedCalls calls([](host::ServedEnd) {});
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
    const host::InterfaceMakers makers = {};
    race({{"register",
           [&](size_t i) { host::registerInterface(std::to_string(i).c_str(), makers); }},
          {"find",
           [](size_t i) {
               while (host::detail::findInterface(std::to_string(i).c_str()) == nullptr)
                   std::this_thread::yield();
           }}},
         kRounds);

    host::RequestBounds bounds;
    const CaptureRequest request = requestFor(1, 1, nullptr);
    const hidl_vec<CaptureResult> results = {resultFor(request)};
    std::vector<std::unique_ptr<host::RequestBounds::Place>> places(2 * kRounds);
    const auto place = [&](size_t i) {
        places[i] = std::make_unique<host::RequestBounds::Place>(bounds, request);
    };
    for (size_t i = 0; i < kRounds; ++i)
        place(i);
    race({{"place", [&](size_t i) { place(kRounds + i); }},
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
    constexpr size_t kChannels = 20;
    std::vector<std::unique_ptr<host::CallChannel>> channels;
    std::vector<host::UniqueFd> peers;
    std::vector<Recipient*> told;
    // Handed over as they are: a copy's count would order the threads.
    std::vector<sp<android::hardware::hidl_death_recipient>> recipients;
    for (size_t i = 0; i < kChannels; ++i) {
        auto [one, other] = kit::socketPair();
        channels.push_back(std::make_unique<host::CallChannel>(std::move(one)));
        peers.push_back(std::move(other));
        told.push_back(new Recipient);
        recipients.emplace_back(told.back());
    }
    const sp<android::hardware::hidl_death_recipient> never = new Recipient;
    race({{"link", [&](size_t) { channels[0]->linkToDeath(never, 0, nullptr); }},
          {"another link", [&](size_t) { channels[0]->linkToDeath(never, 0, nullptr); }},
          {"unlink",
           [&](size_t) {
               while (!channels[0]->unlinkToDeath(never))
                   std::this_thread::yield();
           }}},
         kChannels);
    while (channels[0]->unlinkToDeath(never)) {
    }
    for (size_t i = 0; i < kChannels; ++i)
        channels[i]->linkToDeath(recipients[i], 0, nullptr);
    race({{"die", [&](size_t i) { peers[i].reset(); }},
          {"unlink when told",
           [&](size_t i) {
               while (!told[i]->isTold.load(std::memory_order_relaxed))
                   std::this_thread::yield();
               EXPECT_FALSE(channels[i]->unlinkToDeath(recipients[i]));
           }},
          {"call",
           [&](size_t i) {
               static_cast<void>(channels[i]->call(1, {}, [](host::Reader& /*reader*/) {}));
           }},
          {"another call",
           [&](size_t i) {
               static_cast<void>(channels[i]->call(1, {}, [](host::Reader& /*reader*/) {}));
           }}},
         kChannels);
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
