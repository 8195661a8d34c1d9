// Heron::main, printTable and Heron::printHeron.
#include "HeronScanner.h"

#include <getopt.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <iomanip>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>

#include "Beacon/MappingGuard.h"
#include "Beacon/Trace.h"
#include "Beacon/Util.h"
#include "HeronClientScanner.h"
#include "Mem/TableFinder.h"
#include "ReportOutput.h"
#include "SharedMem/OwnerFile.h"
#include "readers/QuarryHelperScanner.h"
#include "readers/RelayHelperScanner.h"

namespace {

// The one process-wide handler. It must exist before any ordinary static
// object of the program is built, hence the explicit priority.
__attribute__((init_priority(60000))) std::shared_ptr<Beacon::Platform::DebugHandler> heronHandler =
    Beacon::Platform::getDebugHandler("HeronScanner", false);

constexpr const char* kDescription =
    "Description:\n"
    "   heron is a simple utility that passively walks a Heron collection,\n"
    "   printing the elements in a nice and orderly fashion.\n"
    "\n";

constexpr const char* kUsage =
    "Usage:\n"
    "   heron [OPTIONS] [EXPR]\n"
    "\n"
    "   where OPTIONS are optional flags described below, and EXPR is a\n"
    "   heron collection name, or the full path to a specific collection.\n"
    "\n"
    "   -a                  Dump the contents of regions and relay queues\n"
    "   -d                  Like -s, but with per-region detail sorted by entry\n"
    "                          size and then by regionId\n"
    "   -e                  Enable printing of empty entries\n"
    "   -f <FILE>           Direct output towards a file\n"
    "   -q                  Dump the contents of the relay queues\n"
    "   -R                  Dump the contents of the Regions\n"
    "   -r <REGION_ID>      Dump the contents of the Region with id REGION_ID\n"
    "   -s                  Print various interesting stats about the collection\n"
    "                          as well as headers of important files\n"
    "   -p                  Pretty-print the hierarchy\n"
    "   -j                  Print the hierarchy as JSON\n"
    "   -O                  Sort region output by entrySize then by occupancy\n"
    "   --who, -w           Prints info about processes that are attached to the\n"
    "                       given collection\n"
    "   --what, -c <PID>    Prints tables that have a client with the given PID\n"
    "   --who-all, -A       Prints per-collection info about processes that are\n"
    "                       attached to every heron collection\n"
    "\n"
    "Help:\n"
    "   --help, -h          Display this helper and exit\n"
    "\n";

void printHelp(std::ostream& out) {
  out << kDescription;
  out << kUsage;
  out.flush();
}

// -r's number: base 10, text that is not a number is 0, trailing text is
// ignored and a negative number wraps to a large id. A value that does not
// fit in 32 bits is refused: truncated, it would name another region (and
// differently in a 32- and a 64-bit build).
bool parseRegionId(const char* text, unsigned& id) {
  errno = 0;
  const long long value = std::strtoll(text, nullptr, 10);
  if (errno == ERANGE || value > static_cast<long long>(UINT32_MAX) || value < static_cast<long long>(INT32_MIN)) {
    return false;
  }
  id = static_cast<unsigned>(value);
  return true;
}

using RelayHeader = Heron::RelayHelperScanner::Header;

// The statistics section: owner header, relay headers, allocator statistics.
void printStatistics(std::ostream& out, const SharedMem::OwnerFile& owner, Heron::RelayHelperScanner& relay,
                     Heron::QuarryHelperScanner& quarry, bool detail, bool sortByOccupancy) {
  SharedMem::OwnerFile::Header ownerHeader{};
  if (owner.header(ownerHeader)) {
    out << ownerHeader.toPrettyString() << '\n';
  } else {
    out << "OwnerFile information unavailable" << '\n';
  }

  std::ostringstream saved;
  saved.copyfmt(out);
  const RelayHeader primary = relay.header(Heron::RelayHelperScanner::PRIMARY);
  const RelayHeader secondary = relay.header(Heron::RelayHelperScanner::SECONDARY);
  out << "Relay headers:"
      << " (" << 88 << " bytes in primary, " << 88 << " bytes in secondary)\n";
  out << "\tepoch[ PRIMARY ]: " << primary.epoch[Heron::RelayHelperScanner::PRIMARY] << "\n";
  out << "\tepoch[ SECONDARY ]: " << primary.epoch[Heron::RelayHelperScanner::SECONDARY] << "\n";
  out << "\tLatest writer sequence:" << primary.latestWriterSequence << "\n";
  out << "\tNumber of connected readers: " << primary.connectedReaders << "\n";
  out << "\tCurrent table: " << (primary.currentTable != 0 ? "Secondary" : "Primary") << " (version: 0x";
  out << std::hex << std::setfill('0') << std::setw(8) << primary.tableVersion << ")\n";
  out << "\tPrimary:";
  relay.formatIndividualRelayHeader(primary, out);
  out << "\tSecondary:";
  relay.formatIndividualRelayHeader(secondary, out);
  out << "\n";
  out.copyfmt(saved);

  quarry.printStats(detail, sortByOccupancy);
}

// printTable after its output is open: the styled, client or dump road.
int dumpTable(Heron::ReportOutput& output, const char* tableName, bool who, bool stats, bool regions,
              const std::unordered_set<unsigned>& regionIds, bool detail, bool sortByOccupancy, bool printEmpty,
              bool queues, Heron::Style style);

}  // namespace

