#!/usr/bin/env bash
# cmake --install into a temporary prefix, then a tiny writer project finds
# the runtime with find_package(heron), builds and runs against it; the
# installed heron runs from there, and the man pages, the completions (each
# under its command's name), the Prometheus rules (whose unit tests pass
# where they are installed) and example and, with heron-stat, its systemd
# unit naming the installed program are in place.
source "$(dirname "$0")/sim_lib/common.sh"
BUILD=$(cd "$BIN/.." && pwd)
PREFIX=$WORK/prefix

cmake --install "$BUILD" --prefix "$PREFIX" >"$WORK/install.log" 2>&1 || fail "cmake --install failed: $(tail -5 "$WORK/install.log")"
expected=(bin/heron bin/heron-sim lib/libheronrt.a lib/cmake/heron/heronConfig.cmake
  lib/cmake/heron/heronConfigVersion.cmake include/heron/SharedMem/OwnerFile.h include/heron/Relay/RelayTable.h
  include/heron/Quarry/QuarryReader.h share/man/man1/heron.1 share/man/man1/heron-sim.1
  share/bash-completion/completions/heron share/bash-completion/completions/heron-sim
  share/doc/heron/examples/prometheus/prometheus.yml share/heron/prometheus/heron-alerts.yml
  share/heron/prometheus/heron-alerts-idle.yml share/heron/prometheus/heron-alerts.test.yml)
# heron-stat and what comes with it, when this build has it.
if [[ -x $BIN/heron-stat ]]; then
  expected+=(bin/heron-stat share/man/man1/heron-stat.1 share/bash-completion/completions/heron-stat
    lib/systemd/system/heron-stat.service)
fi
for f in "${expected[@]}"; do
  [[ -e $PREFIX/$f ]] || fail "$f was not installed"
done
ls "$PREFIX"/lib/libheron.so* >/dev/null 2>&1 || fail "libheron.so was not installed"

# The installed heron finds its library through its own run path.
"$PREFIX/bin/heron" -h | matches '^   heron \[OPTIONS\] \[EXPR\]$' || fail "installed heron -h"

# A writer project: creates a table's owner file and ember through the
# installed runtime, then reads them back.
consumer_project "$WORK/consumer" heron::heronrt
cat >"$WORK/consumer/main.cpp" <<'CPP'
#include <sys/stat.h>

#include <iostream>

#include "Beacon/Platform.h"
#include "Mem/RootPath.h"
#include "SharedMem/Ember.h"
#include "SharedMem/OwnerFile.h"

int main() {
  auto handler = Beacon::Platform::getDebugHandler("Consumer", false);
  Mem::OrbRootPath table(*handler, "consumer/table", false);
  ::mkdir(Mem::OrbRootPath::collectionRoot().c_str(), 0755);
  ::mkdir((Mem::OrbRootPath::collectionRoot() + "/consumer").c_str(), 0755);
  ::mkdir(table.path().c_str(), 0755);
  std::string error;
  SharedMem::EmberWriter ember(*handler, table);
  if (!ember.open(error) || !SharedMem::OwnerFile::create(table, SharedMem::Table, "HeronTable", ember.id(), error)) {
    std::cerr << error << '\n';
    return 1;
  }
  SharedMem::OwnerFile owner(*handler, table, false);
  std::cout << owner.typeName() << ' ' << static_cast<unsigned>(owner.sharedMemType()) << '\n';
  return 0;
}
CPP
build_consumer "$WORK/consumer" "$BUILD" "$PREFIX"
out=$("$WORK/consumer/build/consumer") || fail "consumer failed: $out"
[[ $out == "HeronTable 2" ]] || fail "consumer printed '$out'"
[[ -f $HERON_ROOT/consumer/table/owner && -f $HERON_ROOT/consumer/table/ember ]] || fail "consumer made no table"

# The installed heron sees the table the consumer wrote.
"$PREFIX/bin/heron" -w consumer/table >/dev/null 2>&1 || true
name=$("$PREFIX/bin/heron" consumer/table 2>&1 >/dev/null | head -1 || true)
[[ $name == "Table Name: consumer/table" ]] || fail "installed heron did not find the table: $name"

# Completion: table names are the directories holding an owner file.
compl=$(bash -c "source '$PREFIX/share/bash-completion/completions/heron'; _heron_tables")
[[ $compl == "consumer/table" ]] || fail "completion listed '$compl'"
# bash-completion loads completions/heron-sim alone, the first time heron-sim
# is completed: it finds the table helpers in completions/heron by itself.
# shellcheck disable=SC2016
compl=$(bash -c 'source "$1"; COMP_WORDS=(heron-sim write ""); COMP_CWORD=2; _heron_sim; echo "${COMPREPLY[*]}"' \
  _ "$PREFIX/share/bash-completion/completions/heron-sim")
[[ $compl == "consumer/table" ]] || fail "heron-sim completion of a table listed '$compl'"
# shellcheck disable=SC2016
compl=$(bash -c 'source "$1"; COMP_WORDS=(heron-sim write t --fl); COMP_CWORD=3; _heron_sim; echo "${COMPREPLY[*]}"' \
  _ "$PREFIX/share/bash-completion/completions/heron-sim")
[[ $compl == "--flat-out" ]] || fail "heron-sim completion of --fl listed '$compl'"
if [[ -x $BIN/heron-stat ]]; then
  bash -c "source '$PREFIX/share/bash-completion/completions/heron-stat'; complete -p heron-stat" >/dev/null 2>&1 ||
    fail "completions/heron-stat registers no completion for heron-stat"
  unit=$PREFIX/lib/systemd/system/heron-stat.service
  grep -qx "ExecStart=$PREFIX/bin/heron-stat --listen 127.0.0.1:9464" "$unit" ||
    fail "the installed unit does not run the installed heron-stat: $(grep '^ExecStart' "$unit")"
  if command -v systemd-analyze >/dev/null; then
    systemd-analyze verify --man=no "$unit" >"$WORK/verify.txt" 2>&1 || fail "systemd-analyze verify: $(cat "$WORK/verify.txt")"
    [[ ! -s $WORK/verify.txt ]] || fail "systemd-analyze verify warns: $(cat "$WORK/verify.txt")"
  else
    echo "systemd-analyze is not installed: the installed unit was not verified"
  fi
  MANPATH=$PREFIX/share/man man -w heron-stat >/dev/null 2>&1 || fail "man cannot find the installed heron-stat.1"
fi
MANPATH=$PREFIX/share/man man -w heron-sim >/dev/null 2>&1 || fail "man cannot find the installed heron-sim.1"

# The rules' unit tests, run where they were installed (from elsewhere).
command -v promtool >/dev/null || fail "promtool is not installed (Debian package prometheus)"
(cd / && promtool test rules "$PREFIX/share/heron/prometheus/heron-alerts.test.yml") >"$WORK/rules.txt" 2>&1 ||
  fail "promtool test rules from the installed location: $(cat "$WORK/rules.txt")"
echo PASS
