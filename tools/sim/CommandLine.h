// heron-sim's command line: every command, option and range is checked here,
// before anything is created, so that a mistake costs one line on standard
// error and status 2 and never a half-made table.
#pragma once

#include <iosfwd>
#include <string>

#include "Sim.h"

namespace Sim {

enum class Command { Create, Remove, Write, Shadow, Demo };

// What to run, with the settings of that command.
struct Invocation {
  Command command = Command::Demo;
  std::string name;  // create, remove, write
  CreateSettings create;
  WriteSettings write;
  ShadowSettings shadow;
  DemoSettings demo;
};

// The status to return at once (0 after --help or --version, printed to
// `out`; 2 after a usage error, one line on `err`), or -1 when `invocation`
// is to be run.
int parseCommandLine(int argc, const char* const* argv, Invocation& invocation, std::ostream& out, std::ostream& err);

}  // namespace Sim