namespace Heron {

Beacon::Platform::DebugHandler& debugHandler() { return *heronHandler; }

int printHeron(const std::string& typeName, const Mem::RootPath& /*root*/, std::ostream* /*out*/, Style /*style*/) {
  std::cerr << "No knowledge of root type:" << Beacon::Util::escapeText(typeName) << std::endl;
  return 1;
}

namespace {

// What the command line asks for.
struct Settings {
  std::string outputFile;
  bool who = false;
  bool stats = false;
  bool regions = false;
  std::unordered_set<unsigned> regionIds;
  bool detail = false;
  bool sortByOccupancy = false;
  bool printEmpty = false;
  bool queues = false;
  Style style = Text;
  int pid = 0;
  bool whoAll = false;
};

// The option's status when the command line ends the run, or none to go on.
constexpr int kGoOn = -1;

// -c PID: the first number in the text, as std::stoi reads it. Its error
// lines are the documented ones, leading and trailing text and all.
int readPid(const char* text, int& pid) {
  int value = 0;
  try {
    value = std::stoi(text);
  } catch (const std::exception& e) {
    std::cerr << fmt::format("Error obtaining client with PID {}:{}\n", text, e.what()) << std::flush;
    return 1;
  }
  if (value <= 0) {
    std::cerr << fmt::format("{} is an invalid PID \n", value) << std::flush;
    return 1;
  }
  pid = value;
  return kGoOn;
}

// -r ID: refused when it does not fit the 32 bits of a region id.
int readRegionId(const char* text, Settings& settings) {
  unsigned id = 0;
  if (!parseRegionId(text, id)) {
    std::cerr << "Invalid region id " << Beacon::Util::escapeText(text) << ": out of range" << std::endl;
    return 1;
  }
  settings.regionIds.insert(id);
  settings.regions = true;
  return kGoOn;
}

// One option into `settings`; kGoOn, or the status the run ends with.
int readOption(int option, Settings& settings) {
  switch (option) {
    case 'a':
      settings.queues = settings.regions = true;
      return kGoOn;
    case 'R':
      settings.regions = true;
      return kGoOn;
    case 'q':
      settings.queues = true;
      return kGoOn;
    case 's':
      settings.stats = true;
      return kGoOn;
    case 'd':
      settings.detail = true;
      return kGoOn;
    case 'e':
      settings.printEmpty = true;
      return kGoOn;
    case 'O':
      settings.sortByOccupancy = true;
      return kGoOn;
    case 'w':
      settings.who = true;
      return kGoOn;
    case 'A':
      settings.whoAll = true;
      return kGoOn;
    case 'j':
      settings.style = Json;
      return kGoOn;
    case 'p':
      settings.style = Pretty;
      return kGoOn;
    case 'f':
      settings.outputFile = optarg;
      return kGoOn;
    case 'r':
      return readRegionId(optarg, settings);
    case 'c':
      return readPid(optarg, settings.pid);
    default: {  // -h, --help, an unknown option or a missing argument
      // The help is a report too: a failed write of it is a failure.
      ReportOutput output;
      printHelp(output.stream());
      return output.finish() ? 0 : 1;
    }
  }
}

// Reads the options in order; kGoOn, or the status the run ends with.
int readOptions(int argc, char** argv, Settings& settings) {
  static const struct option longOptions[] = {
      {"help", no_argument, nullptr, 'h'},
      {"what", required_argument, nullptr, 'c'},
      {"who", no_argument, nullptr, 'w'},
      {"who-all", no_argument, nullptr, 'A'},
      {nullptr, 0, nullptr, 0},
  };
  int option = 0;
  while ((option = getopt_long(argc, argv, "adef:wc:AhjqRr:spO", longOptions, nullptr)) != -1) {
    const int status = readOption(option, settings);
    if (status != kGoOn) {
      return status;
    }
  }
  return kGoOn;
}

int reportClients(const Settings& settings, const Mem::OrbRootPath& root) {
  ReportOutput output;
  if (!output.open(settings.outputFile, {root.path()})) {
    return 1;
  }
  HeronClientScanner scanner(&output.stream(), root, "");
  const int status = settings.whoAll ? scanner.doGetAllClientInfo() : scanner.doGetTableInfo(settings.pid);
  return output.finish() ? status : 1;
}

int printMatch(const Settings& settings, const std::string& name) {
  return printTable(settings.outputFile, name.c_str(), settings.who, settings.stats, settings.regions,
                    settings.regionIds, settings.detail, settings.sortByOccupancy, settings.printEmpty, settings.queues,
                    settings.style);
}

// The table dump of the one table EXPR names; the documented lines when it
// names none or several.
int dumpMatchingTable(const Settings& settings, const std::string& expr, Beacon::Platform::DebugHandler& handler,
                      const Mem::OrbRootPath& root) {
  Mem::TableFinder finder(handler, root);
  finder.find(expr.c_str(), SharedMem::Table);
  const std::vector<std::string>& matches = finder.matches();
  if (matches.empty()) {
    std::cerr << "No table was found in " << Beacon::Util::escapeText(root.path()) << std::endl;
    if (std::getenv("Q7_CHROOT") != nullptr) {
      std::cerr << "The utility must be run from the same directory "
                << "as the executable that produces the table." << std::endl;
    }
    return 1;
  }
  if (matches.size() == 1) {
    std::cerr << "Table Name: " << Beacon::Util::escapeText(matches.front()) << std::endl << std::endl;
    return printMatch(settings, matches.front());
  }
  if (!expr.empty() && expr.back() != '*') {
    for (const std::string& match : matches) {
      if (match == expr) {
        std::cerr << "Exact match found. There are other matches. "
                  << "To see the other matches, try using the following:" << std::endl;
        std::cerr << "    '" << Beacon::Util::escapeText(expr) << "*'" << std::endl;
        return printMatch(settings, expr);
      }
    }
  }
  std::cerr << "More than one table was found. "
            << "Try again using one of the following tables:" << std::endl;
  for (const std::string& match : matches) {
    std::cerr << "  - " << Beacon::Util::escapeText(match) << std::endl;
  }
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  // The utility owns its process: a table file cut under one of its
  // read-only mappings reads as zeros until the next size check reports it.
  Beacon::MappingGuard::install();
  Settings settings;
  const int status = readOptions(argc, argv, settings);
  if (status != kGoOn) {
    return status;
  }
  const std::string expr = optind < argc ? argv[optind] : "";
  Beacon::Platform::DebugHandler& handler = debugHandler();
  const Mem::OrbRootPath root(handler, "", false);
  if (settings.pid != 0 || settings.whoAll) {
    return reportClients(settings, root);
  }
  return dumpMatchingTable(settings, expr, handler, root);
}

}  // namespace Heron

int printTable(const std::string& outputFile, const char* tableName, bool who, bool stats, bool regions,
               const std::unordered_set<unsigned>& regionIds, bool detail, bool sortByOccupancy, bool printEmpty,
               bool queues, Heron::Style style) {
  Beacon::Platform::DebugHandler& handler = Heron::debugHandler();
  Heron::ReportOutput output;
  {
    // Neither the collection root nor the table's own directory (which may
    // lie outside it) ever receives the report.
    Mem::OrbRootPath collection(handler, "", false);
    Mem::OrbRootPath table(handler, std::string(tableName), false);
    if (!output.open(outputFile, {collection.path(), table.path()})) {
      return 1;
    }
  }
  const int status =
      dumpTable(output, tableName, who, stats, regions, regionIds, detail, sortByOccupancy, printEmpty, queues, style);
  return output.finish() ? status : 1;
}

namespace {

int dumpTable(Heron::ReportOutput& output, const char* tableName, bool who, bool stats, bool regions,
              const std::unordered_set<unsigned>& regionIds, bool detail, bool sortByOccupancy, bool printEmpty,
              bool queues, Heron::Style style) {
  std::ostream* out = &output.stream();
  Beacon::Platform::DebugHandler& handler = Heron::debugHandler();
  Mem::OrbRootPath root(handler, std::string(tableName), true);
  SharedMem::OwnerFile owner(handler, root, false);

  if (style != Heron::Text) {
    std::string typeName = owner.typeName();
    if (typeName.empty()) {
      std::cerr << "Failed to fetch type of root, rootPath:" << Beacon::Util::escapeText(root.path()) << std::endl;
      return 1;
    }
    return Heron::printHeron(typeName, root, out, style);
  }

  if (who) {
    Heron::HeronClientScanner scanner(out, root, tableName);
    return scanner.doGetClientInfo(false);
  }

  Heron::QuarryHelperScanner quarry(handler, root, output.fileName());
  // Its sections go to the same checked stream: the file named is never
  // opened a second time.
  quarry.writeTo(*out);
  if (!quarry.initialize()) {
    std::cerr << "Failed to initialize QuarryScanner" << std::endl;
    return 1;
  }
  Heron::RelayHelperScanner relay(handler, root, false);
  if (!relay.initialize()) {
    std::cerr << "Failed to initialize RelayReaderGeneric" << std::endl;
    return 1;
  }

  if (stats || detail) {
    printStatistics(*out, owner, relay, quarry, detail, sortByOccupancy);
  } else {
    if (regions) {
      quarry.scanRegions(regionIds, printEmpty);
    }
    if (queues) {
      relay.scan(*out, !printEmpty);
    }
  }
  return 0;
}

}  // namespace
