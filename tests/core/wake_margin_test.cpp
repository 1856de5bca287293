// The margin a device wait sleeps short of its deadline by follows how late
// the thread's sleeps woke, within [0, kMaxNs]: a wait never spins longer
// than kMaxNs, and a clock read early never makes the margin negative (a
// negative margin would sleep past the deadline).
#include <gtest/gtest.h>

#include "platform/wake_margin.h"

using VideoConsoleCore::platform::WakeMargin;

TEST(WakeMargin, FollowsTheWakesWithinItsBounds) {
    struct Case {
        int64_t late;      // every wake this late
        int64_t expected;  // where the margin settles
    } const cases[] = {
        {0, 0},
        {20000, 20000},
        {WakeMargin::kMaxNs - 1, WakeMargin::kMaxNs - 1},
        {-5000, 0},                                   // a clock read early is on time
        {40 * WakeMargin::kMaxNs, WakeMargin::kMaxNs},  // a wake milliseconds late
    };
    for (const Case& c : cases) {
        WakeMargin margin;
        for (int i = 0; i < 200; ++i) {
            margin.Learn(c.late);
            ASSERT_GE(margin.Ns(), 0) << c.late;
            ASSERT_LE(margin.Ns(), WakeMargin::kMaxNs) << c.late;
        }
        // The running mean moves by eighths, rounded towards the old value.
        EXPECT_NEAR(margin.Ns(), c.expected, 8) << c.late;
    }
}
