// libheron.so exports the utility's three names and nothing else of the
// project: everything else is built with hidden visibility.
#include <gtest/gtest.h>

#include <cctype>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/Run.h"

namespace HeronTest {
namespace {

// The names of the dynamic symbols the library defines, demangled or not.
std::vector<std::string> exportedNames(bool demangle) {
  std::vector<std::string> argv = {"/usr/bin/nm", "-D", "--defined-only"};
  if (demangle) {
    argv.push_back("-C");
  }
  argv.push_back(heronLib());
  RunResult result = run(argv, {"PATH=/usr/bin:/bin"});
  EXPECT_TRUE(result.exited() && result.status == 0) << result.describe() << result.err;
  std::vector<std::string> names;
  std::istringstream lines(result.out);
  std::string line;
  while (std::getline(lines, line)) {
    // "<address> <type> <name>"; a demangled name may contain blanks.
    std::size_t first = line.find(' ');
    std::size_t second = first == std::string::npos ? first : line.find(' ', first + 1);
    if (second == std::string::npos) {
      continue;
    }
    std::string name = line.substr(second + 1);
    // clang's -fsanitize=function gives the type information of every
    // function type it checks default visibility: an artefact of the
    // sanitizer build, never part of the library's interface.
    if (!demangle && (name.rfind("_ZTIF", 0) == 0 || name.rfind("_ZTSF", 0) == 0)) {
      continue;
    }
    names.push_back(name);
  }
  return names;
}

// Where a mangled name lives: its outermost scope and the name inside it
// ("Heron" and "main" for Heron::main). Virtual tables, type information and
// guard variables are classified by the entity they belong to.
struct Scope {
  bool cxx = false;
  bool standard = false;  // std:: (or one of its abbreviations)
  std::string outer;
  std::string inner;
};

bool readIdentifier(const std::string& name, std::size_t& at, std::string& out) {
  std::size_t length = 0;
  std::size_t digits = at;
  while (digits < name.size() && std::isdigit(static_cast<unsigned char>(name[digits])) != 0) {
    length = length * 10 + static_cast<std::size_t>(name[digits] - '0');
    ++digits;
  }
  if (digits == at || digits + length > name.size()) {
    return false;
  }
  out = name.substr(digits, length);
  at = digits + length;
  return true;
}

Scope scopeOf(const std::string& name) {
  Scope scope;
  if (name.compare(0, 2, "_Z") != 0) {
    return scope;
  }
  scope.cxx = true;
  std::size_t at = 2;
  if (name.compare(at, 2, "GV") == 0 || (name.compare(at, 1, "T") == 0 && name.size() > at + 1 &&
                                         std::string("VISTC").find(name[at + 1]) != std::string::npos)) {
    at += 2;
  }
  // A local entity (a function's static) lives where its function does.
  if (name.compare(at, 1, "Z") == 0) {
    ++at;
  }
  bool nested = at < name.size() && name[at] == 'N';
  if (nested) {
    ++at;
    while (at < name.size() && std::string("KVrRO").find(name[at]) != std::string::npos) {
      ++at;
    }
  }
  if (at < name.size() && name[at] == 'S') {
    scope.standard = true;
    return scope;
  }
  if (readIdentifier(name, at, scope.outer) && nested) {
    readIdentifier(name, at, scope.inner);
  }
  return scope;
}

TEST(LibraryExports, ClassifierKnowsWhereNamesLive) {
  Scope main = scopeOf("_ZN5Heron4mainEiPPc");
  EXPECT_EQ(main.outer, "Heron");
  EXPECT_EQ(main.inner, "main");
  Scope member = scopeOf("_ZNK5Heron18HeronClientScanner14doGetTableInfoEi");
  EXPECT_EQ(member.inner, "HeronClientScanner");
  Scope vtable = scopeOf("_ZTVN5Heron18HeronClientScannerE");
  EXPECT_EQ(vtable.outer, "Heron");
  EXPECT_EQ(vtable.inner, "HeronClientScanner");
  Scope global = scopeOf("_Z10printTablev");
  EXPECT_TRUE(global.cxx);
  EXPECT_EQ(global.outer, "printTable");
  EXPECT_EQ(global.inner, "");
  EXPECT_TRUE(scopeOf("_ZNSt6vectorIiSaIiEE9push_backEv").standard);
  // A static inside a standard function (std::to_string's digit table in an
  // unoptimised build) belongs to the library.
  EXPECT_TRUE(scopeOf("_ZZNSt8__detail18__to_chars_10_implIjEEvPcjT_E8__digits").standard);
  EXPECT_EQ(scopeOf("_ZZN5Heron4mainEiPPcE5count").outer, "Heron");
  EXPECT_EQ(scopeOf("_ZN3Mem8RootPathC1Ev").outer, "Mem");
  EXPECT_FALSE(scopeOf("_init").cxx);
}

TEST(LibraryExports, OnlyTheThreeNamesOfTheProjectAreExported) {
  std::vector<std::string> names = exportedNames(false);
  ASSERT_FALSE(names.empty());
  const std::set<std::string> project = {"Heron", "Beacon", "Mem", "SharedMem", "Quarry", "Relay", "Tock", "Sim"};
  const std::set<std::string> exported = {"main", "printHeron", "HeronClientScanner"};
  for (const std::string& name : names) {
    Scope scope = scopeOf(name);
    if (!scope.cxx) {
      // C names: only runtime and sanitizer symbols, which begin with '_'.
      EXPECT_EQ(name.compare(0, 1, "_"), 0) << "exported: " << name;
    } else if (scope.standard || scope.outer == "__gnu_cxx" || scope.outer == "fmt") {
      // Instantiations of library templates may appear.
    } else if (project.count(scope.outer) != 0) {
      EXPECT_TRUE(scope.outer == "Heron" && exported.count(scope.inner) != 0) << "exported: " << name;
    } else {
      // Anything else is a name of ours outside every namespace.
      ADD_FAILURE() << "exported: " << name;
    }
  }
}

TEST(LibraryExports, TheThreeNamesArePresent) {
  std::set<std::string> found;
  for (const std::string& name : exportedNames(true)) {
    found.insert(name);
  }
  EXPECT_EQ(found.count("Heron::main(int, char**)"), 1U);
  bool printHeron = false;
  bool scannerMember = false;
  for (const std::string& name : found) {
    printHeron = printHeron || name.rfind("Heron::printHeron(", 0) == 0;
    scannerMember = scannerMember || name.rfind("Heron::HeronClientScanner::doGetAllClientInfo(", 0) == 0;
  }
  EXPECT_TRUE(printHeron);
  EXPECT_TRUE(scannerMember);
  EXPECT_EQ(found.count("Heron::HeronClientScanner::HeronClientScanner(std::ostream*, Mem::OrbRootPath const&, char "
                        "const*)"),
            1U);
  EXPECT_EQ(found.count("Heron::HeronClientScanner::heronFileTypes"), 1U);
  EXPECT_EQ(found.count("typeinfo for Heron::HeronClientScanner"), 1U);
  EXPECT_EQ(found.count("vtable for Heron::HeronClientScanner"), 1U);
}

// The documented interface, name by name: the entry point, the styled
// printer, and the client scanner class with every member its documentation
// names (the number is how many overloads). A new export, or a documented one
// that went missing, fails here.
const std::map<std::string, int>& documentedExports() {
  static const std::map<std::string, int> names = {
      {"Heron::main", 1},
      {"Heron::printHeron", 1},
      {"Heron::HeronClientScanner::HeronClientScanner", 1},
      {"Heron::HeronClientScanner::~HeronClientScanner", 1},
      {"Heron::HeronClientScanner::heronFileTypes", 1},
      {"Heron::HeronClientScanner::getFileType", 1},
      {"Heron::HeronClientScanner::getToken", 1},
      {"Heron::HeronClientScanner::readNextMmap", 1},
      {"Heron::HeronClientScanner::extractMmapInfo", 2},
      {"Heron::HeronClientScanner::extractMmapInfoByTable", 2},
      {"Heron::HeronClientScanner::categorizeClient", 1},
      {"Heron::HeronClientScanner::doPopulateCommandNames", 1},
      {"Heron::HeronClientScanner::getHeaderInfo", 1},
      {"Heron::HeronClientScanner::populateHeronTableHeaderInfo", 1},
      {"Heron::HeronClientScanner::addClientlessHerons", 1},
      {"Heron::HeronClientScanner::getAllClients", 1},
      {"Heron::HeronClientScanner::getClients", 1},
      {"Heron::HeronClientScanner::doGetAllClientInfo", 1},
      {"Heron::HeronClientScanner::doGetTableInfo", 1},
      {"Heron::HeronClientScanner::doGetClientInfo", 1},
      {"Heron::HeronClientScanner::printClientTables", 1},
      {"Heron::HeronClientScanner::warnRunAsRoot", 1},
      {"Heron::HeronClientScanner::getProcNameForPid", 1},
      {"typeinfo for Heron::HeronClientScanner", 1},
      {"typeinfo name for Heron::HeronClientScanner", 1},
      {"vtable for Heron::HeronClientScanner", 1},
  };
  return names;
}

// A demangled name without its parameters and ABI tags:
// "Heron::X::f[abi:cxx11]() const" is "Heron::X::f".
std::string bareName(const std::string& name) {
  std::string bare = name.substr(0, name.find('('));
  const std::size_t tag = bare.find("[abi:");
  return tag == std::string::npos ? bare : bare.substr(0, tag);
}

TEST(LibraryExports, TheExportedNamesOfTheProjectAreExactlyTheDocumentedOnes) {
  std::set<std::string> signatures;  // constructor and destructor variants demangle alike
  for (const std::string& name : exportedNames(true)) {
    const std::string bare = bareName(name);
    if (bare.find("Heron::") != std::string::npos) {
      signatures.insert(name);
    }
  }
  std::map<std::string, int> found;
  for (const std::string& name : signatures) {
    ++found[bareName(name)];
  }
  for (const auto& entry : documentedExports()) {
    EXPECT_EQ(found.count(entry.first) != 0 ? found.at(entry.first) : 0, entry.second) << entry.first;
  }
  for (const auto& entry : found) {
    EXPECT_EQ(documentedExports().count(entry.first), 1U) << "exported: " << entry.first;
  }
}

}  // namespace
}  // namespace HeronTest
