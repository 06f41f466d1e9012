// The platform's reference counts, on which the session's life and death lean.

#include <gtest/gtest.h>
#include <utils/RefBase.h>

#include <functional>
#include <utility>

namespace testing_support {

using android::sp;
using android::wp;

namespace {

int alive = 0;

struct Counted : public android::RefBase {
    explicit Counted(int32_t mode = OBJECT_LIFETIME_STRONG) {
        ++alive;
        extendObjectLifetime(mode);
    }
    ~Counted() override {
        --alive;
        if (onEnd) onEnd();
    }
    void onFirstRef() override { countAtFirstRef = getStrongCount(); }

    int32_t countAtFirstRef = 0;
    std::function<void()> onEnd;
};

}  // namespace

TEST(RefBaseTest, KeepsTheCountsAndTheLifeTimes) {
    sp<Counted> strong = new Counted;
    EXPECT_EQ(strong->countAtFirstRef, 1);
    wp<Counted> weak(strong);
    EXPECT_EQ(weak.promote(), strong);
    sp<Counted> other = std::move(strong);
    other.clear();
    EXPECT_EQ(alive, 0);
    EXPECT_EQ(weak.promote(), nullptr);

    weak = wp<Counted>(new Counted);
    strong = weak.promote();
    EXPECT_EQ(strong->countAtFirstRef, 0);  // a promotion does not run onFirstRef()
    EXPECT_EQ(strong->getStrongCount(), 1);
    strong.clear();

    // Each way of replacing an object lets go of it before it shows the other one.
    using Held = sp<Counted>;
    const std::function<void(Held&, Held)> ways[] = {
        [](Held& own, const Held& next) { own = next; },
        [](Held& own, const Held& next) { own = next.get(); },
        [](Held& own, Held next) { own = std::move(next); },
        [](Held& own, const Held&) { own.clear(); }};
    for (const auto& replace : ways) {
        strong = new Counted;
        const Counted* seenAtEnd = nullptr;
        Counted* const old = strong.get();
        old->onEnd = [&] { seenAtEnd = strong.get(); };
        replace(strong, new Counted);
        EXPECT_EQ(seenAtEnd, old);
        EXPECT_NE(strong.get(), old);
    }
    EXPECT_EQ(alive, 0);  // the last way was clear()
    strong = new Counted;
    sp<Counted>& same = strong;
    strong = same;
    strong = std::move(same);
    EXPECT_EQ(strong->getStrongCount(), 1);

    strong = new Counted(1);
    weak = strong;
    strong.clear();
    EXPECT_EQ(alive, 1);  // lives with its weak references
    EXPECT_NE(weak.promote(), nullptr);
    weak.clear();
    EXPECT_EQ(alive, 0);
    const Counted onTheStack;
}

}  // namespace testing_support
