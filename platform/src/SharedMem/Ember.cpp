#include "SharedMem/Ember.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>

#include "Beacon/ProcPid.h"
#include "Beacon/SharedWord.h"
#include "Beacon/UniqueFd.h"
#include "Beacon/Util.h"

namespace SharedMem {

LoadStatus readEmber(const Mem::RootPath& root, EmberHeader& out) {
  std::string path = root.fullPath("ember");
  std::string error;
  const Beacon::UniqueFd fd(Beacon::Util::openRegularFile(path, error));
  if (!fd.valid()) {
    return LoadStatus::NotReady;
  }
  EmberHeader loaded{};
  ssize_t n = ::pread(fd.get(), &loaded, sizeof loaded, 0);
  if (n != static_cast<ssize_t>(sizeof loaded)) {
    return LoadStatus::NotReady;
  }
  if (loaded.magic != EmberHeader::kMagic) {
    return LoadStatus::Corrupt;
  }
  if (loaded.version != EmberHeader::kVersion) {
    return LoadStatus::Incompatible;
  }
  out = loaded;
  return LoadStatus::Ok;
}

EmberWriter::EmberWriter(Beacon::Platform::DebugHandler& handler, const Mem::RootPath& root)
    : Beacon::Debuggable(handler), root_(root), file_(handler, root.fullPath("ember")) {}

bool EmberWriter::open(std::string& error) {
  std::string path = root_.fullPath("ember");
  bool fresh = ::access(path.c_str(), F_OK) != 0;
  if (fresh && !Mem::SharedMemWrapper::createFile(path, sizeof(EmberHeader), error)) {
    return false;
  }
  if (file_.attach(sizeof(EmberHeader), Mem::Mode::ReadWrite, nullptr) == nullptr) {
    error = path + ": " + file_.lastError();
    return false;
  }
  header_ = static_cast<EmberHeader*>(file_.writableBase());
  auto pid = static_cast<std::uint32_t>(::getpid());
  if (fresh || header_->magic != EmberHeader::kMagic || header_->version != EmberHeader::kVersion) {
    // A new identity: everything but the fields set below is zero.
    std::memset(static_cast<void*>(header_), 0, sizeof *header_);
    header_->version = EmberHeader::kVersion;
    header_->current = EmberId{static_cast<std::uint16_t>(pid & 0xFFFFU), 0};
    header_->restarts = 0;
  } else {
    // A restart on the same table: a new instance of the same identity.
    header_->current = EmberId{static_cast<std::uint16_t>(pid & 0xFFFFU),
                               static_cast<std::uint16_t>(header_->current.instanceId + 1U)};
    header_->restarts = header_->restarts + 1U;
  }
  header_->writerPid = pid;
  header_->startedNs = nowNs();
  header_->heartbeatNs = header_->startedNs;
  header_->heartbeatMonoNs = monoNs();
  header_->pidNamespace = Beacon::Proc::readPidNamespace("self");
  // The magic last: a reader that sees it sees the rest.
  Beacon::Shared::store64(header_, offsetof(EmberHeader, magic), EmberHeader::kMagic);
  return true;
}

EmberId EmberWriter::id() const { return header_ != nullptr ? header_->current : EmberId{0, 0}; }

void EmberWriter::heartbeat() {
  if (header_ != nullptr) {
    // Monotonic first: a reader that sees the new wall beat also sees the
    // monotonic one it was taken with (or a newer one).
    Beacon::Shared::store64(header_, offsetof(EmberHeader, heartbeatMonoNs), monoNs());
    Beacon::Shared::store64(header_, offsetof(EmberHeader, heartbeatNs), nowNs());
  }
}

}  // namespace SharedMem
