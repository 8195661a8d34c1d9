/* LD_PRELOAD shim for bench/stat.sh only: inotify_init1() fails, so the
 * region reader runs without its per-table directory watch. It shows what a
 * sample costs apart from creating and closing one inotify instance per
 * table; heron-stat itself is never run this way outside the benchmark. */
#define _GNU_SOURCE
#include <errno.h>

int inotify_init1(int flags) {
  (void)flags;
  errno = EMFILE;
  return -1;
}

int inotify_init(void) {
  errno = EMFILE;
  return -1;
}
