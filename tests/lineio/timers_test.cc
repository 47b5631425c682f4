#include "lineio/timers.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <vector>

#include "base/clock.h"
#include "test_support.h"

using namespace kal;
using namespace std::chrono_literals;
using ::testing::ElementsAre;

namespace {

class TimersTest : public ::testing::Test {
  protected:
    void SetUp() override {
        set_clock(&clock_);
        clock_.add_listener(kick_timer_thread);
    }
    void TearDown() override {
        for (TimerOwner id : {1, 2, 3, 99})
            cancel_timer(id);
        set_clock(nullptr);
    }

    // A callback that records `label` when it fires.
    TimerCallback record(std::string label) {
        return [this, label](TimerOwner, int) {
            std::lock_guard lock(mutex_);
            fired_.push_back(label);
            cv_.notify_all();
        };
    }
    bool wait_fired(size_t count) {
        std::unique_lock lock(mutex_);
        return cv_.wait_for(lock, 10s, [&] { return fired_.size() >= count; });
    }
    std::vector<std::string> fired() {
        std::lock_guard lock(mutex_);
        return fired_;
    }
    // Proves every timer due by now has run: a due sentinel fires after them.
    void settle() {
        size_t before = fired().size();
        add_timer_in(0, record("sentinel"), 99, 0);
        ASSERT_TRUE(wait_fired(before + 1));
    }

    ManualClock clock_{1000};
    std::mutex mutex_;
    std::condition_variable cv_;
    std::vector<std::string> fired_;
};

TEST_F(TimersTest, FiresOnlyWhenTheDrivenClockReachesTheDueTime) {
    add_timer_in(30, record("fax wait"), 1, 0);
    clock_.advance(29);
    settle();
    EXPECT_THAT(fired(), ElementsAre("sentinel"));
    clock_.advance(1);
    ASSERT_TRUE(wait_fired(2));
    EXPECT_THAT(fired(), ElementsAre("sentinel", "fax wait"));
}

TEST_F(TimersTest, EqualDueTimesFireInInsertionOrderAndEarlierFirst) {
    add_timer_at(1010, record("b"), 1, 0);
    add_timer_at(1010, record("c"), 2, 0);
    add_timer_at(1005, record("a"), 1, 0);
    add_timer_at(1020, record("d"), 3, 0);
    clock_.advance(20);
    ASSERT_TRUE(wait_fired(4));
    EXPECT_THAT(fired(), ElementsAre("a", "b", "c", "d"));
}

TEST_F(TimersTest, CancelRemovesEveryTimerOfItsOwnerOnly) {
    EXPECT_EQ(cancel_timer(42), 0);
    add_timer_in(5, record("one"), 1, 0);
    add_timer_in(6, record("two"), 2, 0);
    add_timer_in(7, record("one again"), 1, 0);
    EXPECT_EQ(cancel_timer(1), 2);
    clock_.advance(10);
    ASSERT_TRUE(wait_fired(1));
    settle();
    EXPECT_THAT(fired(), ElementsAre("two", "sentinel"));
}

TEST_F(TimersTest, CallbackReceivesItsDataAndMayAddTimers) {
    int seen_data = 0;
    add_timer_in(
        1,
        [&](TimerOwner id, int data) {
            seen_data = data;
            EXPECT_EQ(id, 3);
            add_timer_in(0, record("chained"), 3, 0);
        },
        3, 77);
    clock_.advance(1);
    ASSERT_TRUE(wait_fired(1));
    EXPECT_EQ(seen_data, 77);
}

TEST_F(TimersTest, ThreadEndsWhenIdleAndRestartsForTheNextTimer) {
    add_timer_in(0, record("first"), 1, 0);
    ASSERT_TRUE(wait_fired(1));
    ASSERT_TRUE(kal::test::wait_for([] { return pending_timer_count() == 0; }));
    add_timer_in(2, record("second"), 1, 0);
    clock_.advance(2);
    ASSERT_TRUE(wait_fired(2));
    EXPECT_THAT(fired(), ElementsAre("first", "second"));
}

}  // namespace
