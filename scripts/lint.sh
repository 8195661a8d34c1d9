#!/usr/bin/env bash
# clang-tidy over the compile database, then cppcheck. Fails on findings.
set -euo pipefail
build=${1:-build}
sources=$(git ls-files 'platform/src/*.cpp' 'src/*.cpp' 'app/*.cpp' 'tools/*.cpp')
clang-tidy -p "$build" --quiet --warnings-as-errors='*' $sources
cppcheck --quiet --error-exitcode=1 --enable=warning,performance,portability --std=c++17 \
  --suppress=missingIncludeSystem --inline-suppr -I platform/include -I src $sources
