// Platform and transport, from many threads: what a missing lock breaks the thread sanitizer tells.

#include <android/log.h>
#include <cutils/properties.h>
#include <unistd.h>

#include <atomic>
#include <optional>

#include "buffer_mapper.h"
#include "closing.h"
#include "holdings.h"
#include "host/channel.h"
#include "host/log.h"
#include "host/properties.h"
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

struct Recipient : public android::hardware::hidl_death_recipient {
    ~Recipient() override { atItsEnd(); }
    void serviceDied(uint64_t /*cookie*/, const android::wp<host::IBase>& /*who*/) override {}
    std::function<void()> atItsEnd = [] {};
};

}  // namespace

TEST(LockTest, IsKeptByPropertiesAndLog) {
    host::LogCapture log;
    race({{"set", [](size_t) { host::setProperty("lock", "1"); }},
          {"clear", [](size_t) { host::clearProperty("lock"); }},
          {"get", [](size_t) { property_get_bool("lock", 0); }},
          {"print", [](size_t) { __android_log_print(ANDROID_LOG_INFO, "lock", "line"); }},
          {"capture", [](size_t) { const LogLines inner; }},
          {"lines", [&](size_t) { log.lines(); }},
          {"clear the log", [&](size_t) { log.clear(); }},
          {"waitFor", [&](size_t) { static_cast<void>(log.waitFor("none", 1, {})); }}},
         kRounds);
}

TEST(LockTest, IsKeptByTheMappers) {
    // Without a service, whose count of references would order the threads.
    const host::ScopedMapper none(nullptr, nullptr);
    auto& mapper = host::detail::BufferMapper::get();
    const host::Buffer buffer = allocate({16, 8});
    buffer_handle_t known = nullptr;
    mapper.import(buffer.handle(), known);
    const auto importAndFree = [&](size_t) {
        buffer_handle_t own = nullptr;
        mapper.import(buffer.handle(), own);
        mapper.free(own);
    };
    std::vector<buffer_handle_t> kept(kRounds);
    const host::detail::MapperRect whole = {0, 0, 16, 8};
    void* data = nullptr;
    host::detail::MapperLayout layout = {};
    race({{"2", [](size_t) { mapper2::IMapper::getService(); }},
          {"3", [](size_t) { mapper3::IMapper::getService(); }},
          {"scope", [](size_t) { const host::ScopedMapper inner(nullptr, nullptr); }},
          {"import and free", importAndFree},
          {"import and keep", [&](size_t i) { mapper.import(buffer.handle(), kept[i]); }},
          {"lock", [&](size_t) { mapper.lock(known, 3, whole, data); }},
          {"lockYCbCr", [&](size_t) { mapper.lockYCbCr(known, 3, whole, layout); }},
          {"unlock", [&](size_t) { mapper.unlock(known); }},
          // On either side of whatever is there.
          {"geometryOf",
           [&](size_t i) {
               mapper.geometryOf(reinterpret_cast<buffer_handle_t>(i % 2 == 0 ? 0 : UINTPTR_MAX));
           }}},
         kRounds);
    for (const buffer_handle_t handle : kept)
        mapper.free(handle);
    mapper.free(known);
}

