// The platform's reference counts, on which the session's life and death lean.

#include <gtest/gtest.h>
#include <utils/RefBase.h>

#include <functional>
#include <utility>

namespace testing_support {

using android::RefBase;
using android::sp;
using android::wp;

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

}  // namespace

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

}  // namespace testing_support
