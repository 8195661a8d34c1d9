// heron-sim COMMAND [NAME...] [OPTIONS]: see CommandLine.cpp for the commands.
#include <iostream>

#include "Beacon/MappingGuard.h"
#include "CommandLine.h"
#include "Sim.h"

namespace Sim {

Beacon::Platform::DebugHandler& handler() {
  static std::shared_ptr<Beacon::Platform::DebugHandler> simHandler =
      Beacon::Platform::getDebugHandler("HeronSim", false);
  return *simHandler;
}

}  // namespace Sim

int main(int argc, char** argv) {
  Beacon::MappingGuard::install();
  Sim::Invocation invocation;
  const int status = Sim::parseCommandLine(argc, argv, invocation, std::cout, std::cerr);
  if (status >= 0) {
    return status;
  }
  switch (invocation.command) {
    case Sim::Command::Create:
      return Sim::commandCreate(invocation.name, invocation.create);
    case Sim::Command::Remove:
      return Sim::commandRemove(invocation.name);
    case Sim::Command::Write:
      return Sim::commandWrite(invocation.name, invocation.write);
    case Sim::Command::Shadow:
      return Sim::commandShadow(invocation.shadow);
    case Sim::Command::Demo:
      return Sim::commandDemo(invocation.demo);
  }
  return 1;
}
