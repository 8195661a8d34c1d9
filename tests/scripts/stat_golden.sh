#!/usr/bin/env bash
# heron-stat's whole outputs over a fixed collection (tests/fixtures/
# make_collection.py writes the same bytes every run): text, --json,
# --prometheus and --check against the files in tests/golden/, with the
# values that change from run to run (the root's path, the sample's time and
# duration) masked. Every --json document, this one and one of a live table
# with rates, is also checked against docs/heron-stat.schema.json.
source "$(dirname "$0")/sim_lib/common.sh"
STAT=$BIN/heron-stat
SOURCE=${HERON_SOURCE:-$(cd "$(dirname "$0")/../.." && pwd)}
GOLDEN=$SOURCE/tests/golden
# Debian's python3, which has the jsonschema package (scripts/install-deps.sh).
PYTHON=/usr/bin/python3

"$PYTHON" "$SOURCE/tests/fixtures/make_collection.py" "$HERON_ROOT"
root=$(realpath "$HERON_ROOT")

mask() {
  sed -e "s|$root|ROOT|g" \
    -e 's/"time":[0-9.e+-]*/"time":0/' \
    -e 's/"sample_duration_seconds":[0-9.e+-]*/"sample_duration_seconds":0/' \
    -e 's/^heron_stat_sample_duration_seconds .*/heron_stat_sample_duration_seconds 0/' \
    -e 's/sample_duration=[0-9.]*s/sample_duration=0s/'
}

# compare NAME EXPECTED-STATUS ARGS...: one mode's output against its golden file.
compare() {
  local name=$1 expected=$2 status=0
  shift 2
  "$STAT" --no-clients "$@" >"$WORK/$name.raw" 2>"$WORK/$name.err" || status=$?
  [[ $status -eq $expected ]] || fail "heron-stat $* exited $status, not $expected: $(cat "$WORK/$name.err")"
  mask <"$WORK/$name.raw" >"$WORK/$name"
  diff -u "$GOLDEN/$name" "$WORK/$name" || fail "heron-stat $* differs from tests/golden/$name"
}
compare stat-sample.txt 0 -i 0
compare stat-sample.json 0 -i 0 --json
compare stat-sample.prom 0 -i 0 --prometheus
compare stat-sample.check 2 --check

schema_check() {
  "$PYTHON" - "$SOURCE/docs/heron-stat.schema.json" "$1" <<'PY' || fail "$1 does not follow the schema"
import json, sys
import jsonschema
schema = json.load(open(sys.argv[1]))
jsonschema.Draft202012Validator.check_schema(schema)
for line in open(sys.argv[2]):
    jsonschema.Draft202012Validator(schema).validate(json.loads(line))
PY
}
schema_check "$WORK/stat-sample.json.raw"

# A live table, with a writer, a shadow and rates, follows the schema too.
"$SIM" create live --capacity 1000 >/dev/null
"$SIM" write live --rate 500 >"$WORK/writer.log" 2>&1 &
STARTED+=($!)
wait_for_line "$WORK/writer.log" "attached" 10 || fail "the writer did not attach: $(cat "$WORK/writer.log")"
"$STAT" -i 0.3 --json live >"$WORK/live.json" || fail "heron-stat --json of a live table failed"
[[ $(jq -r '.tables[0].queues.rate_per_second != null' "$WORK/live.json") == true ]] ||
  fail "no rate in the live document: $(cat "$WORK/live.json")"
schema_check "$WORK/live.json"
echo "whole outputs as in tests/golden/, every document as in the schema"
