#!/usr/bin/env bash
# clang-tidy over the compile database, then cppcheck. Fails on findings.
# The static analyser (clang-analyzer-*, more than half of clang-tidy's time)
# runs over the runtime, the utility and its launcher, the code that reads
# bytes other processes write; the tools get every other check.
set -euo pipefail
build=${1:-build}
# A compile database of single files, configured like the build but without
# batches (a batched build lists only its batches); nothing is compiled.
db=${build%/}-lint
cmake -S . -B "$db" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DHERON_BENCH=OFF -DHERON_UNITY=OFF \
  -DCMAKE_EXPORT_COMPILE_COMMANDS=ON >/dev/null
# A source that two targets compile (the HTTP server's, in its test too) is
# checked once, with the first target's flags: clang-tidy checks every entry.
jq 'unique_by(.file)' "$db/compile_commands.json" >"$db/compile_commands.json.new"
mv "$db/compile_commands.json.new" "$db/compile_commands.json"
analysed=$(git ls-files 'platform/src/*.cpp' 'src/*.cpp' 'app/*.cpp')
tools=$(git ls-files 'tools/*.cpp')
# One clang-tidy per few files, as many at once as there are cores: each
# file is checked on its own, and a finding anywhere fails xargs (status 123).
tidy() {
  xargs -P "$(nproc)" -n 4 clang-tidy -p "$db" --quiet --warnings-as-errors='*' "$@"
}
printf '%s\n' $analysed | tidy
printf '%s\n' $tools | tidy --checks='-clang-analyzer-*'
cppcheck --quiet --error-exitcode=1 --enable=warning,performance,portability --std=c++17 \
  --suppress=missingIncludeSystem --inline-suppr -I platform/include -I src $analysed $tools