TEST(LockTest, IsKeptByWhatIsServedAndClosedLater) {
    const auto close = [](size_t) { host::detail::closeLater(host::UniqueFd(dup(STDERR_FILENO))); };
    const sp<host::IBase> object = new host::IBase;
    const auto watch = [&](size_t) { const host::ServedWatch own(object); };
    // What it is to call is let go of without the lock.
    host::detail::ServedCalls calls([own = std::shared_ptr<void>(nullptr, [&calls](void* /*none*/) {
                                         Meanwhile([&] { calls.callOff(); }, Other::GOES_ON);
                                     })](host::ServedEnd) {});
    const auto call = [&](size_t) {
        calls.begin();
        calls.end();
    };
    // Without a socket, whose closing would order the threads.
    const auto client = [](size_t) { host::CallChannel({}, host::Peer::CLIENT); };
    host::RequestBounds bounds;
    const CaptureRequest request = requestFor(1, 1, nullptr);
    const hidl_vec<CaptureResult> results = {resultFor(request)};
    const auto place = [&](size_t) { const host::RequestBounds::Place own(bounds, request); };
    race({{"close", close},
          {"another close", close},
          {"isClosingBehind", [](size_t) { static_cast<void>(host::detail::isClosingBehind()); }},
          {"watch", watch},
          {"another watch", watch},
          {"watchesOf", [&](size_t) { host::detail::watchesOf(object.get()); }},
          {"call", call},
          {"another call", call},
          {"wait", [&](size_t) { static_cast<void>(calls.waitForAll({})); }},
          {"channelEnded", [&](size_t) { calls.channelEnded(host::ServedEnd::LET_GO); }},
          {"callOff", [&](size_t) { calls.callOff(); }},
          {"place", place},
          {"another place", place},
          {"handedOver", [&](size_t) { bounds.handedOver(results); }},
          {"restart", [&](size_t) { bounds.restart(); }},
          {"register", [](size_t i) { host::registerInterface(std::to_string(i).c_str(), {}); }},
          {"find",
           [](size_t i) {  // what the other one has just registered
               while (host::detail::findInterface(std::to_string(i).c_str()) == nullptr)
                   std::this_thread::yield();
           }},
          {"client", client},
          {"another client", client},
          {"hang up", [](size_t) { host::hangUpOnClients(); }}},
         kRounds / 3);
}

TEST(LockTest, IsKeptByTheSlotsForConnections) {
    const auto serve = [](size_t) { const host::detail::SlotReserve reserve; };
    race({{"serve", serve}, {"another serve", serve}}, kRounds);
    std::optional<Meanwhile> other;
    const host::detail::SlotReserve::Opened opened;
    other.emplace([&] { serve(0); }, Other::WAITS);
}

TEST(LockTest, IsKeptByAChannelWhosePeerDies) {
    auto [one, other] = kit::socketPair();
    host::CallChannel channel(std::move(one));
    // Made before, and one for each round: the count of one would order the threads.
    std::vector<sp<android::hardware::hidl_death_recipient>> recipients(60);
    for (auto& recipient : recipients)
        recipient = new Recipient;
    const auto link = [&](size_t i) { channel.linkToDeath(recipients[i], 0, nullptr); };
    const auto call = [&](size_t) {
        static_cast<void>(channel.call(1, {}, [](host::Reader& /*reader*/) {}));
    };
    race({{"link", link},
          {"another link", [&](size_t i) { link(30 + i); }},
          {"unlink", [&](size_t i) { channel.unlinkToDeath(recipients[i / 2]); }},
          {"die", [&peer = other](size_t) { peer.reset(); }},
          {"call", call},
          {"another call", call}},
         30);
}

TEST(LockTest, IsNotHeldWhileARecipientIsLetGoOfOrAWatchedSocketCloses) {
    auto [one, other] = kit::socketPair();
    const int watched = one.get();
    host::CallChannel channel(std::move(one));
    auto* const ending = new Recipient;
    sp<android::hardware::hidl_death_recipient> recipient = ending;
    // Its end needs the channel, and the thread that waited for the peer's death.
    ending->atItsEnd = [&channel, threads = kit::Holdings::of().threads] {
        EXPECT_FALSE(channel.unlinkToDeath(new Recipient));
        EXPECT_TRUE(eventually([&] { return kit::Holdings::of().threads == threads; }));
    };
    ASSERT_TRUE(channel.linkToDeath(recipient, 0, nullptr));
    // The caller's own reference goes meanwhile, so that the channel's is the last one.
    const DuringWakeUp letGo([&recipient = recipient] { recipient.clear(); });
    EXPECT_TRUE(channel.unlinkToDeath(recipient));

    recipient = new Recipient;
    ASSERT_TRUE(channel.linkToDeath(recipient, 0, nullptr));
    std::optional<Meanwhile> unlink;  // ends when the closing, and with it the watch on it, has
    std::atomic<bool> closes{false};
    const FileWatch closing(watched, Watching::CLOSES, [&] {
        unlink.emplace([&] { channel.unlinkToDeath(recipient); }, Other::GOES_ON);
        closes = true;
    });
    other.reset();
    EXPECT_TRUE(eventually([&] { return closes.load(); }));
}

}  // namespace testing_support
