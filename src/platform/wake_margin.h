// How early a device wait goes to sleep before its deadline.
//
// A sleeping thread wakes late: by its timer slack and the scheduler's
// wake-up, a few microseconds on bare metal, tens or hundreds in a virtual
// machine, more when the cores are busy. A wait that must end on time
// therefore sleeps to `deadline - margin` and spins the little that is left
// when it wakes before the deadline. The margin is learned per thread from
// how late its own sleeps woke (a running mean), so that the spin is what
// this machine needs and no more: a few microseconds per wait, measured
// with one thread and with eight waiting at once on two cores (docs/
// design-notes.md). When the cores are busy the wakes grow late and the
// margin with them, but a thread that wakes after `deadline - margin` has
// nothing left to spin. The margin never goes above kMaxNs, so one wait
// never spins longer than that; a timer that wakes later than that (Wine's)
// ends the wait late.
#pragma once

#include <algorithm>
#include <cstdint>

namespace VideoConsoleCore::platform {

class WakeMargin {
public:
    static constexpr int64_t kMaxNs = 300000;
    static constexpr int64_t kStartNs = 50000;

    int64_t Ns() const { return margin_; }

    // A sleep asked to end at some time ended `lateNs` after it (0 or more;
    // a clock that reads earlier counts as on time).
    void Learn(int64_t lateNs) {
        const int64_t late = std::clamp<int64_t>(lateNs, 0, kMaxNs);
        margin_ += (late - margin_) / kWeight;
    }

private:
    static constexpr int64_t kWeight = 8;  // the latest wake counts one eighth
    int64_t margin_ = kStartNs;
};

}  // namespace VideoConsoleCore::platform
