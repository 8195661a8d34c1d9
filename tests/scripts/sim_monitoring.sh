#!/usr/bin/env bash
# The monitoring examples shipped in docs/: the Prometheus configuration and
# alert rules pass promtool's checks, the rules' unit tests (synthetic series
# in tests/prometheus/) pass, and the heron-stat systemd unit verifies and is
# read-only.
source "$(dirname "$0")/sim_lib/common.sh"
SOURCE=${HERON_SOURCE:?HERON_SOURCE must name the source directory}
PROM=$SOURCE/docs/prometheus
UNIT=$SOURCE/docs/systemd/heron-stat.service

command -v promtool >/dev/null ||
  fail "promtool is not installed (Debian package prometheus; scripts/install-deps.sh installs it)"
promtool check config "$PROM/prometheus.yml" >"$WORK/config.txt" 2>&1 || fail "promtool check config: $(cat "$WORK/config.txt")"
grep -q 'SUCCESS: 1 rule files found' "$WORK/config.txt" || fail "the configuration does not load the rules: $(cat "$WORK/config.txt")"
promtool check rules "$PROM/heron-alerts.yml" >"$WORK/rules.txt" 2>&1 || fail "promtool check rules: $(cat "$WORK/rules.txt")"
promtool test rules "$SOURCE/tests/prometheus/heron-alerts.test.yml" >"$WORK/test.txt" 2>&1 ||
  fail "promtool test rules: $(cat "$WORK/test.txt")"
# The alerts every site needs, on the metric names heron-stat exports.
for rule in 'heron_writer_up == 0' 'heron_writer_heartbeat_age_seconds > 5' 'heron_allocator_occupancy_ratio > 0.9'; do
  grep -qF "expr: $rule" "$PROM/heron-alerts.yml" || fail "no alert on '$rule'"
done

# The unit: listens on 127.0.0.1:9464, read-only, nothing writable.
grep -qx 'ExecStart=/usr/bin/heron-stat --listen 127.0.0.1:9464' "$UNIT" || fail "ExecStart of the unit"
for line in ProtectSystem=strict NoNewPrivileges=yes ProtectHome=yes PrivateTmp=yes 'ReadOnlyPaths=/dev'; do
  grep -qx "$line" "$UNIT" || fail "the unit lacks $line"
done
! grep -q '^ReadWritePaths\|^StateDirectory\|^RuntimeDirectory\|^LogsDirectory\|^CacheDirectory' "$UNIT" ||
  fail "the unit makes a path writable"
if ! command -v systemd-analyze >/dev/null; then
  echo "systemd-analyze is not installed: the unit's syntax was not verified"
  echo PASS
  exit 0
fi
# systemd-analyze verify wants the program to exist: the built heron-stat,
# else a stand-in (heron-stat comes with its own branch of the build).
mkdir -p "$WORK/unit"
program=$BIN/heron-stat
if [[ ! -x $program ]]; then
  echo "no $program in this build: the unit is verified with /bin/true in its place"
  program=/bin/true
fi
sed "s|^ExecStart=/usr/bin/heron-stat|ExecStart=$program|" "$UNIT" >"$WORK/unit/heron-stat.service"
man_check=--man=no
if [[ -f $SOURCE/docs/heron-stat.1 ]]; then
  mkdir -p "$WORK/man/man1"
  cp "$SOURCE/docs/heron-stat.1" "$WORK/man/man1/"
  export MANPATH=$WORK/man
  man_check=--man=yes
fi
systemd-analyze verify "$man_check" "$WORK/unit/heron-stat.service" >"$WORK/verify.txt" 2>&1 ||
  fail "systemd-analyze verify: $(cat "$WORK/verify.txt")"
[[ ! -s $WORK/verify.txt ]] || fail "systemd-analyze verify warns: $(cat "$WORK/verify.txt")"
# Its own measure of exposure, where this systemd can judge a unit file
# offline: at most "OK" (below 4.0 of 10).
if systemd-analyze security --offline=yes "$WORK/unit/heron-stat.service" >"$WORK/security.txt" 2>&1; then
  level=$(sed -n 's/.*Overall exposure level for heron-stat.service: \([0-9.]*\).*/\1/p' "$WORK/security.txt")
  [[ -n $level ]] || fail "no exposure level: $(tail -3 "$WORK/security.txt")"
  awk -v l="$level" 'BEGIN { exit !(l < 4.0) }' || fail "exposure level $level is 4.0 or more"
fi
echo PASS
