# Shared by the sim_* and demo_* script tests: a fresh collection root, the
# binaries, and processes that are stopped whatever happens.
set -euo pipefail

BIN=${HERON_BIN:?HERON_BIN must name the bin directory of a build}
HERON=$BIN/heron
SIM=$BIN/heron-sim
WORK=$(mktemp -d "${TMPDIR:-/tmp}/heron-test.XXXXXX")
export HERON_ROOT=$WORK/root
mkdir -p "$HERON_ROOT"
STARTED=()

fail() {
  echo "FAIL: $*" >&2
  exit 1
}

# matches [GREP OPTIONS] PATTERN: grep -q that reads its whole input. Under
# pipefail, `cmd | grep -q` fails at random: grep leaves at the first match
# and cmd, still writing, dies of SIGPIPE.
matches() {
  grep "$@" >/dev/null
}

cleanup() {
  local pid
  for pid in "${STARTED[@]:-}"; do
    [[ -n $pid ]] && kill -TERM "$pid" 2>/dev/null || true
  done
  for pid in "${STARTED[@]:-}"; do
    [[ -n $pid ]] && wait "$pid" 2>/dev/null || true
  done
  rm -rf "$WORK"
}
trap cleanup EXIT

# wait_until SECONDS COMMAND [ARGS...]: runs COMMAND every 50 ms until it
# succeeds; false once SECONDS (whole seconds) have passed without. Tests wait
# for the condition they need, never for a fixed time.
wait_until() {
  local deadline=$(($(date +%s%N) + $1 * 1000000000))
  shift
  until "$@"; do
    (($(date +%s%N) < deadline)) || return 1
    sleep 0.05
  done
}

# wait_for_line FILE PATTERN SECONDS: true once FILE holds a line matching.
wait_for_line() {
  wait_until "$3" grep -q -- "$2" "$1" 2>/dev/null
}

# sanitized_build [BUILD]: true when BUILD (default: the build of $BIN) is the
# AddressSanitizer build, whose memory figures say nothing about the program's
# own (freed blocks wait in ASan's quarantine).
sanitized_build() {
  grep -q '^HERON_SANITIZE:BOOL=ON' "${1:-$BIN/..}/CMakeCache.txt" 2>/dev/null
}

# consumer_project DIR TARGET: a CMake project in DIR whose executable
# `consumer` (from DIR/main.cpp, which the caller writes) links the installed
# target TARGET found with find_package(heron).
consumer_project() {
  mkdir -p "$1"
  cat >"$1/CMakeLists.txt" <<CMAKE
cmake_minimum_required(VERSION 3.25)
project(consumer CXX)
set(CMAKE_CXX_STANDARD 17)
find_package(heron 0.1 REQUIRED)
add_executable(consumer main.cpp)
target_link_libraries(consumer PRIVATE $2)
CMAKE
}

# build_consumer DIR BUILD PREFIX: configures and builds the CMake project in
# DIR (into DIR/build) against the install in PREFIX, with the sanitizer
# flags of the build BUILD that was installed.
build_consumer() {
  local dir=$1 build=$2 prefix=$3 flags=""
  if sanitized_build "$build"; then
    flags="-fsanitize=address,undefined"
  fi
  cmake -S "$dir" -B "$dir/build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_EXE_LINKER_FLAGS="$flags" >"$WORK/configure.log" 2>&1 ||
    fail "find_package(heron) failed: $(tail -20 "$WORK/configure.log")"
  cmake --build "$dir/build" >"$WORK/build.log" 2>&1 || fail "consumer build failed: $(tail -20 "$WORK/build.log")"
}

# start_stat_listen: starts `heron-stat --listen 127.0.0.1:0` and sets
# STAT_PID, PORT and URL once it has said where it listens.
start_stat_listen() {
  "$BIN/heron-stat" --listen 127.0.0.1:0 >"$WORK/stat.out" 2>"$WORK/stat.err" &
  STAT_PID=$!
  STARTED+=("$STAT_PID")
  wait_for_line "$WORK/stat.out" '^listening on 127\.0\.0\.1:[0-9]*$' 10 ||
    fail "heron-stat did not listen: $(cat "$WORK/stat.out" "$WORK/stat.err")"
  PORT=$(sed -n 's/^listening on 127\.0\.0\.1:\([0-9]*\)$/\1/p' "$WORK/stat.out")
  [[ $PORT -gt 0 ]] || fail "no port in: $(cat "$WORK/stat.out")"
  URL=http://127.0.0.1:$PORT
}

# start_writer NAME [write options]: sets WRITER_PID once it has attached.
start_writer() {
  local name=$1
  shift
  local log=$WORK/writer.$RANDOM$RANDOM.log
  "$SIM" write "$name" "$@" >"$log" 2>&1 &
  WRITER_PID=$!
  STARTED+=("$WRITER_PID")
  wait_for_line "$log" "^writer $WRITER_PID attached to " 10 || fail "writer of $name did not attach: $(cat "$log")"
  WRITER_LOG=$log
}

# start_shadow NAME: sets SHADOW_PID once it has attached.
start_shadow() {
  local log=$WORK/shadow.$RANDOM$RANDOM.log
  "$SIM" shadow "$1" >"$log" 2>&1 &
  SHADOW_PID=$!
  STARTED+=("$SHADOW_PID")
  wait_for_line "$log" "^shadow $SHADOW_PID attached to " 10 || fail "shadow of $1 did not attach: $(cat "$log")"
}

# writer_wrote NAME: true once the writer of table NAME has published a
# record (heron's relay headers show a sequence above 0).
writer_wrote() {
  "$HERON" -s "$1" 2>/dev/null | matches $'^\tLatest writer sequence:[1-9]'
}

# stop_pid PID: SIGTERM and wait; its exit status.
stop_pid() {
  kill -TERM "$1" 2>/dev/null || true
  local status=0
  wait "$1" || status=$?
  return $status
}

# True when every thread of process $1 is stopped.
all_stopped() {
  local task
  for task in /proc/"$1"/task/*/stat; do
    [[ $(sed 's/.*) //' "$task" 2>/dev/null | cut -c1) == [tT] ]] || return 1
  done
}

# pause_pid PID: SIGSTOP, returning once every thread of PID has stopped
# (the signal alone lets it run on for a moment); false, with PID continued,
# when it does not stop within 10 s. kill -CONT resumes it.
pause_pid() {
  kill -STOP "$1" || return 1
  wait_until 10 all_stopped "$1" && return 0
  kill -CONT "$1"
  return 1
}
