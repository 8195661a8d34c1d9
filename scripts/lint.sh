#!/usr/bin/env bash
# clang-tidy over the compile database, then cppcheck. Fails on findings.
# The static analyser (clang-analyzer-*, more than half of clang-tidy's time)
# runs over the runtime, the utility and its launcher, the code that reads
# bytes other processes write; the tools get every other check.
#
# clang-tidy checks each source on its own, so its verdict on a source is a
# function of what it reads for it: the tool, its configuration, the checks
# asked for, the compile flags and the translation unit. scripts/lint-record.txt
# keeps the sources found clean, each under a hash of exactly those inputs
# (the unit preprocessed with its comments and macro definitions, so a
# NOLINT or an unused macro counts too; the checkout's path taken out). A
# source whose hash is in the record is not checked again; every other one
# is, and a clean one enters the record. Commit the record with the sources:
# CI then checks only what changed since the last `make lint`.
# HERON_LINT_FRESH=1 ignores the record and checks everything.
set -euo pipefail
build=${1:-build}
record=scripts/lint-record.txt
# A compile database of single files, configured like the build but without
# batches (a batched build lists only its batches); nothing is compiled.
db=${build%/}-lint
cmake -S . -B "$db" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DHERON_BENCH=OFF -DHERON_UNITY=OFF \
  -DHERON_LINE_TABLES=OFF -DCMAKE_EXPORT_COMPILE_COMMANDS=ON >/dev/null
# A source that two targets compile (the HTTP server's, in its test too) is
# checked once, with the first target's flags: clang-tidy checks every entry.
jq 'unique_by(.file)' "$db/compile_commands.json" >"$db/compile_commands.json.new"
mv "$db/compile_commands.json.new" "$db/compile_commands.json"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export LINT_ROOT LINT_DB LINT_WORK=$work LINT_TOOL
LINT_ROOT=$(pwd -P)
LINT_DB=$(cd "$db" && pwd -P)
jq -r '.[] | [.file, .directory, .command] | @tsv' "$LINT_DB/compile_commands.json" >"$work/commands"

# The checker itself: clang-tidy with the libraries that hold its checks (the
# same package gives the same bytes on every machine), the preprocessor that
# makes the units hashed below, and the configuration.
tidy_bin=$(readlink -f "$(command -v clang-tidy)")
LINT_TOOL=$({
  sha256sum "$tidy_bin" $(ldd "$tidy_bin" | awk '/libclang|libLLVM/ { print $3 }' | xargs -r readlink -f) |
    sed 's|^\([0-9a-f]*\)  .*/|\1  |'
  clang++ --version | head -n 1
  # Every configuration file clang-tidy could meet in the tree, by path.
  git ls-files -z '.clang-tidy' '*/.clang-tidy' | xargs -0 -r sha256sum
} | sha256sum | cut -d' ' -f1)

# Prints "hash  source" for one source checked with the given extra arguments.
unit_hash() {
  set -o pipefail
  local source=$1 checks=$2 dir command
  IFS=$'\t' read -r _ dir command < <(awk -F'\t' -v f="$LINT_ROOT/$source" '$1 == f' "$LINT_WORK/commands")
  [ -n "$command" ] || { echo "lint: $source is not in the compile database" >&2; return 1; }
  local -a words args=()
  read -ra words <<<"$command"
  local i=1
  while [ $i -lt ${#words[@]} ]; do
    case ${words[$i]} in
      -o) i=$((i + 2)); continue ;;
      -c) ;;
      *) args+=("${words[$i]}") ;;
    esac
    i=$((i + 1))
  done
  # A unit that does not preprocess gets no hash: the lint stops on the
  # preprocessor's message.
  local unit
  unit=$(mktemp -p "$LINT_WORK")
  (cd "$dir" && clang++ "${args[@]}" -E -C -dD -o "$unit") || { rm -f "$unit"; return 1; }
  {
    printf '%s\n%s\n' "$LINT_TOOL" "$checks"
    printf '%s\n' "${args[@]}"
    cat "$unit"
    rm -f "$unit"
  } | perl -pe 'BEGIN { ($db, $root) = splice @ARGV, 0, 2 } s/\Q$db\E/\@DB/g; s/\Q$root\E/\@ROOT/g' \
    "$LINT_DB" "$LINT_ROOT" | sha256sum | sed "s|-\$|$source|"
}
# Checks the source of one "hash  source" line; a clean one's line is
# appended to the new verdicts.
check_unit() {
  local line=$1 checks=$2
  clang-tidy -p "$LINT_DB" --quiet --warnings-as-errors='*' ${checks:+"$checks"} "${line##* }" || return 1
  printf '%s\n' "$line" >>"$LINT_WORK/clean"
}
export -f unit_hash check_unit

analysed=$(git ls-files 'platform/src/*.cpp' 'src/*.cpp' 'app/*.cpp')
tools=$(git ls-files 'tools/*.cpp')
tools_checks=--checks=-clang-analyzer-*
# Hashes of every source, as many preprocessors at once as there are cores.
{
  printf '%s\n' $analysed | xargs -P "$(nproc)" -I{} bash -c 'unit_hash "$1" ""' _ {}
  printf '%s\n' $tools | xargs -P "$(nproc)" -I{} bash -c 'unit_hash "$1" "$2"' _ {} "$tools_checks"
} >"$work/current"
known=$work/known
if [ "${HERON_LINT_FRESH:-0}" = 1 ] || [ ! -f "$record" ]; then : >"$known"; else cp "$record" "$known"; fi
grep -xF -f "$known" "$work/current" >"$work/clean" || true
echo "lint: $(wc -l <"$work/clean") of $(wc -l <"$work/current") sources unchanged since found clean"

# The rest, one clang-tidy per source, as many at once as there are cores.
status=0
# The lines of the sources named in $1 that are not known clean.
pending() { { grep -vxF -f "$work/clean" "$work/current" || true; } | awk 'NR == FNR { want[$1]; next } $2 in want' <(printf '%s\n' $1) -; }
pending "$analysed" >"$work/analysed"
pending "$tools" >"$work/tools"
xargs -r -P "$(nproc)" -I{} bash -c 'check_unit "$1" ""' _ {} <"$work/analysed" || status=1
xargs -r -P "$(nproc)" -I{} bash -c 'check_unit "$1" "$2"' _ {} "$tools_checks" <"$work/tools" || status=1
sort -k2 -u "$work/clean" >"$work/record"
cmp -s "$work/record" "$record" 2>/dev/null || cp "$work/record" "$record"

cppcheck --quiet --error-exitcode=1 --enable=warning,performance,portability --std=c++17 \
  --suppress=missingIncludeSystem --inline-suppr -I platform/include -I src $analysed $tools || status=1
exit $status
