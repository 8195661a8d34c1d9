#!/usr/bin/env bash
# cmake --install into a temporary prefix, then a tiny program finds the
# utility's shared library with find_package(heron) as heron::heron, links it
# and nothing else of the project, and runs Heron::main: its help text is the
# documented one. The program also names every member that the installed
# Heron/Heron.h declares; the names it takes from the library must be exactly
# the names the library exports.
source "$(dirname "$0")/sim_lib/common.sh"
BUILD=$(cd "$BIN/.." && pwd)
SOURCE=${HERON_SOURCE:-$(cd "$(dirname "$0")/../.." && pwd)}
PREFIX=$WORK/prefix

cmake --install "$BUILD" --prefix "$PREFIX" >"$WORK/install.log" 2>&1 ||
  fail "cmake --install failed: $(tail -5 "$WORK/install.log")"
[[ -f $PREFIX/include/heron/Heron/Heron.h ]] || fail "Heron/Heron.h was not installed"

consumer_project "$WORK/consumer" heron::heron
cat >"$WORK/consumer/main.cpp" <<'CPP'
#include <cstring>
#include <iostream>
#include <string>
#include <tuple>
#include <typeinfo>

#include "Heron/Heron.h"

using Scanner = Heron::HeronClientScanner;

// Every member the header declares as exported, by address: the link proves
// each one is in the library (the test-only constructor is hidden). Never
// called.
void constructAndDestroy(std::ostream* out, const Mem::OrbRootPath& root) { Scanner first(out, root, ""); }
auto everyMember = std::make_tuple(
    &Heron::main, &Heron::printHeron, &constructAndDestroy, &typeid(Scanner), &Scanner::heronFileTypes,
    &Scanner::doGetClientInfo, &Scanner::doGetAllClientInfo, &Scanner::doGetTableInfo, &Scanner::getClients,
    &Scanner::getAllClients, &Scanner::addClientlessHerons, &Scanner::printClientTables, &Scanner::categorizeClient,
    &Scanner::doPopulateCommandNames, &Scanner::getHeaderInfo, &Scanner::populateHeronTableHeaderInfo,
    static_cast<void (Scanner::*)(const std::string&, std::vector<Heron::MmapInfo>&) const>(&Scanner::extractMmapInfo),
    static_cast<void (Scanner::*)(std::vector<Heron::MmapInfo>&) const>(&Scanner::extractMmapInfo),
    static_cast<void (Scanner::*)(const std::string&, Scanner::TableToInfoMap&) const>(
        &Scanner::extractMmapInfoByTable),
    static_cast<Scanner::TableToInfoMap (Scanner::*)() const>(&Scanner::extractMmapInfoByTable),
    &Scanner::getFileType, &Scanner::getToken, &Scanner::readNextMmap, &Scanner::warnRunAsRoot,
    &Scanner::getProcNameForPid);

int main(int argc, char** argv) {
  if (argc == 2 && std::strcmp(argv[1], "--file-types") == 0) {
    std::cout << Scanner::heronFileTypes[0] << ' ' << Scanner::heronFileTypes[1] << '\n';
    return 0;
  }
  if (argc == 2 && std::strcmp(argv[1], "--print-heron") == 0) {
    return Heron::printHeron("Orders", Mem::RootPath("/nonexistent"), &std::cout, Heron::Text);
  }
  return Heron::main(argc, argv);
}
CPP
build_consumer "$WORK/consumer" "$BUILD" "$PREFIX"
consumer=$WORK/consumer/build/consumer

# Linked against the installed shared library, and against nothing else of
# the project.
grep -q 'libheronrt' "$WORK/consumer/build/build.ninja" && fail "the consumer links the runtime library"
readelf -d "$consumer" | matches 'NEEDED.*\[libheron\.so\.0\]' || fail "the consumer does not need libheron.so.0"
ldd "$consumer" | matches "libheron\.so\.0 => $PREFIX/lib/libheron\.so\.0" ||
  fail "the consumer does not load the installed library: $(ldd "$consumer" | grep heron)"

# Heron::main, run in the consumer's process, prints the documented help.
status=0
"$consumer" --help >"$WORK/help.txt" 2>"$WORK/help.err" || status=$?
[[ $status -eq 0 ]] || fail "Heron::main --help: status $status, $(cat "$WORK/help.err")"
cmp -s "$WORK/help.txt" "$SOURCE/tests/golden/help.txt" ||
  fail "Heron::main --help: $(diff "$WORK/help.txt" "$SOURCE/tests/golden/help.txt" | head -5)"
[[ ! -s $WORK/help.err ]] || fail "Heron::main --help wrote to standard error: $(cat "$WORK/help.err")"

[[ $("$consumer" --file-types) == "relay.1 ember" ]] || fail "heronFileTypes: $("$consumer" --file-types)"
status=0
"$consumer" --print-heron >"$WORK/print.out" 2>"$WORK/print.err" || status=$?
[[ $status -eq 1 && ! -s $WORK/print.out && $(cat "$WORK/print.err") == "No knowledge of root type:Orders" ]] ||
  fail "printHeron: status $status, out '$(cat "$WORK/print.out")', err '$(cat "$WORK/print.err")'"

# Exactly: every name of the project that the library exports is one the
# header declares (the consumer names it), and the link above proved the
# converse. Constructor and destructor variants share one demangled name;
# the vtable and the type name come with the class and cannot be named.
exported=$(nm -DC --defined-only "$(readlink -f "$PREFIX/lib/libheron.so.0")" | sed -n 's/^[0-9a-f]* [A-Za-z] //p' |
  grep -E '^(typeinfo for |vtable for |typeinfo name for )?Heron::' |
  grep -v -E '^(vtable for|typeinfo name for) ' | LC_ALL=C sort -u)
# Data the program names (heronFileTypes) is copied into it by the linker and
# shows there as defined, functions as undefined.
named=$(nm -DC "$consumer" | sed -n 's/^[0-9a-f ]* [A-Za-z] //p' |
  grep -E '^(typeinfo for )?Heron::' | LC_ALL=C sort -u)
[[ -n $exported ]] || fail "the library exports no name of the project"
extra=$(LC_ALL=C comm -23 <(echo "$exported") <(echo "$named"))
[[ -z $extra ]] || fail "libheron.so exports names that Heron/Heron.h does not declare: $extra"
echo PASS
