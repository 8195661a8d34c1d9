#!/usr/bin/env bash
# Runs every fuzz target of build dir $1 for $FUZZ_SECONDS (default 30) over a
# copy of its seed corpus, two at a time; fails when any target crashes,
# leaks, times out or runs out of memory. Findings stay in $1/fuzz-out/<name>/.
set -euo pipefail
build=${1:?usage: fuzz.sh BUILD_DIR}
seconds=${FUZZ_SECONDS:-30}
jobs=${FUZZ_JOBS:-2}
here=$(cd "$(dirname "$0")/.." && pwd)
out="$build/fuzz-out"
rm -rf "$out"
mkdir -p "$out"

run_one() {
  local name=$1 dir="$out/$1"
  mkdir -p "$dir/corpus" "$dir/artifacts"
  # The run grows its own copy: the corpus in the tree stays as committed.
  cp "$here/tests/fuzz/corpus/$name/"* "$dir/corpus/"
  if "$build/bin/$name" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -max_len=16384 \
      -print_final_stats=1 -artifact_prefix="$dir/artifacts/" "$dir/corpus" >"$dir/log" 2>&1; then
    echo "$name: ok, $(grep -Eo 'cov: [0-9]+ ft: [0-9]+' "$dir/log" | tail -1)," \
      "$(grep -Eo 'stat::number_of_executed_units: [0-9]+' "$dir/log" | grep -Eo '[0-9]+$') runs"
  else
    echo "$name: FAILED (log: $dir/log, inputs: $dir/artifacts/)"
    grep -E 'ERROR|runtime error|SUMMARY' "$dir/log" | head -5
    return 1
  fi
}
export -f run_one
export out here build seconds

targets=$(cd "$here/tests/fuzz/corpus" && ls)
if printf '%s\n' $targets | xargs -P "$jobs" -I{} bash -c 'run_one {}'; then
  echo "fuzz: every target ran ${seconds}s without a finding"
else
  echo "fuzz: a target failed"
  exit 1
fi
