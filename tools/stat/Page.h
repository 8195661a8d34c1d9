// The live page that heron-stat --listen serves at "/": its files are built
// into the binary from tools/stat/page (cmake/EmbedFiles.cmake), and it
// draws the JSON sample served at kSamplePath.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace Stat {

// The --json document of the latest sample.
constexpr const char* kSamplePath = "/api/v1/sample";
// Seconds between two fetches of the page, on every sample answer.
constexpr const char* kRefreshHeader = "X-Heron-Refresh-Seconds";

// The page loads its own script and style sheet and fetches its own sample;
// nothing else, and no inline script or style, even if a name from a file
// ever reached the markup. Sent with every answer of the server.
constexpr const char* kContentSecurityPolicy =
    "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; base-uri 'none'; "
    "form-action 'none'; frame-ancestors 'none'";

struct EmbeddedFile {
  const char* name;  // the file's name in tools/stat/page
  const unsigned char* data;
  std::size_t size;
};

// Every file of tools/stat/page (defined in the source generated at build
// time).
std::vector<EmbeddedFile> embeddedFiles();

struct PageFile {
  const char* contentType = "";
  std::string body;
};

// The file served at `path` ("/" is index.html; "/app.js", "/style.css"):
// false for any other path.
bool findPageFile(const std::string& path, PageFile& file);

}  // namespace Stat
