// The debug handler that unit tests hand to the code under test: no trace
// is enabled, so its component name never shows.
#pragma once

#include "Beacon/Platform.h"

namespace HeronTest {

inline Beacon::Platform::DebugHandler& quietHandler() {
  static Beacon::Platform::DebugHandler instance("HeronTest", 0);
  return instance;
}

}  // namespace HeronTest
