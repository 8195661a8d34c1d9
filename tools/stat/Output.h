// Where heron-stat's reports go: standard output, or a file replaced
// atomically so that a reader (the node exporter's textfile collector)
// never sees half of it.
#pragma once

#include <functional>
#include <string>

namespace Stat {

// Writes all of `text` to `fd`; false with `error` set (one line) when the
// write fails or stops short.
bool writeAll(int fd, const std::string& text, std::string& error);

enum class Written { All, Failed, Stopped };

// How long a reader that still reads gets to take the rest of a document
// after a stop signal.
constexpr double kStopGraceSeconds = 0.5;

// Writes all of `text` to `fd`, each piece once poll() says the descriptor
// takes it, so that a stop signal waiting on `stopFd` (a signalfd; -1 for
// none) ends the write even while a reader has stopped reading. Failed sets
// `error` (the system's words); Stopped means `stopFd` became readable and
// the descriptor did not take the rest within kStopGraceSeconds.
Written writeUnlessStopped(int fd, const std::string& text, int stopFd, std::string& error);

// Writes `text` to a temporary file beside `path`, then renames it over
// `path`, unless `path` has become something other than a regular file. The
// temporary is removed on failure.
bool replaceFile(const std::string& path, const std::string& text, std::string& error);
// The same with the content written by `write` into the temporary's
// descriptor (false with its own error to leave `path` as it was).
bool replaceFileBy(const std::string& path, const std::function<bool(int, std::string&)>& write, std::string& error);

// `path` made absolute, with the symbolic links of its longest existing
// prefix resolved and ".", ".." and repeated slashes in the rest taken out
// by name.
std::string resolvedPath(const std::string& path);

// True when `path` (which need not exist yet) lies inside `root` or is
// `root` itself, both resolved and compared by whole components:
// heron-stat never writes there.
bool insideRoot(const std::string& path, const std::string& root);

// Why heron-stat must not replace `path` ("inside the collection root",
// "inside a table's directory", "which is not a regular file", "which is a
// table's file" for a hard link to one), or "" when it may.
std::string refusedOutput(const std::string& path, const std::string& root);

}  // namespace Stat
