// The processes that map a table's files, for a bundle's manifest: one walk
// of /proc, reading each process's maps, status, command line and start.
#include <dirent.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <sstream>

#include "Capture.h"

namespace Stat {

namespace {

std::string readAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// The innermost pid of the NSpid line, 0 when there is none.
int namespacePid(int pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.compare(0, 6, "NSpid:") == 0) {
      const std::size_t last = line.find_last_of(" \t");
      return last == std::string::npos ? 0 : std::atoi(line.c_str() + last + 1);
    }
  }
  return 0;
}

double bootSeconds() {
  std::ifstream stat("/proc/stat");
  std::string key;
  double value = 0;
  while (stat >> key) {
    if (key == "btime" && (stat >> value)) {
      return value;
    }
    stat.ignore(1 << 16, '\n');
  }
  return 0;
}

// Since the epoch, from field 22 of /proc/PID/stat (after the command,
// which may hold spaces and parentheses).
double startedSeconds(int pid, double boot) {
  const std::string stat = readAll("/proc/" + std::to_string(pid) + "/stat");
  const std::size_t close = stat.rfind(')');
  if (close == std::string::npos) {
    return 0;
  }
  std::istringstream fields(stat.substr(close + 1));
  std::string field;
  for (int index = 3; index <= 22 && (fields >> field); ++index) {
    if (index == 22) {
      return boot + std::strtod(field.c_str(), nullptr) / static_cast<double>(::sysconf(_SC_CLK_TCK));
    }
  }
  return 0;
}

std::string commandLine(int pid) {
  std::string text = readAll("/proc/" + std::to_string(pid) + "/cmdline");
  while (!text.empty() && text.back() == '\0') {
    text.pop_back();
  }
  for (char& c : text) {
    c = c == '\0' ? ' ' : c;
  }
  return text;
}

std::string executable(int pid) {
  char target[4096] = {};
  const ssize_t length = ::readlink(("/proc/" + std::to_string(pid) + "/exe").c_str(), target, sizeof target - 1);
  return length > 0 ? std::string(target, static_cast<std::size_t>(length)) : std::string();
}

// The table a maps line's path lies in, by index; -1 for none.
int tableOf(const std::string& line, const std::vector<std::string>& prefixes) {
  const std::size_t slash = line.find(" /");
  if (slash == std::string::npos) {
    return -1;
  }
  const std::string path = line.substr(slash + 1);
  for (std::size_t i = 0; i < prefixes.size(); ++i) {
    if (path.compare(0, prefixes[i].size(), prefixes[i]) == 0 &&
        path.find('/', prefixes[i].size()) == std::string::npos) {
      return static_cast<int>(i);
    }
  }
  return -1;
}

}  // namespace

std::vector<std::vector<MappingProcess>> mappingProcesses(const std::vector<std::string>& tableDirs) {
  std::vector<std::vector<MappingProcess>> out(tableDirs.size());
  std::vector<std::string> prefixes;
  prefixes.reserve(tableDirs.size());
  for (const std::string& dir : tableDirs) {
    prefixes.push_back(dir + "/");
  }
  std::unique_ptr<DIR, int (*)(DIR*)> proc(::opendir("/proc"), ::closedir);
  if (!proc) {
    return out;
  }
  const int self = static_cast<int>(::getpid());
  const double boot = bootSeconds();
  while (const dirent* entry = ::readdir(proc.get())) {
    const int pid = std::atoi(entry->d_name);
    if (pid <= 0 || pid == self) {
      continue;
    }
    std::vector<std::vector<std::string>> lines(tableDirs.size());
    std::ifstream maps("/proc/" + std::to_string(pid) + "/maps");
    std::string line;
    while (std::getline(maps, line)) {
      const int table = tableOf(line, prefixes);
      if (table >= 0) {
        lines[static_cast<std::size_t>(table)].push_back(line);
      }
    }
    for (std::size_t i = 0; i < lines.size(); ++i) {
      if (lines[i].empty()) {
        continue;
      }
      MappingProcess process;
      process.pid = pid;
      process.namespacePid = namespacePid(pid);
      process.command = commandLine(pid);
      process.executable = executable(pid);
      process.startedSeconds = startedSeconds(pid, boot);
      process.maps = std::move(lines[i]);
      out[i].push_back(std::move(process));
    }
  }
  return out;
}

}  // namespace Stat
