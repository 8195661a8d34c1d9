#!/usr/bin/env bash
# Wall time of `heron-stat --from DIR --at TIME` on a full recording (64 MiB,
# written by `record_bench --make`), for each heron-stat given (e.g. an
# older build beside this one), interleaved: ROUNDS rounds of one query
# at the start, the middle and the end of the recording and one for the
# latest sample (no --at). Prints the median wall and CPU (user + system)
# time of each, in milliseconds (the resolution of time(1): 10 ms).
#   bash bench/record_at.sh BUILD [OTHER_HERON_STAT...]
set -euo pipefail
BUILD=${1:?usage: record_at.sh BUILD [HERON_STAT...]}
shift
ROUNDS=${ROUNDS:-9}
BIN=$(cd "$BUILD/bin" && pwd)
TIMES=$(mktemp)
made=
trap 'rm -rf "$TIMES" $made' EXIT
DIR=${RECORDING:-}
if [[ -z $DIR ]]; then
  DIR=$(mktemp -d "${TMPDIR:-/tmp}/heron-record-at.XXXXXX")
  made=$DIR
  "$BIN/record_bench" --make "$DIR" >/dev/null
fi
timeAt() { "$BIN/heron-stat" --from "$DIR" --at "$1" --json | grep -Eo '"time":[0-9.]+' | head -1 | cut -d: -f2; }
first=$(timeAt 0)
last=$(timeAt 9999999999)
echo "recording: $(ls "$DIR" | wc -l) files, $(du -sb "$DIR" | cut -f1) bytes, samples from $first to $last"
programs=("$BIN/heron-stat" "$@")
# "wall,cpu" in milliseconds (cpu: user + system).
ms() {
  /usr/bin/time -f '%e %U %S' -o "$TIMES" "$@" >/dev/null
  awk '{printf "%.0f,%.0f", $1 * 1000, ($2 + $3) * 1000}' "$TIMES"
}
declare -A times
for ((r = 0; r < ROUNDS; r++)); do
  for p in "${!programs[@]}"; do
    for where in start middle end latest; do
      case $where in
        start) args=(--at "$first") ;;
        middle) args=(--at "$(((${first%.*} + ${last%.*}) / 2))") ;;
        end) args=(--at "$last") ;;
        latest) args=() ;;
      esac
      times[$p.$where]+="$(ms "${programs[$p]}" --from "$DIR" "${args[@]}") "
    done
  done
done
for p in "${!programs[@]}"; do
  for where in start middle end latest; do
    wall=$(tr ' ' '\n' <<<"${times[$p.$where]}" | grep . | cut -d, -f1 | sort -n | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}')
    cpu=$(tr ' ' '\n' <<<"${times[$p.$where]}" | grep . | cut -d, -f2 | sort -n | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}')
    printf '%-45s %-7s wall %6d ms, cpu %6d ms\n' "${programs[$p]}" "$where" "$wall" "$cpu"
  done
done
