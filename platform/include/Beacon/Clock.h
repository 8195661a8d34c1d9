// The two clocks of the runtime, in nanoseconds.
#pragma once

#include <cstdint>

namespace Beacon {

// Wall clock (CLOCK_REALTIME), ns since the epoch: times shown to people and
// written into files (createdNs, startedNs, heartbeatNs).
std::uint64_t nowNs();

// CLOCK_MONOTONIC in ns: ages and intervals, which a step of the wall clock
// must not change (heartbeatMonoNs).
std::uint64_t monoNs();

// monoNs() in seconds: the deadlines and intervals of the tools' loops.
double monoSeconds();

// The wall clock in seconds since the epoch, with sub-microsecond
// resolution: durations printed in reports.
double time();

}  // namespace Beacon
