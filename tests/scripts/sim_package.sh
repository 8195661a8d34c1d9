#!/usr/bin/env bash
# CPack makes a Debian package holding the tools, the libraries, the
# headers, the CMake package, the man pages, the completions, the Prometheus
# rules and example and, with heron-stat, its systemd unit, under /usr (the
# unit naming /usr/bin/heron-stat).
source "$(dirname "$0")/sim_lib/common.sh"
BUILD=$(cd "$BIN/.." && pwd)
command -v dpkg-deb >/dev/null || fail "dpkg-deb is not installed"
(cd "$WORK" && cpack -G DEB --config "$BUILD/CPackConfig.cmake" -B "$WORK/pkg" >"$WORK/cpack.log" 2>&1) ||
  fail "cpack failed: $(tail -5 "$WORK/cpack.log")"
deb=$(ls "$WORK"/pkg/heron_*.deb 2>/dev/null | head -1)
[[ -n $deb ]] || fail "no .deb was made"
dpkg-deb -f "$deb" Package | matches -x heron || fail "package name"
dpkg-deb -c "$deb" >"$WORK/contents.txt"
expected=(./usr/bin/heron ./usr/bin/heron-sim ./usr/lib/libheronrt.a ./usr/lib/libheron.so
  ./usr/lib/cmake/heron/heronConfig.cmake ./usr/include/heron/SharedMem/OwnerFile.h ./usr/share/man/man1/heron.1
  ./usr/share/man/man1/heron-sim.1 ./usr/share/bash-completion/completions/heron
  ./usr/share/bash-completion/completions/heron-sim ./usr/share/doc/heron/examples/prometheus/prometheus.yml
  ./usr/share/heron/prometheus/heron-alerts.yml ./usr/share/heron/prometheus/heron-alerts-idle.yml
  ./usr/share/heron/prometheus/heron-alerts.test.yml)
if [[ -x $BIN/heron-stat ]]; then
  expected+=(./usr/bin/heron-stat ./usr/share/man/man1/heron-stat.1 ./usr/share/bash-completion/completions/heron-stat
    ./usr/lib/systemd/system/heron-stat.service)
fi
for f in "${expected[@]}"; do
  grep -q " $f\( \|$\)" "$WORK/contents.txt" || fail "$f is not in the package"
done
if [[ -x $BIN/heron-stat ]]; then
  dpkg-deb -x "$deb" "$WORK/unpacked"
  grep -qx 'ExecStart=/usr/bin/heron-stat --listen 127.0.0.1:9464' "$WORK/unpacked/usr/lib/systemd/system/heron-stat.service" ||
    fail "the packaged unit: $(grep '^ExecStart' "$WORK/unpacked/usr/lib/systemd/system/heron-stat.service")"
fi
echo PASS
