// heron-sim COMMAND NAME [options]
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>

#include "Beacon/MappingGuard.h"
#include "Sim.h"

namespace {

constexpr const char* kUsage =
    "Usage: heron-sim COMMAND [NAME] [options]\n"
    "\n"
    "Commands:\n"
    "  create NAME [--type N] [--type-name TEXT] [--capacity N] [--regions LIST]\n"
    "                 create a table under $HERON_ROOT (default /dev/shm/heron)\n"
    "  remove NAME    remove a table's files and directory\n"
    "  write NAME [--rate N | --flat-out] [--duration S] [--grow-every N] [--max-capacity N]\n"
    "             [--region-every N] [--live N] [--payload-max N]\n"
    "                 become the table's writer; prints \"writer PID attached to PATH\" once mapped\n"
    "                 and stops on SIGINT, SIGTERM or after --duration seconds\n"
    "  demo [--duration S] [--keep] [--rate N]\n"
    "                 a live demo collection: tables, a writer and shadows each; Ctrl-C stops\n"
    "                 it and removes what it created unless --keep\n"
    "  shadow NAME [NAME...] [--rw] [--duration SECONDS]\n"
    "                 map each table's relay.1 and ember read-only (--rw: read-write,\n"
    "                 as a writer) and wait for SIGTERM/SIGINT or SECONDS\n"
    "\n"
    "All commands honour HERON_ROOT.\n";

}  // namespace

namespace Sim {

std::string Options::get(const std::string& key, const std::string& fallback) const {
  auto found = values.find(key);
  return found == values.end() ? fallback : found->second;
}

unsigned long long Options::number(const std::string& key, unsigned long long fallback, bool& ok) const {
  auto found = values.find(key);
  if (found == values.end()) {
    return fallback;
  }
  const std::string& text = found->second;
  char* end = nullptr;
  unsigned long long value = std::strtoull(text.c_str(), &end, 0);
  if (text.empty() || text[0] == '-' || end == nullptr || *end != '\0') {
    ok = false;
    return fallback;
  }
  return value;
}

Beacon::Platform::DebugHandler& handler() {
  static std::shared_ptr<Beacon::Platform::DebugHandler> simHandler =
      Beacon::Platform::getDebugHandler("HeronSim", false);
  return *simHandler;
}

}  // namespace Sim

int main(int argc, char** argv) {
  Beacon::MappingGuard::install();
  if (argc < 2 || std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0) {
    std::fputs(kUsage, argc < 2 ? stderr : stdout);
    return argc < 2 ? 2 : 0;
  }
  std::string command = argv[1];
  Sim::Options options;
  std::string name;
  for (int i = 2; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg.rfind("--", 0) == 0) {
      std::string key = arg.substr(2);
      std::size_t eq = key.find('=');
      if (eq != std::string::npos) {
        options.values[key.substr(0, eq)] = key.substr(eq + 1);
      } else if (i + 1 < argc && std::strncmp(argv[i + 1], "--", 2) != 0) {
        options.values[key] = argv[++i];
      } else {
        options.values[key] = "1";
      }
    } else if (name.empty()) {
      name = arg;
    } else {
      options.positional.push_back(arg);
    }
  }

  if (command == "demo") {
    if (!name.empty()) {
      options.positional.insert(options.positional.begin(), name);
    }
    return Sim::commandDemo(options);
  }
  using Command = int (*)(const std::string&, const Sim::Options&);
  static const std::pair<const char*, Command> commands[] = {
      {"create", Sim::commandCreate},
      {"remove", Sim::commandRemove},
      {"write", Sim::commandWrite},
      {"shadow", Sim::commandShadow},
  };
  for (const auto& entry : commands) {
    if (command == entry.first) {
      if (name.empty()) {
        std::cerr << "heron-sim " << command << ": a table name is required\n";
        return 2;
      }
      return entry.second(name, options);
    }
  }
  std::cerr << "heron-sim: unknown command '" << command << "'\n" << kUsage;
  return 2;
}
