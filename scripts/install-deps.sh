#!/usr/bin/env bash
# Installs the Debian packages a fresh machine lacks. Idempotent: does
# nothing (not even apt-get update) when everything is present.
set -euo pipefail

packages=(
  cmake ninja-build g++ g++-multilib make
  libfmt-dev googletest libgtest-dev libbenchmark-dev
  libcli11-dev libmicrohttpd-dev nlohmann-json3-dev pkg-config
  clang clang-tidy cppcheck clang-format binutils
  libclang-rt-dev  # libFuzzer and the sanitizer runtimes for make fuzz
  psmisc lsof strace util-linux procps man-db
  prometheus tmux curl jq python3-jsonschema systemd
  gnuplot-nox
  chromium  # the live page of heron-stat --listen, tested in a real browser
  libncurses-dev
  libarchive-dev libssl-dev
  qemu-user
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "installing: ${missing[*]}"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then
  SUDO=sudo
fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
