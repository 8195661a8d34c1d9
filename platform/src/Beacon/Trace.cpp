#include "Beacon/Trace.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace Beacon {
namespace Impl {

// Traces and assertions show the source file's base name: the text does not
// depend on where the checkout lives.
const char* sourceBaseName(const char* source) {
  const char* slash = std::strrchr(source, '/');
  return slash != nullptr ? slash + 1 : source;
}

void vfmassert(const char* source, const char* function, int line, const char* classWord, fmt::string_view format,
               fmt::format_args args) {
  std::string text = fmt::format("FATAL {}::{} ({}:{}): {}\n", classWord, function, sourceBaseName(source), line,
                                 fmt::vformat(format, args));
  std::fwrite(text.data(), 1, text.size(), stderr);
  std::fflush(stderr);
  std::abort();
}

}  // namespace Impl
}  // namespace Beacon
