#include "SharedMem/OwnerFile.h"

#include <fcntl.h>
#include <fmt/ostream.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "Beacon/Clock.h"
#include "Beacon/Trace.h"
#include "Beacon/UniqueFd.h"
#include "Beacon/Util.h"

namespace SharedMem {

namespace {

std::string fixedText(const char* field, std::size_t size) { return std::string(field, strnlen(field, size)); }

}  // namespace

std::string OwnerFile::Header::toPrettyString() const {
  // Both texts come from the file: anything in them but printable ASCII is
  // shown escaped.
  std::string type = Beacon::Util::escapeText(fixedText(typeName, sizeof typeName));
  std::string host = Beacon::Util::escapeText(fixedText(hostname, sizeof hostname));
  return fmt::format(
      "Owner file:\n"
      "\tMagic: 0x{:x} (\"{}\")\n"
      "\tVersion: {}\n"
      "\tType: {} ({})\n"
      "\tType name: {}\n"
      "\tOwner pid: {}\n"
      "\tEmber: {}.{}\n"
      "\tCreated: {} ns\n"
      "\tHost: {}",
      magic, Beacon::Util::decodeMagic(magic), version, sharedMemType,
      fmt::streamed(static_cast<SharedMemType>(sharedMemType)), type, ownerPid, ember.pid, ember.instanceId, createdNs,
      host);
}

OwnerFile::OwnerFile(Beacon::Platform::DebugHandler& handler, const Mem::RootPath& root, bool)
    : Beacon::Debuggable(handler) {
  std::string path = root.fullPath("owner");
  std::string error;
  const Beacon::UniqueFd fd(Beacon::Util::openRegularFile(path, error));
  if (!fd.valid()) {
    Beacon::fmtrace(handler, 5, __FILE__, __func__, __LINE__, "OwnerFile", "cannot open {}: {}", path, error);
    return;
  }
  Header loaded{};
  ssize_t n = ::pread(fd.get(), &loaded, sizeof loaded, 0);
  if (n != static_cast<ssize_t>(sizeof loaded)) {
    status_ = LoadStatus::NotReady;
  } else if (loaded.magic != kMagic) {
    status_ = LoadStatus::Corrupt;
  } else if (loaded.version != kVersion) {
    status_ = LoadStatus::Incompatible;
  } else {
    status_ = LoadStatus::Ok;
    header_ = loaded;
  }
  if (status_ != LoadStatus::Ok) {
    Beacon::fmtrace(handler, 5, __FILE__, __func__, __LINE__, "OwnerFile", "{} unreadable ({})", path,
                    static_cast<int>(status_));
  }
}

std::string OwnerFile::typeName() const {
  return status_ == LoadStatus::Ok ? fixedText(header_.typeName, sizeof header_.typeName) : std::string();
}

SharedMemType OwnerFile::sharedMemType() const {
  return status_ == LoadStatus::Ok ? static_cast<SharedMemType>(header_.sharedMemType) : Unknown;
}

bool OwnerFile::header(Header& out) const {
  if (status_ != LoadStatus::Ok) {
    return false;
  }
  out = header_;
  return true;
}

bool OwnerFile::create(const Mem::RootPath& root, SharedMemType type, const std::string& typeName, EmberId ember,
                       std::string& error) {
  // The owner file is what makes a directory a table: no table is made
  // under a name the client reports could not attribute.
  if (!Mem::checkTablePath(root.path(), error)) {
    return false;
  }
  Header header{};
  header.magic = kMagic;
  header.version = kVersion;
  header.sharedMemType = type;
  header.ownerPid = static_cast<std::uint32_t>(::getpid());
  header.ember = ember;
  header.createdNs = Beacon::nowNs();
  std::strncpy(header.typeName, typeName.c_str(), sizeof header.typeName - 1);
  ::gethostname(header.hostname, sizeof header.hostname - 1);

  std::string path = root.fullPath("owner");
  // Written under a temporary name and renamed, so a reader never sees a
  // half-written owner file.
  std::string temporary = path + ".tmp";
  Beacon::UniqueFd fd(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
  if (!fd.valid()) {
    error = temporary + ": " + std::strerror(errno);
    return false;
  }
  bool ok = ::write(fd.get(), &header, sizeof header) == static_cast<ssize_t>(sizeof header);
  // Closed by hand: a written file whose close fails is not made the owner.
  ok = (::close(fd.release()) == 0) && ok;
  if (ok && ::link(temporary.c_str(), path.c_str()) != 0) {
    error = path + ": " + std::strerror(errno);
    ok = false;
  } else if (!ok) {
    error = temporary + ": short write";
  }
  ::unlink(temporary.c_str());
  return ok;
}

}  // namespace SharedMem
