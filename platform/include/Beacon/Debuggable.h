// Base of every traced object: carries a reference to its debug handler.
#pragma once

#include <memory>
#include <string>

#include "Beacon/Platform.h"

namespace Beacon {

class Debuggable {
 public:
  // Obtains (and keeps alive) the process-wide handler of `component`.
  Debuggable(const std::string& component, bool flag);
  // Borrows a handler; it must outlive this object.
  explicit Debuggable(Platform::DebugHandler& handler) : handler_(&handler) {}
  Debuggable(const Debuggable&) = default;
  Debuggable& operator=(const Debuggable&) = default;
  virtual ~Debuggable() = default;

  Platform::DebugHandler& debugHandler() const { return *handler_; }

 private:
  std::shared_ptr<Platform::DebugHandler> owned_;
  Platform::DebugHandler* handler_;
};

}  // namespace Beacon
