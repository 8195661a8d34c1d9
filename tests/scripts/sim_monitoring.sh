#!/usr/bin/env bash
# The monitoring files shipped in docs/: the Prometheus configuration and
# the alert and recording rules pass promtool's checks, the rules' unit tests
# (synthetic series, beside the rules) pass, and the heron-stat systemd unit
# verifies, is read-only and runs as a user of its own with CAP_SYS_PTRACE
# alone, answering the local host only.
source "$(dirname "$0")/sim_lib/common.sh"
SOURCE=${HERON_SOURCE:?HERON_SOURCE must name the source directory}
PROM=$SOURCE/docs/prometheus
UNIT=$SOURCE/docs/systemd/heron-stat.service.in

command -v promtool >/dev/null ||
  fail "promtool is not installed (Debian package prometheus; scripts/install-deps.sh installs it)"
# The example configuration names the rules where the package installs them.
sed "s|/usr/share/heron/prometheus/|$PROM/|" "$PROM/prometheus.yml" >"$WORK/prometheus.yml"
promtool check config "$WORK/prometheus.yml" >"$WORK/config.txt" 2>&1 || fail "promtool check config: $(cat "$WORK/config.txt")"
grep -q 'SUCCESS: 1 rule files found' "$WORK/config.txt" || fail "the configuration does not load the rules: $(cat "$WORK/config.txt")"
promtool check rules "$PROM/heron-alerts.yml" "$PROM/heron-alerts-idle.yml" >"$WORK/rules.txt" 2>&1 ||
  fail "promtool check rules: $(cat "$WORK/rules.txt")"
promtool test rules "$PROM/heron-alerts.test.yml" >"$WORK/test.txt" 2>&1 || fail "promtool test rules: $(cat "$WORK/test.txt")"
# Every alert has a test where it fires.
for alert in $(sed -n 's/^ *- alert: //p' "$PROM/heron-alerts.yml" "$PROM/heron-alerts-idle.yml"); do
  grep -B3 "alertname: $alert\$" "$PROM/heron-alerts.test.yml" | matches 'eval_time' || fail "no test of $alert"
  awk -v a="$alert" '$0 ~ "alertname: " a "$" {on = 1; next} on && /exp_alerts: \[\]/ {on = 0} on && /exp_labels/ {f = 1} END {exit !f}' \
    "$PROM/heron-alerts.test.yml" || fail "no test where $alert fires"
done
# The alerts every site needs, on the metric names heron-stat exports.
for rule in 'heron_writer_up == 0' 'heron_writer_heartbeat_age_seconds > 5' 'heron_allocator_occupancy_ratio > 0.9'; do
  grep -qF "expr: $rule" "$PROM/heron-alerts.yml" || fail "no alert on '$rule'"
done

# Every metric heron-stat exports is in its man page.
if [[ -x $BIN/heron-stat ]]; then
  "$SIM" create documented >/dev/null
  for family in $("$BIN/heron-stat" --prometheus --per-region | sed -n 's/^# TYPE \([a-z_]*\) .*/\1/p'); do
    grep -q "^$family\({\| \|$\)" "$SOURCE/docs/heron-stat.1" || fail "$family is not in docs/heron-stat.1"
  done
fi

# The unit: listens on 127.0.0.1:9464, read-only, nothing writable.
grep -qx 'ExecStart=@HERON_STAT_PROGRAM@ --listen 127.0.0.1:9464' "$UNIT" || fail "ExecStart of the unit"
for line in ProtectSystem=strict NoNewPrivileges=yes ProtectHome=yes PrivateTmp=yes 'ReadOnlyPaths=/dev' DynamicUser=yes \
  AmbientCapabilities=CAP_SYS_PTRACE CapabilityBoundingSet=CAP_SYS_PTRACE IPAddressDeny=any IPAddressAllow=localhost; do
  grep -qx "$line" "$UNIT" || fail "the unit lacks $line"
done
! grep -v '^#' "$UNIT" | matches '^User=\|CAP_DAC_READ_SEARCH' || fail "the unit names a user or more capabilities"
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
sed "s|@HERON_STAT_PROGRAM@|$program|g" "$UNIT" >"$WORK/unit/heron-stat.service"
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
