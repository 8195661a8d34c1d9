// Where heron-stat's reports go: standard output, or a file replaced
// atomically so that a reader (the node exporter's textfile collector)
// never sees half of it.
#pragma once

#include <string>

namespace Stat {

// Writes all of `text` to `fd`; false with `error` set (one line) when the
// write fails or stops short.
bool writeAll(int fd, const std::string& text, std::string& error);

// Writes `text` to a temporary file beside `path`, then renames it over
// `path`. The temporary is removed on failure.
bool replaceFile(const std::string& path, const std::string& text, std::string& error);

// True when `path` (which need not exist yet) lies inside `root` or is
// `root` itself, once both are canonical: heron-stat never writes there.
bool insideRoot(const std::string& path, const std::string& root);

}  // namespace Stat
