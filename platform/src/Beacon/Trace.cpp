#include "Beacon/Trace.h"

#include <cstdio>
#include <cstdlib>

namespace Beacon {
namespace Impl {

void vfmassert(const char* source, const char* function, int line, const char* classWord, fmt::string_view format,
               fmt::format_args args) {
  std::string text = fmt::format("FATAL {}::{} ({}:{}): {}\n", classWord, function, Platform::sourceBaseName(source),
                                 line, fmt::vformat(format, args));
  std::fwrite(text.data(), 1, text.size(), stderr);
  std::fflush(stderr);
  std::abort();
}

}  // namespace Impl
}  // namespace Beacon
