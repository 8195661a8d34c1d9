#!/usr/bin/env bash
# The installed heron-stat unit's ExecStart, run the way the unit runs it: as
# a user of its own (DynamicUser: an unused uid) holding the unit's ambient
# capabilities within its bounding set, with no new privileges. It sees the
# clients of a table whose writer and shadow run as root: the writer is
# confirmed and the shadow counted. Without the capability the same user
# sees them as unknown, so the capability is what makes the difference.
source "$(dirname "$0")/sim_lib/common.sh"
[[ $(id -u) -eq 0 ]] || { echo "SKIP: needs root to run as another user"; exit 77; }
[[ -x $BIN/heron-stat ]] || fail "$BIN/heron-stat is not built"
for tool in setpriv curl jq; do
  command -v "$tool" >/dev/null || fail "$tool is missing: install it with scripts/install-deps.sh"
done
BUILD=$(cd "$BIN/.." && pwd)
PREFIX=$WORK/prefix
cmake --install "$BUILD" --prefix "$PREFIX" >"$WORK/install.log" 2>&1 || fail "cmake --install failed: $(tail -5 "$WORK/install.log")"
UNIT=$PREFIX/lib/systemd/system/heron-stat.service

# unit_value KEY: the unit's last setting of KEY.
unit_value() { sed -n "s/^$1=//p" "$UNIT" | tail -1; }
[[ $(unit_value DynamicUser) == yes && -z $(unit_value User) ]] || fail "the unit does not run as a dynamic user"
caps=$(unit_value AmbientCapabilities)
[[ $caps == "$(unit_value CapabilityBoundingSet)" ]] || fail "ambient and bounding capabilities differ"
[[ $caps == CAP_SYS_PTRACE ]] || fail "the unit holds capabilities beyond CAP_SYS_PTRACE: $caps"
[[ $(unit_value IPAddressAllow) == localhost && $(unit_value IPAddressDeny) == any ]] || fail "the unit answers more than localhost"
read -r -a exec_start <<<"$(unit_value ExecStart)"
[[ ${exec_start[0]} == "$PREFIX/bin/heron-stat" ]] || fail "ExecStart runs ${exec_start[0]}"
[[ "${exec_start[*]:1}" == "--listen 127.0.0.1:9464" ]] || fail "ExecStart arguments: ${exec_start[*]:1}"

# A uid of systemd's dynamic range that no account uses.
uid=61184
while getent passwd "$uid" >/dev/null || getent group "$uid" >/dev/null; do
  uid=$((uid + 1))
done
# cap_sys_ptrace -> sys_ptrace, as setpriv names them.
cap_names=$(tr 'A-Z' 'a-z' <<<"$caps" | sed 's/cap_//g; s/ \+/,+/g')
as_plain_user=(setpriv --reuid "$uid" --regid "$uid" --clear-groups --no-new-privs)
as_service=("${as_plain_user[@]}" --bounding-set "-all,+$cap_names" --inh-caps "+$cap_names"
  --ambient-caps "+$cap_names")

chmod 755 "$WORK"
chmod -R a+rX "$PREFIX"
"$SIM" create watched >/dev/null
chmod -R a+rX "$HERON_ROOT"
start_writer watched --rate 100
start_shadow watched

# The ExecStart on a free port instead of 9464.
"${as_service[@]}" "${exec_start[0]}" --listen 127.0.0.1:0 >"$WORK/service.out" 2>"$WORK/service.err" &
SERVICE_PID=$!
STARTED+=("$SERVICE_PID")
wait_for_line "$WORK/service.out" '^listening on 127\.0\.0\.1:[0-9]*$' 10 ||
  fail "the service did not listen: $(cat "$WORK/service.out" "$WORK/service.err")"
port=$(sed -n 's/^listening on 127\.0\.0\.1:\([0-9]*\)$/\1/p' "$WORK/service.out")
[[ $(awk '/^Uid:/ {print $2}' "/proc/$SERVICE_PID/status") == "$uid" ]] || fail "the service does not run as $uid"
curl -fsS "http://127.0.0.1:$port/metrics" >"$WORK/metrics" || fail "GET /metrics failed"
grep -qx 'heron_stat_clients_known 1' "$WORK/metrics" || fail "clients unknown to the service: $(grep clients_known "$WORK/metrics")"
grep -qx 'heron_writer_up{table="watched"} 1' "$WORK/metrics" || fail "the writer is not confirmed: $(grep writer_up "$WORK/metrics")"
grep -qx 'heron_table_shadows{table="watched"} 1' "$WORK/metrics" ||
  fail "the service does not count the shadow: $(grep -c heron_table_shadows "$WORK/metrics") shadow lines"
stop_pid "$SERVICE_PID" || fail "the service did not stop cleanly on SIGTERM"

json=$("${as_service[@]}" "${exec_start[0]}" --json -i 0) || fail "heron-stat --json as the service's user failed"
[[ $(jq -r '.tables[0].clients.known' <<<"$json") == true ]] || fail "clients unknown as the service's user: $json"
[[ $(jq -r '.clients_known' <<<"$json") == true ]] || fail "the sample says clients unknown as the service's user: $json"
[[ $(jq -r '.tables[0].writer.maps_table' <<<"$json") == true ]] || fail "writer mapping unconfirmed: $json"

# The same user without the capability: clients unknown.
json=$("${as_plain_user[@]}" "${exec_start[0]}" --json -i 0) || fail "heron-stat --json as a plain user failed"
[[ $(jq -r '.tables[0].clients.known' <<<"$json") == false ]] || fail "clients known without CAP_SYS_PTRACE: $json"
[[ $(jq -r '.clients_known' <<<"$json") == false ]] || fail "the sample says clients known without CAP_SYS_PTRACE: $json"
echo PASS
