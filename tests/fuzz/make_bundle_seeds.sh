#!/usr/bin/env bash
# Writes the seed corpora of fuzz_bundle and fuzz_recording from real runs
# of the tools in BUILD (default build): small tables made by heron-sim, one
# with a writer that has come and gone, captured as a tar and as a .zst
# bundle, a short recording, and cut-off copies of each. Regression inputs
# beside them stay. Run again after a change of the bundle or recording
# format.
set -euo pipefail
build=${1:-build}
bin=$(cd "$build/bin" && pwd)
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d "${TMPDIR:-/tmp}/heron-seeds.XXXXXX")
recorder=
writer=
trap 'kill $recorder $writer 2>/dev/null || true; rm -rf "$work"' EXIT
export HERON_ROOT=$work/root
mkdir -p "$HERON_ROOT"
# Small files keep each bundle under the fuzzer's 16 KiB inputs.
"$bin/heron-sim" create md/quotes --capacity 4 --no-regions >/dev/null
"$bin/heron-sim" create md/idle --capacity 2 --no-regions >/dev/null
"$bin/heron-sim" create archive/day --type 3 --capacity 2 --no-regions >/dev/null
"$bin/heron-sim" write md/quotes --rate 100 --duration 1 >/dev/null

bundles=$here/corpus/fuzz_bundle
recordings=$here/corpus/fuzz_recording
mkdir -p "$bundles" "$recordings"
# The writer's regions would make a plain tar too large: that one leaves
# the written table out.
TMPDIR=$work "$bin/heron-stat" --capture "$work/b.tar" archive/day md/idle >/dev/null 2>&1
TMPDIR=$work "$bin/heron-stat" --capture "$work/b.tar.zst" >/dev/null 2>&1
TMPDIR=$work "$bin/heron-stat" --capture "$work/one.tar.zst" archive/day >/dev/null 2>&1
cp "$work/b.tar" "$bundles/tar"
cp "$work/b.tar.zst" "$bundles/zst"
cp "$work/one.tar.zst" "$bundles/zst-one-table"
# Cut inside the manifest, inside a table's file, and inside the zstd stream.
head -c 700 "$work/b.tar" >"$bundles/tar-cut-manifest"
head -c "$(($(stat -c %s "$work/b.tar") / 2))" "$work/b.tar" >"$bundles/tar-cut-half"
head -c "$(($(stat -c %s "$work/b.tar.zst") * 2 / 3))" "$work/b.tar.zst" >"$bundles/zst-cut"

# Three samples, a fifth of a second apart; a writer for the first ones.
"$bin/heron-sim" write md/quotes --rate 100 --duration 1 >/dev/null &
writer=$!
mkdir "$work/rec"
"$bin/heron-stat" --record "$work/rec" -i 0.2 >/dev/null 2>&1 &
recorder=$!
for _ in $(seq 1 100); do
  file=$(ls "$work/rec"/heron-stat.*.ndjson.zst 2>/dev/null | head -1 || true)
  if [[ -n $file ]] && (($(zstd -dc "$file" 2>/dev/null | wc -l) >= 3)); then
    break
  fi
  sleep 0.05
done
kill "$recorder"
wait "$recorder" || true
wait "$writer" || true
recorder=
writer=
file=$(ls "$work/rec"/heron-stat.*.ndjson.zst | head -1)
cp "$file" "$recordings/three-samples"
head -c "$(($(stat -c %s "$file") - 5))" "$file" >"$recordings/cut-last-frame"
zstd -dc "$file" | head -1 | tr -d '\n' >"$recordings/line"
echo "seeds written to $bundles and $recordings"
