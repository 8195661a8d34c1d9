#include "Beacon/Platform.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <mutex>

namespace Beacon {
namespace Platform {

const char* sourceBaseName(const char* source) {
  const char* slash = std::strrchr(source, '/');
  return slash != nullptr ? slash + 1 : source;
}

DebugHandler::DebugHandler(std::string component, std::uint64_t mask) : component_(std::move(component)), mask_(mask) {}

void DebugHandler::emit(unsigned level, const char* source, const char* function, int line, const char* classWord,
                        std::string_view message) const {
  struct timespec now {};
  clock_gettime(CLOCK_REALTIME, &now);
  std::string text =
      fmt::format("{}.{:06} {} L{} {}::{} ({}:{}) {}\n", static_cast<long long>(now.tv_sec), now.tv_nsec / 1000,
                  component_, level, classWord, function, sourceBaseName(source), line, message);
  // One write per line so that lines of concurrent processes do not mix.
  std::fwrite(text.data(), 1, text.size(), stderr);
}

namespace {

bool parseNumber(std::string_view text, std::uint64_t& value) {
  if (text.empty()) {
    return false;
  }
  std::string copy(text);
  char* end = nullptr;
  errno = 0;
  value = std::strtoull(copy.c_str(), &end, 0);
  return errno == 0 && end != nullptr && *end == '\0' && copy[0] != '-';
}

}  // namespace

std::uint64_t parseTraceMask(std::string_view setting, std::string_view component) {
  std::uint64_t value = 0;
  if (setting.find('=') == std::string_view::npos) {
    return parseNumber(setting, value) ? value : 0;
  }
  while (!setting.empty()) {
    std::size_t comma = setting.find(',');
    std::string_view item = setting.substr(0, comma);
    setting = comma == std::string_view::npos ? std::string_view() : setting.substr(comma + 1);
    std::size_t eq = item.find('=');
    if (eq == std::string_view::npos) {
      continue;
    }
    if (item.substr(0, eq) == component && parseNumber(item.substr(eq + 1), value)) {
      return value;
    }
  }
  return 0;
}

std::shared_ptr<DebugHandler> getDebugHandler(const std::string& name, bool) {
  // The registry of handlers: one per component for the life of the process.
  static std::mutex lock;
  static std::map<std::string, std::shared_ptr<DebugHandler>> handlers;
  std::lock_guard<std::mutex> guard(lock);
  auto found = handlers.find(name);
  if (found != handlers.end()) {
    return found->second;
  }
  const char* setting = std::getenv("BEACON_TRACE");
  auto handler = std::make_shared<DebugHandler>(name, setting != nullptr ? parseTraceMask(setting, name) : 0);
  handlers.emplace(name, handler);
  return handler;
}

}  // namespace Platform

}  // namespace Beacon
