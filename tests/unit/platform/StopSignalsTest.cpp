// Beacon::StopSignals: stop signals are read from a descriptor, never acted
// on by default; the mask is restored unless a stop asked to keep it.
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include "Beacon/StopSignals.h"

namespace {

bool blocked(int signal) {
  sigset_t mask;
  ::pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  return ::sigismember(&mask, signal) == 1;
}

TEST(StopSignals, NoSignalMeansNoStopAfterTheWait) {
  Beacon::StopSignals stop({SIGUSR1});
  ASSERT_TRUE(stop.ok());
  EXPECT_EQ(stop.waitNs(1000000), 0);
  EXPECT_EQ(stop.stopped(), 0);
}

TEST(StopSignals, ARaisedStopSignalIsReadNotActedOn) {
  Beacon::StopSignals stop({SIGUSR1});
  ASSERT_TRUE(stop.ok());
  ASSERT_EQ(::raise(SIGUSR1), 0);
  EXPECT_EQ(stop.waitNs(-1), SIGUSR1);
  // Once seen, it is said at once from then on.
  EXPECT_EQ(stop.waitNs(0), SIGUSR1);
  EXPECT_EQ(stop.stopped(), SIGUSR1);
}

TEST(StopSignals, ASignalPendingBeforeTheWatchIsSeen) {
  sigset_t one;
  ::sigemptyset(&one);
  ::sigaddset(&one, SIGUSR2);
  sigset_t previous;
  ASSERT_EQ(::pthread_sigmask(SIG_BLOCK, &one, &previous), 0);
  ASSERT_EQ(::raise(SIGUSR2), 0);
  {
    Beacon::StopSignals stop({SIGUSR2});
    EXPECT_EQ(stop.drain(), SIGUSR2);
  }
  ::pthread_sigmask(SIG_SETMASK, &previous, nullptr);
}

TEST(StopSignals, AQuietSignalIsTakenButStopsNothing) {
  Beacon::StopSignals stop({SIGUSR1}, {SIGUSR2});
  ASSERT_EQ(::raise(SIGUSR2), 0);
  EXPECT_EQ(stop.waitNs(1000000), 0);
  EXPECT_EQ(stop.stopped(), 0);
}

TEST(StopSignals, TheMaskIsRestoredWhenItGoes) {
  ASSERT_FALSE(blocked(SIGUSR1));
  {
    Beacon::StopSignals stop({SIGUSR1});
    EXPECT_TRUE(blocked(SIGUSR1));
  }
  EXPECT_FALSE(blocked(SIGUSR1));
}

TEST(StopSignals, AfterAStopTheSignalsCanStayBlocked) {
  {
    Beacon::StopSignals stop({SIGUSR1});
    stop.keepBlockedAfterStop();
    ASSERT_EQ(::raise(SIGUSR1), 0);
    ASSERT_EQ(stop.drain(), SIGUSR1);
  }
  EXPECT_TRUE(blocked(SIGUSR1));
  sigset_t one;
  ::sigemptyset(&one);
  ::sigaddset(&one, SIGUSR1);
  ::pthread_sigmask(SIG_UNBLOCK, &one, nullptr);
}

}  // namespace
