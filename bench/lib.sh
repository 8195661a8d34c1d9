# Shared set-up of the bench scripts; source it, then call bench_init.
#
#   bench_init BUILD_DIR BASE NAME [HELPER.c ...]
#
# Sets HERE (this directory), BIN (the build's bin directory) and WORK (a new
# directory under BASE, removed at exit with every process listed in PIDS),
# and compiles each HELPER.c of this directory into $WORK/HELPER.
# bench_shm prints a base on tmpfs (/dev/shm) where there is one.
# bench_tables creates the 100 tables the heron-stat benches read, and
# bench_listen starts a heron-stat --listen over them.

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

# bench_tables [COUNT [WRITERS [RATE [PREFIX]]]]: HERON_ROOT=$WORK/root with
# COUNT tables (100), PREFIX (t) and a number of as many digits as COUNT-1
# has (t00 to t99); the first WRITERS of them (10) have a writer at RATE
# notifications a second (100).
bench_tables() {
  local count=${1:-100} writers=${2:-10} rate=${3:-100} prefix=${4:-t} i last
  last=$((count - 1))
  export HERON_ROOT="$WORK/root"
  mkdir -p "$HERON_ROOT"
  for ((i = 0; i < count; i++)); do
    "$BIN/heron-sim" create "$(printf '%s%0*d' "$prefix" "${#last}" "$i")" >/dev/null
  done
  for ((i = 0; i < writers; i++)); do
    "$BIN/heron-sim" write "$(printf '%s%0*d' "$prefix" "${#last}" "$i")" --rate "$rate" >/dev/null 2>&1 &
    PIDS+=($!)
  done
}

# bench_listen PATH [OPTIONS]: starts `heron-stat --listen 127.0.0.1:0
# [OPTIONS]`; sets STAT_PID, and URL to PATH on it once it listens.
bench_listen() {
  local path=$1 i
  shift
  : >"$WORK/stat.out"
  "$BIN/heron-stat" --listen 127.0.0.1:0 "$@" >"$WORK/stat.out" 2>&1 &
  STAT_PID=$!
  PIDS+=("$STAT_PID")
  for ((i = 0; i < 200; i++)); do
    grep -q '^listening on ' "$WORK/stat.out" && break
    sleep 0.05
  done
  URL="http://$(sed -n 's/^listening on //p' "$WORK/stat.out")/$path"
}
