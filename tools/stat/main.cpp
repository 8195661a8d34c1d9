// heron-stat [OPTIONS] [EXPR]: every table's health, rates and capacity,
// as a table, JSON, Prometheus text or a monitoring-plugin verdict.
//
// Exit status: 0 done (--watch ended by Ctrl-C included), 1 the report could
// not be written (or the server could not bind, or the root cannot be
// listed, or EXPR matches no table), 2 usage error, and for --check the
// verdict: 0 OK, 1 WARNING, 2 CRITICAL, 3 UNKNOWN (a usage error too).
#include <fmt/format.h>
#include <malloc.h>

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <iostream>
#include <string>

#include "Beacon/MappingGuard.h"
#include "Stat.h"

namespace {

constexpr const char* kExamples = R"(Examples:
  heron-stat                         every table of the root, rates over 1 s
  heron-stat -i 0 'md/*'             the tables matching a glob, one sample, no rates
  heron-stat --watch -i 2            refresh every 2 s until Ctrl-C
  heron-stat --json | jq '.tables[] | {name, state}'
  heron-stat --watch --json          one JSON document per line (NDJSON)
  heron-stat --prometheus -o /var/lib/node_exporter/heron.prom
  heron-stat --listen 127.0.0.1:9464 serve /metrics, /healthz and the live page at /
  heron-stat --check --stale 10      a verdict for Nagios or Icinga
  heron-stat --check --timeout 5 --exclude 'scratch/*'
  heron-stat --capture incident.tar.zst    a bundle of every table, read anywhere with --from
  heron-stat --diff incident.tar.zst -     what moved since the capture
  heron-stat --record /var/lib/heron-stat -i 10   the flight recorder

States, worst first: broken (a file is missing or invalid), dead (the
writer is gone or no longer maps the table), stale (its heartbeat is older
than --stale), ok. An archive table (type 3) needs no writer.

Exit status: 0 done, 1 output could not be written, the root cannot be
listed or EXPR matches no table, 2 usage error; with --check 0 OK,
1 WARNING, 2 CRITICAL, 3 UNKNOWN (usage errors included).
The collection root is $HERON_ROOT, else /dev/shm/heron.)";

// One line, no trailing blank: CLI11 messages may span lines.
std::string oneLine(std::string text) {
  for (char& c : text) {
    if (c == '\n' || c == '\r') {
      c = ' ';
    }
  }
  while (!text.empty() && text.back() == ' ') {
    text.pop_back();
  }
  return text;
}

// Digits with at most one decimal point, nothing else: no sign, exponent,
// hexadecimal ("0x10" is not 16), "inf" or "nan".
bool decimal(const std::string& text) {
  std::size_t digits = 0;
  std::size_t points = 0;
  for (char c : text) {
    digits += c >= '0' && c <= '9' ? 1 : 0;
    points += c == '.' ? 1 : 0;
  }
  return digits != 0 && points <= 1 && digits + points == text.size();
}

// A decimal number in [low, high] (low excluded when `lowOpen`); CLI11's
// own range messages print the whole double range.
CLI::Validator numberIn(double low, double high, bool lowOpen, const std::string& what) {
  return CLI::Validator(
      [=](std::string& text) -> std::string {
        const double value = decimal(text) ? std::strtod(text.c_str(), nullptr) : -1;
        const bool ok = decimal(text) && (lowOpen ? value > low : value >= low) && value <= high;
        return ok ? std::string() : "'" + text + "' is not " + what;
      },
      "", "number");
}

CLI::Validator notEmpty() {
  return CLI::Validator(
      [](std::string& text) -> std::string {
        return text.empty() ? std::string("needs a value, not an empty one") : std::string();
      },
      "", "not empty");
}

// Usage errors are one line and status 2; with --check, where a monitoring
// host reads the first line of standard output, they are an UNKNOWN verdict.
int usageError(const std::string& message, bool checkMode) {
  if (checkMode) {
    std::cout << "HERON UNKNOWN - usage error: " << oneLine(message) << " (see heron-stat --help)" << std::endl;
    return 3;
  }
  std::cerr << "heron-stat: " << oneLine(message) << " (see heron-stat --help)" << std::endl;
  return 2;
}

// --check is looked for before parsing, so that a usage error next to it is
// already reported the way a monitoring host expects.
bool asksForCheck(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--") {
      return false;
    }
    if (arg == "--check") {
      return true;
    }
  }
  return false;
}

