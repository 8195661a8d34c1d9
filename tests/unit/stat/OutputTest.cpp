// Where heron-stat writes: a report never replaces what is not a regular
// file, a reader that stops reading cannot hold a stop signal back, and the
// collection root is compared by whole path components.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "Output.h"

namespace {

// A fresh directory under /tmp, removed on destruction with what the tests
// put in it: files, FIFOs, links, and directories that hold at most an owner
// file.
class ScratchDir {
 public:
  ScratchDir() {
    char name[] = "/tmp/heron-stat-output.XXXXXX";
    char resolved[PATH_MAX];
    if (::mkdtemp(name) != nullptr && ::realpath(name, resolved) != nullptr) {
      path_ = resolved;
    }
  }
  ~ScratchDir() {
    for (const std::string& entry : entries()) {
      if (::unlink(file(entry).c_str()) != 0) {
        ::unlink(file(entry + "/owner").c_str());
        ::rmdir(file(entry).c_str());
      }
    }
    ::rmdir(path_.c_str());
  }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;

  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }
  // The names in the directory, sorted.
  std::vector<std::string> entries() const {
    std::vector<std::string> names;
    DIR* dir = ::opendir(path_.c_str());
    while (dir != nullptr) {
      const struct dirent* entry = ::readdir(dir);
      if (entry == nullptr) {
        break;
      }
      const std::string name = entry->d_name;
      if (name != "." && name != "..") {
        names.push_back(name);
      }
    }
    if (dir != nullptr) {
      ::closedir(dir);
    }
    std::sort(names.begin(), names.end());
    return names;
  }

 private:
  std::string path_;
};

