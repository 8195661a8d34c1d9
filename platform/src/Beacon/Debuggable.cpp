#include "Beacon/Debuggable.h"

namespace Beacon {

Debuggable::Debuggable(const std::string& component, bool flag)
    : owned_(Platform::getDebugHandler(component, flag)), handler_(owned_.get()) {}

}  // namespace Beacon
