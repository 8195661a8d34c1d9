#include "CommandLine.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <initializer_list>
#include <limits>
#include <ostream>
#include <string>
#include <vector>

namespace Sim {

namespace {

constexpr unsigned long long kMaxU32 = std::numeric_limits<std::uint32_t>::max();
// Seconds: a timespec's seconds are 32 bits wide in the 32-bit build.
constexpr unsigned long long kMaxSeconds = std::numeric_limits<std::int32_t>::max();
constexpr unsigned long long kMaxRate = 1000000000ULL;
constexpr unsigned long long kMaxPayload = 1ULL << 20;
constexpr std::size_t kTypeNameBytes = 31;  // the owner file's field keeps a NUL

// A decimal whole number from `min` to `max`: no sign, no base prefix, no
// fraction, so "-1", "0x10" and "1.5" are refused rather than read oddly.
CLI::Validator wholeNumber(unsigned long long min, unsigned long long max) {
  return CLI::Validator(
      [min, max](std::string& text) -> std::string {
        const std::string range = "a whole number from " + std::to_string(min) + " to " + std::to_string(max);
        if (text.empty() || text.size() > 20 || text.find_first_not_of("0123456789") != std::string::npos) {
          return "'" + text + "' is not " + range;
        }
        errno = 0;
        const unsigned long long value = std::strtoull(text.c_str(), nullptr, 10);
        if (errno == ERANGE || value < min || value > max) {
          return text + " is out of range: " + range;
        }
        return {};
      },
      "", "NUMBER");
}

CLI::Validator notEmpty() {
  return CLI::Validator([](std::string& text) { return text.empty() ? std::string("must not be empty") : ""; }, "",
                        "NOT_EMPTY");
}

CLI::Validator regionList() {
  return CLI::Validator(
      [](std::string& text) {
        std::vector<RegionSpec> regions;
        std::string error;
        return parseRegionList(text, regions, error) ? std::string() : error;
      },
      "", "REGIONS");
}

CLI::Validator typeNameText() {
  return CLI::Validator(
      [](std::string& text) {
        return text.size() > kTypeNameBytes
                   ? "'" + text + "' is longer than " + std::to_string(kTypeNameBytes) + " bytes"
                   : std::string();
      },
      "", "TYPE_NAME");
}

template <typename T>
CLI::Option* addNumber(CLI::App& app, const std::string& flag, T& value, unsigned long long min, unsigned long long max,
                       const std::string& unit, const std::string& description) {
  // Given twice, the last one counts, as it always did.
  return app.add_option(flag, value, description + " (" + std::to_string(min) + ".." + std::to_string(max) + ")")
      ->type_name(unit)
      ->check(wholeNumber(min, max))
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast)
      ->capture_default_str();
}

CLI::Option* addSeconds(CLI::App& app, unsigned long long& value, const std::string& description) {
  return addNumber(app, "--duration", value, 0, kMaxSeconds, "S", description);
}

// One line of plain text, whatever CLI11's text or the arguments it quotes
// hold: control characters become blanks.
std::string oneLine(std::string text) {
  for (char& c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7f) {
      c = ' ';
    }
  }
  while (!text.empty() && text.back() == ' ') {
    text.pop_back();
  }
  return text;
}

constexpr const char* kCommands = "create, remove, write, shadow or demo";

// The text of a usage error, in this tool's words where CLI11's are vague.
std::string describe(const CLI::App& app, const CLI::ParseError& error, int argc, const char* const* argv) {
  std::string text = oneLine(error.what());
  if (dynamic_cast<const CLI::RequiredError*>(&error) != nullptr && app.get_subcommands().empty()) {
    if (argc > 1 && argv[1][0] == '-') {
      return std::string("unknown option ") + argv[1];
    }
    if (argc > 1) {
      return std::string("unknown command '") + argv[1] + "'; the commands are " + kCommands;
    }
    return std::string("a command is required: ") + kCommands;
  }
  if (dynamic_cast<const CLI::ExtrasError*>(&error) != nullptr) {
    // In command-line order (CLI11's own text lists them backwards).
    const std::vector<std::string> extras = app.remaining(true);
    for (const std::string& extra : extras) {
      if (extra.size() > 1 && extra[0] == '-') {
        return "unknown option " + extra.substr(0, extra.find('='));
      }
    }
    return "unexpected argument '" + (extras.empty() ? std::string() : extras.front()) + "'";
  }
  if (dynamic_cast<const CLI::ArgumentMismatch*>(&error) != nullptr && text.size() > 8 &&
      text.compare(text.size() - 8, 8, " missing") == 0) {
    return text.substr(0, text.find(':')) + ": a value is missing";
  }
  return text;
}