// What to show and how often.
void addSelectionOptions(CLI::App& app, Stat::Options& options) {
  app.add_option("EXPR", options.exprs,
                 "Tables to show: empty for every table of the root, a glob (* may cross /), or a name prefix; "
                 "--capture takes several");
  app.add_option("--exclude", options.collect.exclude,
                 "Leave out the tables whose name matches GLOB (* may cross /); may be repeated")
      ->type_name("GLOB")
      ->check(notEmpty())
      ->allow_extra_args(false);
  app.add_flag("--all-roots", options.collect.allRoots,
               "Also show tables outside the root that any process maps (needs the /proc walk)");
  app.add_flag("--per-region", options.collect.perRegionSeries,
               "Prometheus: one occupancy series per region id, not per entry size (ids climb to 4095 as a "
               "writer replaces regions)");
  app.add_flag("--no-clients", options.noClients,
               "Skip the /proc walk: clients show as unknown, a writer is judged by its pid alone");
  app.add_option("-i,--interval", options.interval,
                 "Seconds between the two samples rates come from, and between --watch refreshes; 0: one sample, "
                 "no rates")
      ->check(numberIn(0, 1e6, false, "a number of seconds, 0 or more"))
      ->type_name("SECONDS")
      ->capture_default_str();
  app.add_flag("--watch", options.watch,
               "Refresh every interval until Ctrl-C (an interactive view on a terminal, appended blocks otherwise)");
}

// What turns facts into verdicts.
void addThresholdOptions(CLI::App& app, Stat::Options& options) {
  app.add_option("--stale", options.thresholds.staleSeconds, "Seconds without a heartbeat after which a table is stale")
      ->check(numberIn(0, 1e9, true, "a number of seconds above 0"))
      ->type_name("SECONDS")
      ->capture_default_str();
  app.add_option("--warn-alloc", options.thresholds.warnAllocPercent,
                 "WARNING when a table's allocator occupancy is at or over PCT percent")
      ->check(numberIn(0, 100, false, "a percentage from 0 to 100"))
      ->type_name("PCT")
      ->capture_default_str();
  app.add_option("--crit-alloc", options.thresholds.critAllocPercent,
                 "CRITICAL when a table's allocator occupancy is at or over PCT percent, not below --warn-alloc "
                 "(default: off)")
      ->check(numberIn(0, 100, false, "a percentage from 0 to 100"))
      ->type_name("PCT");
  app.add_option("--timeout", options.timeout, "With --check: UNKNOWN when the sample takes longer than SECONDS")
      ->check(numberIn(0, 1e6, true, "a number of seconds above 0"))
      ->type_name("SECONDS");
}

void addOptions(CLI::App& app, Stat::Options& options) {
  addSelectionOptions(app, options);
  auto* json = app.add_flag("--json", options.json, "One JSON document per sample (NDJSON with --watch)");
  auto* prometheus = app.add_flag("--prometheus", options.prometheus, "Prometheus text exposition format");
  auto* check = app.add_flag("--check", options.check, "Monitoring-plugin verdict; exit status 0/1/2/3");
  auto* listen = app.add_option("--listen", options.listen,
                                "Serve GET /metrics, GET /healthz and a live page at / (its JSON at "
                                "/api/v1/sample) on ADDR:PORT ([v6]:PORT; :PORT listens on every IPv4 address; "
                                "port 0 picks one)");
  listen->type_name("ADDR:PORT")->check(notEmpty());
  auto* output = app.add_option("-o,--output", options.output,
                                "Write the report to FILE atomically (a temporary beside it, then renamed); never "
                                "inside the collection root");
  output->type_name("FILE")->check(notEmpty());
  addThresholdOptions(app, options);
  auto* capture = app.add_option("--capture", options.capture,
                                 "Write a bundle of the selected tables to FILE (tar; zstd when FILE ends in .zst), "
                                 "for reading anywhere with --from");
  capture->type_name("FILE")->check(notEmpty());
  auto* from =
      app.add_option("--from", options.from,
                     "Render the sample a bundle holds, as at its capture; or one a --record DIR holds (--at)");
  from->type_name("BUNDLE")->check(notEmpty());
  auto* diff = app.add_option("--diff", options.diff,
                              "What changed between two bundles, per table (NEW - for the live root); text or --json")
                   ->expected(2)
                   ->type_name("OLD NEW");
  diff->excludes(capture)->excludes(from)->excludes(prometheus)->excludes(check)->excludes(listen)->excludes(output);
  auto* record = app.add_option("--record", options.record,
                                "Append one sample per --interval to compressed NDJSON files in DIR, oldest removed "
                                "beyond --record-max-bytes");
  record->type_name("DIR")->check(notEmpty());
  app.add_option("--record-max-bytes", options.recordMaxBytes, "What --record's files may take in all")
      ->type_name("BYTES")
      ->check(numberIn(4096, 1e15, false, "a number of bytes from 4096"))
      ->capture_default_str();
  app.add_option("--at", options.at,
                 "With --from DIR: the recorded sample nearest TIME (epoch seconds or UTC "
                 "'YYYY-MM-DD HH:MM:SS'); default the latest")
      ->type_name("TIME")
      ->check(notEmpty());
  record->excludes(capture)->excludes(from)->excludes(diff)->excludes(json)->excludes(prometheus)->excludes(check);
  record->excludes(listen)->excludes(output);
  capture->excludes(from)->excludes(json)->excludes(prometheus)->excludes(check)->excludes(listen)->excludes(output);
  from->excludes(listen);
  json->excludes(prometheus)->excludes(check)->excludes(listen);
  prometheus->excludes(check)->excludes(listen);
  check->excludes(listen);
  listen->excludes(output);
}

