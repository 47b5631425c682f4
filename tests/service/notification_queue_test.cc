#include "service/notification_queue.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <string>
#include <thread>
#include <vector>

using namespace kal;

namespace {

bool readable(const NotificationQueue& q) {
    pollfd p{q.fd(), POLLIN, 0};
    return poll(&p, 1, 0) == 1;
}

std::vector<std::string> names(const std::deque<Notification>& taken) {
    std::vector<std::string> out;
    for (const auto& n : taken)
        out.push_back(n.name);
    return out;
}

// Only the first push into an empty queue wakes the loop, so the descriptor
// must say "readable" for exactly as long as something waits.
TEST(NotificationQueueTest, TheLoopIsDueToWakeWhileAnythingWaits) {
    NotificationQueue q;
    EXPECT_FALSE(readable(q));
    q.push({"a", {}, {}});
    q.push({"b", {}, {}});
    q.push({"c", {}, {}});
    EXPECT_TRUE(readable(q));
    EXPECT_EQ(names(q.takeAll()), (std::vector<std::string>{"a", "b", "c"}));
    EXPECT_FALSE(readable(q));
    q.push({"d", {}, {}});
    EXPECT_TRUE(readable(q)) << "a push after the queue was taken wakes the loop again";
    EXPECT_EQ(names(q.takeAll()), std::vector<std::string>{"d"});
    q.wake();
    EXPECT_TRUE(readable(q));
    EXPECT_TRUE(q.takeAll().empty());
    EXPECT_FALSE(readable(q));
}

// A poster racing the taker: every notification is taken once, in order,
// and none is left waiting without the descriptor readable.
TEST(NotificationQueueTest, NoNotificationWaitsUnnoticedWhilePostersRace) {
    NotificationQueue q;
    constexpr int kCount = 20000;
    std::thread poster([&] {
        for (int i = 0; i < kCount; ++i)
            q.push({std::to_string(i), {}, {}});
    });
    int next = 0;
    while (next < kCount) {
        pollfd p{q.fd(), POLLIN, 0};
        ASSERT_EQ(poll(&p, 1, 60000), 1) << "queue stalled after " << next;
        for (const auto& n : q.takeAll())
            ASSERT_EQ(n.name, std::to_string(next++));
    }
    poster.join();
}

}  // namespace