// "heron-sim COMMAND: TEXT (see heron-sim COMMAND --help)" on one line.
int usageError(const CLI::App& app, const std::string& text, std::ostream& err) {
  std::string where = "heron-sim";
  for (const CLI::App* sub : app.get_subcommands()) {
    where += " " + sub->get_name();
  }
  err << where << ": " << oneLine(text) << " (see " << where << " --help)\n";
  return 2;
}

constexpr const char* kFooter =
    "Examples:\n"
    "  heron-sim create orders --capacity 4096\n"
    "  heron-sim write orders --rate 500 &\n"
    "  heron-sim shadow orders &\n"
    "  heron -w orders\n"
    "  heron-sim remove orders\n"
    "  HERON_ROOT=/tmp/demo heron-sim demo --duration 60\n"
    "\n"
    "Every command works under the collection root $HERON_ROOT (default /dev/shm/heron).\n"
    "Exit status: 0 success or a clean stop, 1 failure, 2 usage error.\n"
    "\"heron-sim COMMAND --help\" shows one command; the manual page is heron-sim(1).";

// The subcommands and the options checked after parsing.
struct Parsed {
  CLI::App* create = nullptr;
  CLI::App* remove = nullptr;
  CLI::App* write = nullptr;
  CLI::App* shadow = nullptr;
  CLI::Option* regions = nullptr;
  CLI::Option* noRegions = nullptr;
  CLI::Option* rate = nullptr;
  CLI::Option* flatOut = nullptr;
};

// A command whose help ends with its examples ("Example:" for one).
CLI::App& addCommand(CLI::App& app, const char* name, const std::string& description,
                     std::initializer_list<const char*> examples) {
  CLI::App& command = *app.add_subcommand(name, description);
  std::string footer = examples.size() == 1 ? "Example:" : "Examples:";
  for (const char* example : examples) {
    footer += "\n  ";
    footer += example;
  }
  command.footer(footer);
  return command;
}

// The NAME argument: required, and never an empty name.
template <typename Names>
void addNames(CLI::App& command, Names& names, const std::string& description) {
  command.add_option("NAME", names, description)->type_name("")->required()->check(notEmpty());
}

void addCreate(CLI::App& app, Invocation& invocation, std::string& regionsText, Parsed& parsed) {
  CreateSettings& create = invocation.create;
  CLI::App& createApp =
      addCommand(app, "create", "Create a table: owner, queue files and region allocator",
                 {"heron-sim create orders", "heron-sim create md/eu/quotes --capacity 4096 --regions 64x1024,4096x64",
                  "heron-sim create cache/segment --type 1 --type-name SharedSegment"});
  addNames(createApp, invocation.name, "Table name, relative to the collection root");
  addNumber(createApp, "--type", create.type, 0, kMaxU32, "N",
            "Owner type: 1 segment, 2 table, 3 archive; any other is written as given");
  createApp.add_option("--type-name", create.typeName, "Owner type name, at most 31 bytes")
      ->type_name("TEXT")
      ->check(typeNameText())
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast)
      ->capture_default_str();
  addNumber(createApp, "--capacity", create.capacity, 1, kMaxU32, "N", "Notifications per queue file");
  parsed.regions =
      createApp.add_option("--regions", regionsText, "Regions to create, SIZExCOUNT,... (SIZE bytes a unit)")
          ->type_name("LIST")
          ->check(regionList())
          ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast)
          ->capture_default_str();
  parsed.noRegions = createApp.add_flag("--no-regions", "Create the allocator file without regions");
  parsed.create = &createApp;
}

void addRemove(CLI::App& app, Invocation& invocation, Parsed& parsed) {
  CLI::App& removeApp =
      addCommand(app, "remove", "Remove a table's files and its directory", {"heron-sim remove orders"});
  addNames(removeApp, invocation.name, "Table name");
  parsed.remove = &removeApp;
}

void addWrite(CLI::App& app, Invocation& invocation, Parsed& parsed) {
  WriteSettings& write = invocation.write;
  CLI::App& writeApp =
      addCommand(app, "write",
                 "Become a table's writer; prints \"writer PID attached to PATH\" once mapped and a summary at the end",
                 {"heron-sim write orders --rate 500", "heron-sim write orders --flat-out --duration 10",
                  "heron-sim write orders --grow-every 1000 --max-capacity 8192 --region-every 500"});
  addNames(writeApp, invocation.name, "Table name (made by heron-sim create)");
  parsed.rate = addNumber(writeApp, "--rate", write.rate, 1, kMaxRate, "N", "Notifications a second");
  parsed.flatOut = writeApp.add_flag("--flat-out", write.flatOut, "Append as fast as possible, not at --rate");
  addSeconds(writeApp, write.seconds, "Stop after S seconds; 0: only on SIGINT, SIGTERM or SIGHUP");
  addNumber(writeApp, "--grow-every", write.growEvery, 0, std::numeric_limits<std::uint64_t>::max(), "N",
            "Double the queue every N appends; 0: never");
  addNumber(writeApp, "--max-capacity", write.maxCapacity, 1, kMaxU32, "N", "The queue grows no further");
  addNumber(writeApp, "--region-every", write.regionEvery, 0, std::numeric_limits<std::uint64_t>::max(), "N",
            "Replace a region every N appends; 0: never");
  addNumber(writeApp, "--live", write.liveEntries, 0, kMaxU32, "N", "Entries kept before the oldest is released");
  addNumber(writeApp, "--payload-max", write.payloadMax, 8, kMaxPayload, "N", "Largest payload in bytes");
  parsed.write = &writeApp;
}

