#!/usr/bin/env bash
# The runtime's units (a header and its source: platform/include/X/Y.h with
# platform/src/X/Y.cpp) must depend on one another without a cycle, so each
# can be understood, built and tested with only the units below it. Prints
# the cycle and fails when there is one.
# Usage: check-levels.sh [SOURCE_DIR]
set -euo pipefail
cd "${1:-$(dirname "$0")/..}/platform"
edges=$(
  find include src -name '*.h' -o -name '*.cpp' | sort | while read -r file; do
    unit=${file#*/}
    unit=${unit%.*}
    # Every unit is a node, also one that includes nothing of the runtime.
    echo "$unit $unit"
    sed -n 's/^#include "\([A-Za-z]*\/[A-Za-z]*\)\.h".*/\1/p' "$file" | while read -r used; do
      [ "$used" = "$unit" ] || echo "$used $unit"
    done
  done
)
if ! order=$(tsort <<<"$edges" 2>&1); then
  echo "the runtime's units include one another in a cycle:" >&2
  grep '^tsort: ' <<<"$order" >&2
  exit 1
fi
