#!/usr/bin/env bash
# Checks the generated code of a 32-bit build of the runtime: no call into
# the atomic library and no cmpxchg8b anywhere. A shared 64-bit word must be
# loaded with one plain instruction: the library's fallback and a
# compare-and-swap both write, and fault on a read-only mapping.
# Usage: check-shared-loads.sh LIBRARY_OR_OBJECT...
set -euo pipefail
[ $# -gt 0 ] || { echo "usage: $0 LIBRARY_OR_OBJECT..." >&2; exit 2; }
status=0
for file in "$@"; do
  dump=$(objdump -dr --no-show-raw-insn "$file")
  if ! grep -q 'file format elf32-i386' <<<"$dump"; then
    echo "$file: not a 32-bit x86 object" >&2
    status=1
    continue
  fi
  # Each finding with the function it is in.
  findings=$(awk '
    /^[0-9a-f]+ <.*>:$/ { function_name = $2 }
    /__atomic_[a-z_]*[0-9]|cmpxchg8b/ { print function_name ": " $0 }
  ' <<<"$dump")
  if [ -n "$findings" ]; then
    echo "$file: shared words not accessed with single instructions:" >&2
    echo "$findings" >&2
    status=1
  fi
done
exit $status