void addShadow(CLI::App& app, Invocation& invocation, Parsed& parsed) {
  ShadowSettings& shadow = invocation.shadow;
  CLI::App& shadowApp = addCommand(
      app, "shadow", "Map tables' relay.1 and ember read-only, print \"shadow PID attached to PATH\" each, and wait",
      {"heron-sim shadow orders &", "heron-sim shadow orders md/eu/quotes --duration 30"});
  addNames(shadowApp, shadow.names, "Table names");
  shadowApp.add_flag("--rw", shadow.readWrite, "Map read-write and shared, as a writer does (nothing is written)");
  addSeconds(shadowApp, shadow.seconds, "Stop after S seconds; 0: only on SIGTERM or SIGINT");
  parsed.shadow = &shadowApp;
}

void addDemo(CLI::App& app, Invocation& invocation) {
  DemoSettings& demo = invocation.demo;
  CLI::App& demoApp = addCommand(
      app, "demo",
      "Build a small live collection with a writer and shadows for each table, and print heron commands to try",
      {"heron-sim demo", "HERON_ROOT=/tmp/demo heron-sim demo --duration 60 --rate 1000 --keep"});
  addSeconds(demoApp, demo.seconds, "Stop after S seconds; 0: only on Ctrl-C, SIGTERM or SIGHUP");
  demoApp.add_flag("--keep", demo.keep, "Leave the tables in place when the demo stops");
  addNumber(demoApp, "--rate", demo.rate, 1, kMaxRate, "N", "Each writer's notifications a second");
}

}  // namespace

int parseCommandLine(int argc, const char* const* argv, Invocation& invocation, std::ostream& out, std::ostream& err) {
  CLI::App app("heron-sim builds and drives live heron collections: tables, their writers and readers.", "heron-sim");
  app.set_help_flag("-h,--help", "Print this help and exit");
  app.set_version_flag("--version", std::string("heron-sim ") + HERON_VERSION, "Print the version and exit");
  app.require_subcommand(1);
  app.footer(kFooter);
  app.get_formatter()->label("SUBCOMMAND", "COMMAND");
  app.get_formatter()->label("Subcommands", "Commands");
  app.get_formatter()->column_width(30);

  Parsed parsed;
  std::string regionsText = kDefaultRegions;
  addCreate(app, invocation, regionsText, parsed);
  addRemove(app, invocation, parsed);
  addWrite(app, invocation, parsed);
  addShadow(app, invocation, parsed);
  addDemo(app, invocation);

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    // The top level lists every command with its options.
    out << (app.get_subcommands().empty() ? app.help("", CLI::AppFormatMode::All) : app.help());
    return out.flush() ? 0 : 1;
  } catch (const CLI::CallForVersion& version) {
    out << version.what() << '\n';
    return out.flush() ? 0 : 1;
  } catch (const CLI::ParseError& error) {
    return usageError(app, describe(app, error, argc, argv), err);
  }
  // Pairs that exclude each other, checked here for a plainer message and
  // help text than CLI11's own.
  if (parsed.regions->count() != 0 && parsed.noRegions->count() != 0) {
    return usageError(app, "--regions and --no-regions exclude each other", err);
  }
  if (parsed.rate->count() != 0 && parsed.flatOut->count() != 0) {
    return usageError(app, "--rate and --flat-out exclude each other", err);
  }

  if (parsed.create->parsed()) {
    invocation.command = Command::Create;
    invocation.create.withRegions = parsed.noRegions->count() == 0;
    std::string unused;
    parseRegionList(regionsText, invocation.create.regions, unused);
  } else if (parsed.remove->parsed()) {
    invocation.command = Command::Remove;
  } else if (parsed.write->parsed()) {
    invocation.command = Command::Write;
  } else if (parsed.shadow->parsed()) {
    invocation.command = Command::Shadow;
  } else {
    invocation.command = Command::Demo;
  }
  return -1;
}

}  // namespace Sim
