// heron-stat --watch on a terminal: the interactive view (ncurses).
#pragma once

#include "Stat.h"

namespace Stat {
namespace Tui {

// Whether standard input and output are a terminal the view can drive:
// not TERM=dumb, and one that can move its cursor. Elsewhere the watch
// appends plain blocks.
bool usable();

// Samples every options.interval and shows them until q or a stop signal
// (readable on `stopFd`); returns the exit status.
int run(const Options& options, int stopFd);

}  // namespace Tui
}  // namespace Stat
