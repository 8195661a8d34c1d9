// A program a test starts and talks to while it runs: a writer or a shadow
// that stays up for the length of the test, or a short command (run() in
// Run.h is built on this). Code of the test itself that must run as a
// process of its own (a writer at full speed, a server) runs the same way,
// in a forked copy of the test process.
//
// No shell is involved. The child gets exactly the environment it is given
// (plus the sanitizer options of the test process), standard input from
// /dev/null, and its standard output and standard error in two pipes that
// the test reads only while it waits on the child, each wait with a
// deadline. A child still running on destruction is killed and reaped.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace HeronTest {

struct RunResult {
  std::string out;        // standard output, byte for byte
  std::string err;        // standard error, byte for byte
  int status = -1;        // exit status when the child exited, else -1
  int signal = 0;         // the signal that ended the child, else 0
  bool timedOut = false;  // killed after the time limit

  bool exited() const { return signal == 0 && !timedOut && status >= 0; }
  // "status N" / "signal N" / "timed out", for failure messages.
  std::string describe() const;
};

// What a child gets beyond the defaults.
struct ChildOptions {
  std::string cwd;    // working directory, when not empty
  std::string argv0;  // what the child sees as argv[0], when not empty
  // Standard output: the pipe the test reads, closed, or opened (for
  // writing, not created) on a file such as /dev/full.
  enum class Output { Captured, Closed, File } output = Output::Captured;
  std::string outputFile;
  // No file may grow (RLIMIT_FSIZE 0, SIGXFSZ ignored): every write to a
  // regular file fails with EFBIG.
  bool noFileGrowth = false;
};

class Child {
 public:
  // argv[0] is the program: a path, or a bare name looked up in the test
  // process's PATH. It is also what the child sees as argv[0] unless `argv0`
  // is given. `env` holds "NAME=value" entries. `cwd`, when not empty, is
  // the child's working directory. When the constructor returns, the
  // program runs (started()) or could not be started (error()).
  Child(const std::vector<std::string>& argv, const std::vector<std::string>& env, const std::string& cwd = "",
        const std::string& argv0 = "");
  Child(const std::vector<std::string>& argv, const std::vector<std::string>& env, const ChildOptions& options);
  // Runs `body` in a forked copy of the test process, with the same
  // standard streams as a program; what it returns is the exit status.
  explicit Child(const std::function<int()>& body);
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  bool started() const { return pid_ > 0 && error_.empty(); }
  // Why the program could not be started ("" when it was).
  const std::string& error() const { return error_; }
  pid_t pid() const { return pid_; }

  // False once the child has ended (reaped: wait() then says how), without
  // reading its output or waiting.
  bool running();

  // Reads the child's output until its standard output holds `lines`
  // complete lines; false when it ends them or the time runs out first.
  bool waitForLines(std::size_t lines, double timeoutSeconds = 10);
  // What the child has said so far.
  const std::string& out() const { return result_.out; }
  const std::string& err() const { return result_.err; }

  // Reads everything the child says until it exits; after `timeoutSeconds`
  // it is killed and the result says it timed out.
  RunResult wait(double timeoutSeconds = 60);
  // Sends `signal`, then as wait().
  RunResult stop(int signal, double timeoutSeconds = 10);

 private:
  void start(const std::vector<std::string>& argv, const std::vector<std::string>& env, const ChildOptions& options);
  // Reads whatever the pipes hold, waiting at most until `deadline`; false
  // once both are closed.
  bool pump(double deadline);
  bool reap(double deadline);
  void record(int wstatus);
  void closePipes();

  pid_t pid_ = -1;
  bool reaped_ = false;
  int fds_[2] = {-1, -1};  // standard output, standard error
  std::string error_;
  RunResult result_;
};

}  // namespace HeronTest
