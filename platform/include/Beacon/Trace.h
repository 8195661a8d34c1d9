// Formatted tracing and fatal assertions.
//
// Nothing is formatted unless the level is enabled: the arguments are only
// forwarded to fmt after the mask test.
//
// Locations: every call site passes __FILE__, __func__ and __LINE__ as the
// source, function and line, never hand-written text, so that a trace or an
// assertion always names where it really is:
//   Beacon::fmtrace(handler, 5, __FILE__, __func__, __LINE__, "QuarryReader", "saw {}", name);
// They are explicit arguments (not defaults from __builtin_FILE() and its
// relatives) because they sit between the handler and the variadic format
// arguments, where no default can go. The printed source is the file's base
// name: __FILE__ holds whatever path the compiler was given, which depends on
// where the checkout lives and on the build tools.
#pragma once

#include <fmt/format.h>

#include <string>
#include <utility>

#include "Beacon/Platform.h"

namespace Beacon {

namespace Impl {
// Prints "FATAL <classWord>::<function> (<source>:<line>): <message>" to
// standard error and aborts.
[[noreturn]] void vfmassert(const char* source, const char* function, int line, const char* classWord,
                            fmt::string_view format, fmt::format_args args);
}  // namespace Impl

template <typename... Args>
void fmtrace(const Platform::DebugHandler& handler, unsigned level, const char* source, const char* function, int line,
             const char* classWord, fmt::format_string<Args...> format, Args&&... args) {
  if (!handler.enabled(level)) {
    return;
  }
  handler.emit(level, source, function, line, classWord, fmt::format(format, std::forward<Args>(args)...));
}

// The formatted message itself; also traced at level 0 when that is enabled,
// so an error that is about to be thrown leaves its location in the trace.
template <typename... Args>
std::string fmtracestr(const Platform::DebugHandler& handler, const char* source, const char* function, int line,
                       const char* classWord, fmt::format_string<Args...> format, Args&&... args) {
  std::string text = fmt::format(format, std::forward<Args>(args)...);
  if (handler.enabled(0)) {
    handler.emit(0, source, function, line, classWord, text);
  }
  return text;
}

// Fatal assertion: when `condition` is false, prints the message with its
// source location and aborts. The message is formatted only on failure.
template <typename... Args>
void fmassert(bool condition, const char* source, const char* function, int line, const char* classWord,
              fmt::format_string<Args...> format, Args&&... args) {
  if (condition) {
    return;
  }
  Impl::vfmassert(source, function, line, classWord, format, fmt::make_format_args(args...));
}

}  // namespace Beacon