std::string contents(const std::string& path) {
  std::ifstream in(path);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// A pipe whose two ends close with the object.
class Pipe {
 public:
  Pipe() {
    if (::pipe2(fds_, O_CLOEXEC) != 0) {
      fds_[0] = fds_[1] = -1;
    }
  }
  ~Pipe() {
    for (int fd : fds_) {
      if (fd >= 0) {
        ::close(fd);
      }
    }
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;

  int readEnd() const { return fds_[0]; }
  int writeEnd() const { return fds_[1]; }
  void closeReadEnd() {
    ::close(fds_[0]);
    fds_[0] = -1;
  }
  // Writes until the pipe is full, then leaves the write end blocking again.
  bool fill() const {
    const int flags = ::fcntl(fds_[1], F_GETFL);
    ::fcntl(fds_[1], F_SETFL, flags | O_NONBLOCK);
    const std::string chunk(4096, 'x');
    while (::write(fds_[1], chunk.data(), chunk.size()) > 0) {
    }
    const bool full = errno == EAGAIN;
    ::fcntl(fds_[1], F_SETFL, flags);
    return full;
  }

 private:
  int fds_[2] = {-1, -1};
};

TEST(StatOutput, AStopEndsAWriteThatTheReaderDoesNotTake) {
  Pipe out;
  Pipe stop;
  ASSERT_TRUE(out.fill());
  ASSERT_EQ(::write(stop.writeEnd(), "s", 1), 1);
  std::string error;
  // Without a stop this write would block for ever.
  EXPECT_EQ(Stat::writeUnlessStopped(out.writeEnd(), std::string(10000, 'y'), stop.readEnd(), error),
            Stat::Written::Stopped);
}

TEST(StatOutput, AReaderThatTakesItGetsTheWholeDocumentDespiteAStop) {
  Pipe out;
  Pipe stop;
  ASSERT_EQ(::write(stop.writeEnd(), "s", 1), 1);
  const std::string text(20000, 'z');
  std::string error;
  EXPECT_EQ(Stat::writeUnlessStopped(out.writeEnd(), text, stop.readEnd(), error), Stat::Written::All);
  std::string got(text.size() + 1, '\0');
  EXPECT_EQ(::read(out.readEnd(), &got[0], got.size()), static_cast<ssize_t>(text.size()));
}

TEST(StatOutput, AWriteToAClosedReaderFailsWithTheSystemsWords) {
  ::signal(SIGPIPE, SIG_IGN);
  Pipe out;
  out.closeReadEnd();
  std::string error;
  EXPECT_EQ(Stat::writeUnlessStopped(out.writeEnd(), "text\n", -1, error), Stat::Written::Failed);
  EXPECT_EQ(error, "Broken pipe");
}

TEST(StatOutput, InsideTheRootComparesWholeComponents) {
  ScratchDir dir;
  const std::string root = dir.file("heron");
  ASSERT_EQ(::mkdir(root.c_str(), 0755), 0);
  ASSERT_EQ(::mkdir(dir.file("heron-other").c_str(), 0755), 0);
  EXPECT_FALSE(Stat::insideRoot(dir.file("heron-other/x"), root));
  EXPECT_FALSE(Stat::insideRoot(root + "/../x", root));
  EXPECT_FALSE(Stat::insideRoot(root + "/missing/../../x", root));
  EXPECT_TRUE(Stat::insideRoot(root + "/missing/x", root));
  EXPECT_TRUE(Stat::insideRoot(root + "/missing/../x", root));
  EXPECT_TRUE(Stat::insideRoot(dir.file("heron-other/../heron/x"), root));
  EXPECT_TRUE(Stat::insideRoot(root, root));
  // A root that does not exist yet is compared the same way.
  const std::string absent = dir.file("absent");
  EXPECT_FALSE(Stat::insideRoot(absent + "/../x", absent));
  EXPECT_FALSE(Stat::insideRoot(dir.file("absent-other/x"), absent));
  EXPECT_TRUE(Stat::insideRoot(absent + "/sub/x", absent));
  // Through a symbolic link to the root.
  ASSERT_EQ(::symlink(root.c_str(), dir.file("link").c_str()), 0);
  EXPECT_TRUE(Stat::insideRoot(dir.file("link/x"), root));
}

TEST(StatOutput, ResolvedPathTakesOutDotsAndSlashes) {
  ScratchDir dir;
  EXPECT_EQ(Stat::resolvedPath(dir.path() + "//a/./b/../c"), dir.file("a/c"));
  EXPECT_EQ(Stat::resolvedPath("/.."), "/");
}

TEST(StatOutput, OnlyARegularFileOutsideRootAndTablesMayBeReplaced) {
  ScratchDir dir;
  const std::string root = dir.file("root");
  ASSERT_EQ(::mkdir(root.c_str(), 0755), 0);
  EXPECT_EQ(Stat::refusedOutput(dir.file("new.prom"), root), "");
  ASSERT_EQ(::mkfifo(dir.file("fifo").c_str(), 0644), 0);
  EXPECT_EQ(Stat::refusedOutput(dir.file("fifo"), root), "which is not a regular file");
  EXPECT_EQ(Stat::refusedOutput("/dev/null", root), "which is not a regular file");
  EXPECT_EQ(Stat::refusedOutput(dir.path(), root), "which is not a regular file");
  EXPECT_EQ(Stat::refusedOutput(root + "/x", root), "inside the collection root");
  // A table of another collection: its directory holds an owner file.
  const std::string table = dir.file("t");
  ASSERT_EQ(::mkdir(table.c_str(), 0755), 0);
  const int owner = ::open((table + "/owner").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  ASSERT_GE(owner, 0);
  ::close(owner);
  EXPECT_EQ(Stat::refusedOutput(table + "/relay.1", root), "inside a table's directory");
  // A hard link, outside the root, to a file under it.
  const int file = ::open((root + "/relay.1").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  ASSERT_GE(file, 0);
  ::close(file);
  ASSERT_EQ(::link((root + "/relay.1").c_str(), dir.file("link.prom").c_str()), 0);
  EXPECT_EQ(Stat::refusedOutput(dir.file("link.prom"), root), "which is a table's file");
  ASSERT_EQ(::unlink((root + "/relay.1").c_str()), 0);
}

TEST(StatOutput, ReplaceFileLeavesAFifoAloneAndNoTemporaryBehind) {
  ScratchDir dir;
  const std::string fifo = dir.file("heron.prom");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0644), 0);
  std::string error;
  EXPECT_FALSE(Stat::replaceFile(fifo, "heron_stat_tables 1\n", error));
  EXPECT_EQ(error, fifo + ": not a regular file any more");
  struct stat st {};
  ASSERT_EQ(::lstat(fifo.c_str(), &st), 0);
  EXPECT_TRUE(S_ISFIFO(st.st_mode));
  EXPECT_EQ(dir.entries(), std::vector<std::string>{"heron.prom"}) << "a temporary file was left behind";
}

TEST(StatOutput, ReplaceFileReplacesARegularFile) {
  ScratchDir dir;
  const std::string file = dir.file("heron.prom");
  std::string error;
  ASSERT_TRUE(Stat::replaceFile(file, "old\n", error)) << error;
  ASSERT_TRUE(Stat::replaceFile(file, "new\n", error)) << error;
  EXPECT_EQ(contents(file), "new\n");
}

}  // namespace
