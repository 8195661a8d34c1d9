// Where a report goes: standard output, or the file named with -f.
//
// The one place that opens a report's output. A named file is refused, as a
// file that cannot be opened is ("Error opening " + name), when it is or
// would be created inside one of the protected directories (the collection
// root, the table's directory) or when it lies in any table's directory,
// wherever that is: heron never writes into a table. The check resolves
// symbolic links first; a dangling link is refused, since opening it would
// create its target. A file that is not a regular file (a FIFO, a device) is
// refused without waiting, and so is a file that is one of the files under a
// protected directory by another name (a hard link).
//
// Every report writes through stream(), and every write to it is checked:
// the readers that print a section are handed this stream (the region
// scanner too, see QuarryScannerBase::writeTo). Standard output is reached
// through a checking buffer in front of the buffer std::cout writes to,
// which is left in place: a caller's redirection of std::cout still holds,
// the run-as-root warning that goes to std::cout keeps its order, and no
// other thread ever sees std::cout change under it. finish() flushes and
// reports the first failed write as one line,
// "Error writing <output>: <system error>".
#pragma once

#include <sys/stat.h>

#include <ostream>
#include <streambuf>
#include <string>
#include <vector>

#include "Beacon/UniqueFd.h"

namespace Heron {

// A write-only stream buffer on a file descriptor that remembers the first
// failed write's errno.
class DescriptorBuffer : public std::streambuf {
 public:
  DescriptorBuffer() { setp(buffer_, buffer_ + sizeof buffer_); }
  DescriptorBuffer(const DescriptorBuffer&) = delete;
  DescriptorBuffer& operator=(const DescriptorBuffer&) = delete;
  ~DescriptorBuffer() override = default;

  void attach(int fd) { fd_ = fd; }
  // errno of the first failed write, 0 when every write succeeded.
  int error() const { return error_; }

 protected:
  int_type overflow(int_type c) override;
  int sync() override;

 private:
  bool drain();

  int fd_ = -1;
  int error_ = 0;
  char buffer_[8192];
};

// Hands every write on to `target` and remembers the errno of the first one
// that failed.
class CheckingBuffer : public std::streambuf {
 public:
  explicit CheckingBuffer(std::streambuf* target) : target_(target) {}
  CheckingBuffer(const CheckingBuffer&) = delete;
  CheckingBuffer& operator=(const CheckingBuffer&) = delete;
  ~CheckingBuffer() override = default;

  int error() const { return error_; }

 protected:
  int_type overflow(int_type c) override;
  std::streamsize xsputn(const char* text, std::streamsize count) override;
  int sync() override;

 private:
  void record();

  std::streambuf* target_;
  int error_ = 0;
};

class ReportOutput {
 public:
  // Standard output until open() names a file.
  ReportOutput();
  ~ReportOutput();
  ReportOutput(const ReportOutput&) = delete;
  ReportOutput& operator=(const ReportOutput&) = delete;

  // An empty name keeps standard output. Otherwise the file is created or
  // truncated. False after "Error opening " + name on standard error.
  bool open(const std::string& name, const std::vector<std::string>& protectedDirs);
  std::ostream& stream() { return *stream_; }
  bool isFile() const { return stream_ == &file_; }
  // The file open() opened, "" for standard output.
  const std::string& fileName() const { return fileName_; }
  // The name the error line uses: the file name or "standard output".
  const std::string& name() const { return name_; }
  // Flushes; false after "Error writing <output>: <error>" when any write
  // failed.
  bool finish();

 private:
  // The first failed write of std::cout itself (the run-as-root warning),
  // when it went bad while this object lived.
  int coutError();

  CheckingBuffer stdoutBuffer_;
  std::ostream stdout_{&stdoutBuffer_};
  DescriptorBuffer fileBuffer_;
  std::ostream file_{&fileBuffer_};
  std::ostream* stream_;
  bool coutWasGood_;
  Beacon::UniqueFd fd_;  // the named file's; closed after the final flush
  std::string fileName_;
  std::string name_ = "standard output";
};

// True when `name`, resolved, is or would be inside one of `protectedDirs`,
// or lies in a table's directory (one that holds an `owner` file); also true
// for a dangling symbolic link.
bool isProtectedOutput(const std::string& name, const std::vector<std::string>& protectedDirs);

// True when the file `st` describes is one of the files under `dirs` (on
// their own file systems), by whatever name it was reached: a hard link made
// elsewhere to a table's file is that file.
bool isFileUnder(const struct stat& st, const std::vector<std::string>& dirs);

}  // namespace Heron
