// The Redis sink's queue against a deque doing the same, over random
// operations that wrap around and grow while wrapped.
#include <gtest/gtest.h>

#include <deque>
#include <random>

#include "fanout/Ring.h"

namespace {

TEST(Ring, BehavesLikeADequeThroughWrapsAndGrowth) {
    orvex::fanout::Ring<int> ring;
    std::deque<int> model;
    std::mt19937 rng(7);
    int next = 0;
    for (int step = 0; step < 200000; ++step) {
        const unsigned op = rng() % 10;
        if (op < 4 || model.empty()) {
            ring.push_back(int(next));
            model.push_back(next++);
        } else if (op < 5) {
            ring.push_front(int(next));
            model.push_front(next++);
        } else if (op < 9) {
            ASSERT_EQ(model.front(), ring.front()) << step;
            ring.pop_front();
            model.pop_front();
        } else if (step % 5000 == 9) {
            ring.clear();
            model.clear();
        }
        ASSERT_EQ(model.size(), ring.size());
        ASSERT_EQ(model.empty(), ring.empty());
    }
    // Grown while wrapped, in order.
    orvex::fanout::Ring<int> wrapped;
    for (int i = 0; i < 1000; ++i) wrapped.push_back(int(i));
    for (int i = 0; i < 600; ++i) wrapped.pop_front();
    for (int i = 1000; i < 3000; ++i) wrapped.push_back(int(i));
    EXPECT_GE(wrapped.capacity(), 2400u);
    for (int i = 600; i < 3000; ++i) {
        ASSERT_EQ(i, wrapped.front());
        wrapped.pop_front();
    }
    EXPECT_TRUE(wrapped.empty());
}

}  // namespace
