# Shared set-up of the bench scripts; source it, then call bench_init.
#
#   bench_init BUILD_DIR BASE NAME [HELPER.c ...]
#
# Sets HERE (this directory), BIN (the build's bin directory) and WORK (a new
# directory under BASE, removed at exit with every process listed in PIDS),
# and compiles each HELPER.c of this directory into $WORK/HELPER.
# bench_shm prints a base on tmpfs (/dev/shm) where there is one.

bench_shm() {
  if [[ -d /dev/shm && -w /dev/shm ]]; then
    echo /dev/shm
  else
    echo "${TMPDIR:-/tmp}"
  fi
}

bench_cleanup() {
  if ((${#PIDS[@]})); then
    kill "${PIDS[@]}" 2>/dev/null || true
    wait 2>/dev/null || true
  fi
  rm -rf "$WORK"
}

bench_init() {
  local build=$1 base=$2 name=$3 helper
  shift 3
  HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
  BIN=$(cd "$build/bin" && pwd)
  WORK=$(mktemp -d "$base/$name.XXXXXX")
  PIDS=()
  trap bench_cleanup EXIT
  for helper in "$@"; do
    cc -O2 -o "$WORK/${helper%.c}" "$HERE/$helper"
  done
}
