// The `owner` file of a table directory: 128 bytes, written once by the
// creating writer, read by everyone else with pread (never mapped).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "Beacon/Debuggable.h"
#include "Beacon/Magic.h"
#include "Mem/RootPath.h"
#include "SharedMem/EmberId.h"
#include "SharedMem/LoadStatus.h"
#include "SharedMem/SharedMemType.h"

namespace SharedMem {

class OwnerFile : public Beacon::Debuggable {
 public:
  static constexpr unsigned long long kMagic = Beacon::Util::encodeMagic("HRNOWNER");
  static constexpr std::uint32_t kVersion = 1;

  struct alignas(8) Header {
    std::uint64_t magic;
    std::uint32_t version;
    std::uint32_t sharedMemType;
    std::uint32_t ownerPid;
    EmberId ember;
    std::uint64_t createdNs;
    char typeName[32];
    char hostname[64];

    // "Owner file:" then one line per field, each "\t<Field>: <value>"
    // (magic in hexadecimal with its text, type number with its name,
    // creation time in ns); no line end after the last line.
    std::string toPrettyString() const;
  };

  // Reader (writer == false): loads the header once, read-only. The writer
  // flag is reserved for the writer side and not used by readers.
  OwnerFile(Beacon::Platform::DebugHandler& handler, const Mem::RootPath& root, bool writer);

  LoadStatus status() const { return status_; }
  // The owner's type text; "" when the header is not readable.
  std::string typeName() const;
  // Unknown when the header is not readable.
  SharedMemType sharedMemType() const;
  // Copies the header; false when it is not readable.
  bool header(Header& out) const;

  // Writer side: creates `root`/owner (the directory must exist, the file
  // must not). Returns false with `error` set on failure, also when the
  // table's path is refused by Mem::checkTablePath (blanks, control
  // characters, backslashes).
  static bool create(const Mem::RootPath& root, SharedMemType type, const std::string& typeName, EmberId ember,
                     std::string& error);

 private:
  Header header_{};
  LoadStatus status_ = LoadStatus::NotReady;
};

static_assert(sizeof(OwnerFile::Header) == 128, "owner header is 128 bytes");
static_assert(offsetof(OwnerFile::Header, version) == 8, "owner layout");
static_assert(offsetof(OwnerFile::Header, sharedMemType) == 12, "owner layout");
static_assert(offsetof(OwnerFile::Header, ownerPid) == 16, "owner layout");
static_assert(offsetof(OwnerFile::Header, ember) == 20, "owner layout");
static_assert(offsetof(OwnerFile::Header, createdNs) == 24, "owner layout");
static_assert(offsetof(OwnerFile::Header, typeName) == 32, "owner layout");
static_assert(offsetof(OwnerFile::Header, hostname) == 64, "owner layout");

}  // namespace SharedMem
