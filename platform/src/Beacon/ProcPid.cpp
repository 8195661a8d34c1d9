#include "Beacon/ProcPid.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "Beacon/DirNode.h"
#include "Beacon/Trace.h"
#include "Beacon/Util.h"

namespace Beacon {
namespace Proc {

namespace {

// "pid:[4026531836]" -> 4026531836; 0 for any other text.
std::uint64_t namespaceInode(std::string_view link) {
  constexpr std::string_view prefix = "pid:[";
  if (link.size() < prefix.size() + 2 || link.compare(0, prefix.size(), prefix) != 0 || link.back() != ']') {
    return 0;
  }
  std::uint64_t value = 0;
  for (std::size_t i = prefix.size(); i + 1 < link.size(); ++i) {
    const char c = link[i];
    if (c < '0' || c > '9' || value > (UINT64_MAX - 9) / 10) {
      return 0;
    }
    value = value * 10 + static_cast<std::uint64_t>(c - '0');
  }
  return value;
}

// The whitespace-separated decimal numbers after a status line's tag.
std::vector<std::uint32_t> numbers(std::string_view text) {
  std::vector<std::uint32_t> out;
  std::size_t i = 0;
  while (i < text.size()) {
    while (i < text.size() && (text[i] == ' ' || text[i] == '\t')) {
      ++i;
    }
    std::uint64_t value = 0;
    std::size_t digits = 0;
    while (i < text.size() && text[i] >= '0' && text[i] <= '9' && digits < 10) {
      value = value * 10 + static_cast<std::uint64_t>(text[i] - '0');
      ++i;
      ++digits;
    }
    if (digits == 0 || value > UINT32_MAX || (i < text.size() && text[i] != ' ' && text[i] != '\t')) {
      return {};
    }
    out.push_back(static_cast<std::uint32_t>(value));
  }
  return out;
}

bool allDigits(const char* name) {
  if (*name == '\0') {
    return false;
  }
  for (; *name != '\0'; ++name) {
    if (*name < '0' || *name > '9') {
      return false;
    }
  }
  return true;
}

}  // namespace

std::uint64_t readPidNamespace(const std::string& pid, const std::string& procRoot, Access* access) {
  const std::string path = procRoot + "/" + pid + "/ns/pid";
  char buffer[64];
  const ssize_t n = ::readlink(path.c_str(), buffer, sizeof buffer);
  if (n < 0) {
    if (access != nullptr) {
      *access = errno == EACCES || errno == EPERM ? Access::Denied : Access::Gone;
    }
    return 0;
  }
  const std::uint64_t inode = namespaceInode(std::string_view(buffer, static_cast<std::size_t>(n)));
  if (access != nullptr) {
    *access = inode != 0 ? Access::Read : Access::Gone;
  }
  return inode;
}

bool readPidStatus(int pid, PidStatus& out, const std::string& procRoot) {
  out = PidStatus{};
  const std::string path = procRoot + "/" + std::to_string(pid) + "/status";
  std::string text;
  if (!Util::readWholeFile(path, text, O_NOFOLLOW)) {
    return false;
  }
  std::vector<std::uint32_t> pidLine;
  std::string_view rest(text);
  while (!rest.empty()) {
    const std::size_t end = rest.find('\n');
    const std::string_view line = rest.substr(0, end);
    rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
    if (line.compare(0, 6, "State:") == 0) {
      const std::size_t at = line.find_first_not_of(" \t", 6);
      out.state = at != std::string_view::npos ? line[at] : 0;
    } else if (line.compare(0, 4, "Pid:") == 0) {
      pidLine = numbers(line.substr(4));
    } else if (line.compare(0, 6, "NSpid:") == 0) {
      out.nsPids = numbers(line.substr(6));
    }
  }
  if (out.nsPids.empty() && pidLine.size() == 1) {
    out.nsPids = pidLine;
  }
  return out.state != 0 && !out.nsPids.empty();
}

PidNamespaceIndex::PidNamespaceIndex(Platform::DebugHandler& handler, std::string procRoot)
    : handler_(handler), procRoot_(std::move(procRoot)) {}

std::uint64_t PidNamespaceIndex::own() {
  if (!ownRead_) {
    own_ = readPidNamespace("self", procRoot_);
    ownRead_ = true;
  }
  return own_;
}

void PidNamespaceIndex::walk() {
  walked_ = true;
  DirNode directory(handler_, procRoot_);
  if (!directory.isOpen()) {
    complete_ = false;
    return;
  }
  while (const struct dirent* entry = directory.readEntry()) {
    if (!allDigits(entry->d_name)) {
      continue;
    }
    Access access = Access::Gone;
    const std::uint64_t ns = readPidNamespace(entry->d_name, procRoot_, &access);
    if (access == Access::Denied) {
      // A process whose status names one pid only lives in this /proc's
      // namespace, which cannot be another one; otherwise it could be in
      // any namespace below it.
      const int pid = std::atoi(entry->d_name);
      PidStatus status;
      if (readPidStatus(pid, status, procRoot_) && status.nsPids.size() == 1 && own() != 0) {
        byNamespace_[own()].push_back(pid);
        continue;
      }
      complete_ = false;
      fmtrace(handler_, 5, __FILE__, __func__, __LINE__, "PidNamespaceIndex", "{}/{}/ns/pid refused", procRoot_,
              entry->d_name);
    } else if (ns != 0) {
      byNamespace_[ns].push_back(std::atoi(entry->d_name));
    }
  }
}

const std::vector<int>& PidNamespaceIndex::processesIn(std::uint64_t ns) {
  if (!walked_) {
    walk();
  }
  auto found = byNamespace_.find(ns);
  return found != byNamespace_.end() ? found->second : none_;
}

bool PidNamespaceIndex::complete() {
  if (!walked_) {
    walk();
  }
  return complete_;
}

int PidNamespaceIndex::find(std::uint64_t ns, std::uint32_t innerPid) {
  for (int pid : processesIn(ns)) {
    PidStatus status;
    // The namespace is asked again after the status: a pid reused since the
    // walk belongs to another process.
    if (readPidStatus(pid, status, procRoot_) && status.innermostPid() == innerPid && !status.exited() &&
        readPidNamespace(std::to_string(pid), procRoot_) == ns) {
      return pid;
    }
  }
  return 0;
}

}  // namespace Proc
}  // namespace Beacon
