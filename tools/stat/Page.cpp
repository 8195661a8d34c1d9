#include "Page.h"

#include <cstring>

namespace Stat {

namespace {

// What a browser needs to run the file (and, with nosniff, nothing else).
const char* contentType(const std::string& name) {
  const auto endsWith = [&name](const char* suffix) {
    const std::size_t length = std::strlen(suffix);
    return name.size() >= length && name.compare(name.size() - length, length, suffix) == 0;
  };
  if (endsWith(".html")) {
    return "text/html; charset=utf-8";
  }
  if (endsWith(".js")) {
    return "text/javascript; charset=utf-8";
  }
  if (endsWith(".css")) {
    return "text/css; charset=utf-8";
  }
  return "application/octet-stream";
}

}  // namespace

bool findPageFile(const std::string& path, PageFile& file) {
  // The page has one address, "/"; the files it loads are served by name.
  std::string name;
  if (path == "/") {
    name = "index.html";
  } else if (path.size() > 1 && path[0] == '/' && path != "/index.html") {
    name = path.substr(1);
  } else {
    return false;
  }
  for (const EmbeddedFile& embedded : embeddedFiles()) {
    if (name == embedded.name) {
      file.contentType = contentType(name);
      file.body.assign(reinterpret_cast<const char*>(embedded.data), embedded.size);
      return true;
    }
  }
  return false;
}

}  // namespace Stat
