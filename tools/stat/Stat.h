// heron-stat's settings, as the command line gives them, and its main loop.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Collect.h"

namespace Stat {

struct Options {
  CollectOptions collect;          // its expr: the first of exprs
  std::vector<std::string> exprs;  // EXPR...: several for --capture only
  Thresholds thresholds;
  double interval = 1;  // seconds; 0: one sample, no rates
  bool watch = false;
  bool json = false;
  bool prometheus = false;
  bool check = false;
  bool noClients = false;
  double timeout = 0;             // --check: seconds a sample may take; 0: no limit
  std::string listen;             // ADDR:PORT
  std::string output;             // -o FILE
  std::string capture;            // --capture FILE: write a bundle
  std::string from;               // --from BUNDLE: render the sample a bundle holds
  std::vector<std::string> diff;  // --diff OLD NEW: two bundles, NEW "-" for live
  std::string record;             // --record DIR: the flight recorder
  std::uint64_t recordMaxBytes = 64ULL << 20;
  std::string at;  // --from DIR --at TIME: the recorded sample nearest TIME
};

// Runs the command the options describe; returns the exit status.
int run(const Options& options);

}  // namespace Stat
