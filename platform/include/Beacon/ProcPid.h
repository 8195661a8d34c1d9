// Who a process is across PID namespaces, read from /proc: the inode of its
// PID namespace (/proc/PID/ns/pid) and its pids from the outermost namespace
// this /proc shows down to its own (NSpid in /proc/PID/status).
//
// A table's writer records the pids it sees, which are not the host's when
// it runs in a container; these readers turn them into the process that can
// be signalled from here. Every function takes the /proc to read (`procRoot`)
// so that tests can hand it a fake one.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "Beacon/Platform.h"

namespace Beacon {
namespace Proc {

// The inode of the initial PID namespace: fixed by the kernel, so a process
// that sees it as its own sees every process of the machine.
constexpr std::uint64_t kInitialPidNamespace = 0xEFFFFFFCULL;

// How reading one process's namespace went.
enum class Access { Read, Gone, Denied };

// The inode number of `<procRoot>/<pid>/ns/pid` (a link whose text is
// "pid:[N]"); `pid` may be "self". 0 when it cannot be read; `access` (when
// given) says whether the process is gone (or has no such link) or the link
// was refused (another user's process, without CAP_SYS_PTRACE).
std::uint64_t readPidNamespace(const std::string& pid, const std::string& procRoot = "/proc", Access* access = nullptr);

// What /proc/PID/status says about a process's identity.
struct PidStatus {
  char state = 0;  // 'R', 'S', 'Z' ... ; 0 when not read
  // The NSpid line: the pid in this /proc's namespace first, the innermost
  // (the process's own view) last. A kernel without the line gives the Pid
  // line alone.
  std::vector<std::uint32_t> nsPids;

  std::uint32_t innermostPid() const { return nsPids.empty() ? 0 : nsPids.back(); }
  // A zombie (killed, not yet reaped) or dead task is no live process.
  bool exited() const { return state == 'Z' || state == 'X'; }
};

// Reads `<procRoot>/<pid>/status`; false when it cannot be read.
bool readPidStatus(int pid, PidStatus& out, const std::string& procRoot = "/proc");

// The processes of every PID namespace this /proc shows, from one walk made
// on first use. Used once per sample and dropped: a process that starts
// afterwards is not in it.
class PidNamespaceIndex {
 public:
  explicit PidNamespaceIndex(Platform::DebugHandler& handler, std::string procRoot = "/proc");

  // This process's own PID namespace (read once); 0 when unreadable.
  std::uint64_t own();
  // Host pids (as this /proc numbers them) of the processes whose namespace
  // is `ns`, in walk order.
  const std::vector<int>& processesIn(std::uint64_t ns);
  // False when the namespace of some process below this /proc's own could
  // not be read (its link refused: another user's process, without
  // CAP_SYS_PTRACE): a namespace with no process in the index may then still
  // have some. A refused process with a single pid is in this /proc's own
  // namespace and counts there.
  bool complete();
  // The live process of namespace `ns` whose innermost pid is `innerPid`:
  // its pid as this /proc numbers it, or 0 when there is none.
  int find(std::uint64_t ns, std::uint32_t innerPid);

 private:
  void walk();

  Platform::DebugHandler& handler_;
  std::string procRoot_;
  bool walked_ = false;
  bool complete_ = true;
  bool ownRead_ = false;
  std::uint64_t own_ = 0;
  std::unordered_map<std::uint64_t, std::vector<int>> byNamespace_;
  const std::vector<int> none_;
};

}  // namespace Proc
}  // namespace Beacon
