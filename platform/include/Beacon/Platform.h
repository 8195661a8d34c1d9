// Trace handlers: one per component name, with a level mask.
//
// A handler is created on first request for its component and lives until
// process exit. Its mask comes from BEACON_TRACE at creation:
//   BEACON_TRACE=0x221                         one mask for every component
//   BEACON_TRACE=HeronScanner=0x221,QuarryReader=0x20   per component
// Bit N of the mask enables trace level N. The default mask is 0.
//
// Thread rules: getDebugHandler is safe from any thread; a handler's mask may
// be changed only while no other thread traces through it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace Beacon {
namespace Platform {

class DebugHandler {
 public:
  DebugHandler(std::string component, std::uint64_t mask);
  DebugHandler(const DebugHandler&) = delete;
  DebugHandler& operator=(const DebugHandler&) = delete;

  const std::string& component() const { return component_; }
  std::uint64_t mask() const { return mask_; }
  void setMask(std::uint64_t mask) { mask_ = mask; }
  bool enabled(unsigned level) const { return level < 64 && ((mask_ >> level) & 1U) != 0; }

  // Writes one trace line to standard error: time, component, level, class
  // and function, source and line, then the message.
  void emit(unsigned level, const char* source, const char* function, int line, const char* classWord,
            std::string_view message) const;

 private:
  std::string component_;
  std::uint64_t mask_;
};

// Parses a BEACON_TRACE value for one component. Returns the mask that applies
// to `component`, 0 when none does or the text is malformed.
std::uint64_t parseTraceMask(std::string_view setting, std::string_view component);

// The handler of a component; the same object for every call with one name.
// The flag is reserved (callers pass false).
std::shared_ptr<DebugHandler> getDebugHandler(const std::string& name, bool);

// The part of a __FILE__ path after its last '/': trace and assertion texts
// do not depend on where the checkout lives.
const char* sourceBaseName(const char* source);

}  // namespace Platform
}  // namespace Beacon
