// heron-sim create / remove.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>

#include "Mem/RootPath.h"
#include "SharedMem/Ember.h"
#include "SharedMem/OwnerFile.h"
#include "Sim.h"

namespace Sim {

namespace {

bool makeDirectories(const std::string& path, std::string& error) {
  std::string partial;
  std::size_t at = 0;
  while (at != std::string::npos) {
    at = path.find('/', at + 1);
    partial = path.substr(0, at);
    if (partial.empty()) {
      continue;
    }
    if (::mkdir(partial.c_str(), 0755) != 0 && errno != EEXIST) {
      error = partial + ": " + std::strerror(errno);
      return false;
    }
  }
  return true;
}

// Only the files a table is made of are removed; anything else stays, and
// then so does the directory.
bool isTableFile(const char* name) {
  static const char* const fixed[] = {"owner", "ember", "quarry", "relay.1", "relay.2", "owner.tmp"};
  for (const char* candidate : fixed) {
    if (std::strcmp(name, candidate) == 0) {
      return true;
    }
  }
  return std::strncmp(name, "region.", 7) == 0;
}

}  // namespace

int commandCreate(const std::string& name, const CreateSettings& settings) {
  const auto type = static_cast<SharedMem::SharedMemType>(settings.type);
  Mem::OrbRootPath root(handler(), name, false);
  std::string error;
  if (!Mem::checkTablePath(root.path(), error)) {
    std::cerr << "heron-sim create: " << error << '\n';
    return 1;
  }
  struct stat st {};
  if (::stat(root.fullPath("owner").c_str(), &st) == 0) {
    std::cerr << "heron-sim create: table " << root << " already exists\n";
    return 1;
  }
  if (!makeDirectories(root.path(), error) || !createQueues(root, settings, error) ||
      !createAllocator(root, settings, error) ||
      !SharedMem::OwnerFile::create(root, type, settings.typeName,
                                    SharedMem::EmberId{static_cast<std::uint16_t>(::getpid() & 0xFFFF), 0}, error)) {
    std::cerr << "heron-sim create: " << error << '\n';
    return 1;
  }
  std::cout << "created " << root << '\n';
  return 0;
}

int commandRemove(const std::string& name) {
  Mem::OrbRootPath root(handler(), name, false);
  DIR* dir = ::opendir(root.path().c_str());
  if (dir == nullptr) {
    std::cerr << "heron-sim remove: " << root << ": " << std::strerror(errno) << '\n';
    return 1;
  }
  while (const struct dirent* entry = ::readdir(dir)) {
    if (isTableFile(entry->d_name)) {
      ::unlink(root.fullPath(entry->d_name).c_str());
    }
  }
  ::closedir(dir);
  if (::rmdir(root.path().c_str()) != 0) {
    std::cerr << "heron-sim remove: " << root << ": " << std::strerror(errno) << '\n';
    return 1;
  }
  return 0;
}

}  // namespace Sim
