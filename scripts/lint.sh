#!/usr/bin/env bash
# clang-tidy over the compile database, then cppcheck. Fails on findings.
set -euo pipefail
build=${1:-build}
sources=$(git ls-files 'platform/src/*.cpp' 'src/*.cpp' 'app/*.cpp' 'tools/*.cpp')
# One clang-tidy per few files, as many at once as there are cores: each
# file is checked on its own, and a finding anywhere fails xargs (status 123).
printf '%s\n' $sources | xargs -P "$(nproc)" -n 4 clang-tidy -p "$build" --quiet --warnings-as-errors='*'
cppcheck --quiet --error-exitcode=1 --enable=warning,performance,portability --std=c++17 \
  --suppress=missingIncludeSystem --inline-suppr -I platform/include -I src $sources
