// SPDX-License-Identifier: Apache-2.0
#include "agent/ad/net/watchdog.h"

#include <gtest/gtest.h>

#include "agent/ad/net/socket_pair_testing.h"
#include "agent/ad/net/sockets.h"
#include "vorn/clock_testing.h"

namespace vexagent {
namespace {

using std::chrono::milliseconds;
using vorn::Deadline;
using vorn::Moment;

// ---- Which call has overstayed.

TEST(WatchList, ACallOverstaysFromItsEndOn) {
    vorn::test::ManualClock clock;
    WatchList list;
    EXPECT_EQ(list.next(), Moment::max());
    list.add(7, clock.now() + milliseconds(50));
    EXPECT_EQ(list.next(), clock.now() + milliseconds(50));
    clock.advance(milliseconds(49));
    EXPECT_EQ(list.takeOverdue(clock.now()), std::nullopt);
    clock.advance(milliseconds(1));
    EXPECT_EQ(list.takeOverdue(clock.now()), 7);
    EXPECT_EQ(list.takeOverdue(clock.now()), std::nullopt) << "once";
    EXPECT_EQ(list.next(), Moment::max());
}

TEST(WatchList, TheFirstEndCountsWhateverTheOrderAndEqualOnesAreTwo) {
    vorn::test::ManualClock clock;
    WatchList list;
    list.add(1, clock.now() + milliseconds(60));
    list.add(2, clock.now() + milliseconds(20));
    list.add(3, clock.now() + milliseconds(20));
    clock.advance(milliseconds(20));
    EXPECT_EQ(list.takeOverdue(clock.now()), 2);
    EXPECT_EQ(list.takeOverdue(clock.now()), 3);
    EXPECT_EQ(list.takeOverdue(clock.now()), std::nullopt);
    EXPECT_EQ(list.next(), clock.now() + milliseconds(40));
}

TEST(WatchList, ACallThatHasEndedIsLeftAlone) {
    vorn::test::ManualClock clock;
    WatchList list;
    const WatchList::Key key = list.add(1, clock.now());
    list.remove(key);
    list.remove(key);
    EXPECT_EQ(list.takeOverdue(clock.now()), std::nullopt);
}

// ---- What is done to it.

Deadline within(milliseconds time) {
    return {vorn::systemSteadyClock(), time};
}

TEST(Watchdog, EndsAReadThatOverstays) {
    const SocketPair pair;
    Watchdog dog(vorn::systemSteadyClock());
    const Moment start = vorn::systemSteadyClock().now();
    const Watchdog::Watch watch(dog, pair.ours.get(), within(milliseconds(50)));
    char byte = 0;
    EXPECT_EQ(::recv(pair.ours.get(), &byte, 1, 0), 0);
    EXPECT_GE(vorn::systemSteadyClock().now() - start, milliseconds(50));
}

TEST(Watchdog, TheFirstDeadlineCountsWhateverTheOrder) {
    const SocketPair late;
    const SocketPair soon;
    Watchdog dog(vorn::systemSteadyClock());
    const Watchdog::Watch first(dog, late.ours.get(), within(milliseconds(60'000)));
    const Watchdog::Watch second(dog, soon.ours.get(), within(milliseconds(20)));
    char byte = 0;
    EXPECT_EQ(::recv(soon.ours.get(), &byte, 1, 0), 0);
    EXPECT_FALSE(isDisturbed(late.ours.get()));
}

TEST(Watchdog, LeavesACallAloneThatEndedInTime) {
    const SocketPair watched;
    const SocketPair other;
    Watchdog dog(vorn::systemSteadyClock());
    { const Watchdog::Watch watch(dog, watched.ours.get(), within(milliseconds(30))); }
    // Whatever it would have done to the first is done when it has ended this one.
    const Watchdog::Watch watch(dog, other.ours.get(), within(milliseconds(40)));
    char byte = 0;
    EXPECT_EQ(::recv(other.ours.get(), &byte, 1, 0), 0);
    EXPECT_FALSE(isDisturbed(watched.ours.get()));
}

TEST(Watchdog, IsNotHeldUpByAWatchThatHasEnded) {
    const SocketPair pair;
    Watchdog dog(vorn::systemSteadyClock());
    { const Watchdog::Watch watch(dog, pair.ours.get(), within(milliseconds(60'000))); }
    const Watchdog::Watch watch(dog, pair.ours.get(), within(milliseconds(20)));
    char byte = 0;
    EXPECT_EQ(::recv(pair.ours.get(), &byte, 1, 0), 0);
}

}  // namespace
}  // namespace vexagent