// What CLI11 cannot say: combinations of values. Empty when they are fine.
std::string combinationError(const Stat::Options& options) {
  if (options.watch && (options.check || !options.listen.empty())) {
    return "--watch cannot be combined with --check or --listen";
  }
  if (options.watch && options.interval <= 0) {
    return "--watch needs an --interval above 0";
  }
  if ((!options.capture.empty() || !options.from.empty() || !options.diff.empty()) &&
      (options.watch || options.collect.allRoots)) {
    return "--capture, --from and --diff take one sample of the root's tables: no --watch or --all-roots";
  }
  if (options.exprs.size() > 1 && options.capture.empty()) {
    return "one EXPR only (--capture takes several): '" + options.exprs[1] + "' is one too many";
  }
  if (!options.record.empty() && (options.interval <= 0 || options.watch)) {
    return "--record needs an --interval above 0, and no --watch";
  }
  if (!options.at.empty() && options.from.empty()) {
    return "--at is for --from DIR";
  }
  if (options.noClients && options.collect.allRoots) {
    return "--all-roots needs the /proc walk that --no-clients skips";
  }
  if (options.timeout > 0 && !options.check) {
    return "--timeout is for --check";
  }
  const Stat::Thresholds& limits = options.thresholds;
  if (limits.critAllocPercent > 0 && limits.critAllocPercent < limits.warnAllocPercent) {
    return fmt::format("--crit-alloc {:g} is below --warn-alloc {:g}", limits.critAllocPercent,
                       limits.warnAllocPercent);
  }
  return std::string();
}

int statMain(int argc, char** argv) {
  const bool checkMode = asksForCheck(argc, argv);
  Stat::Options options;
  CLI::App app{
      "heron-stat: every table's health, rates and capacity at a glance, live, as JSON, for Prometheus "
      "and for alerting. Read-only, like heron.",
      "heron-stat"};
  app.footer(kExamples);
  app.set_version_flag("--version", std::string("heron-stat ") + HERON_STAT_VERSION);
  addOptions(app, options);
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    std::cout << app.help();
    return std::cout.flush() ? 0 : 1;
  } catch (const CLI::CallForVersion&) {
    std::cout << app.version() << std::endl;
    return std::cout ? 0 : 1;
  } catch (const CLI::ParseError& error) {
    return usageError(error.what(), checkMode);
  }
  const std::string wrong = combinationError(options);
  if (!wrong.empty()) {
    return usageError(wrong, checkMode);
  }
  options.collect.walkProcesses = !options.noClients;
  options.collect.expr = options.exprs.empty() ? std::string() : options.exprs.front();
  if (!options.listen.empty()) {
    // A server runs for months: two arenas and a fixed mapping threshold
    // give the blocks a large request or sample needed back to the system
    // when they are freed, instead of each thread's arena keeping them.
    ::mallopt(M_ARENA_MAX, 2);
    ::mallopt(M_MMAP_THRESHOLD, 64 * 1024);
  }
  return Stat::run(options);
}

}  // namespace

int main(int argc, char** argv) {
  // A table file cut under one of our read-only mappings reads zeros and is
  // reported by the next size check, instead of killing the process.
  Beacon::MappingGuard::install();
  // An exception from a library (out of memory, a remap that failed) ends
  // the run with one line, never with a signal.
  try {
    return statMain(argc, argv);
  } catch (const std::exception& error) {
    std::cerr << "heron-stat: " << oneLine(error.what()) << std::endl;
  } catch (...) {
    std::cerr << "heron-stat: unexpected error" << std::endl;
  }
  return 1;
}
