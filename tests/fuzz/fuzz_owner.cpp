// The `owner` file, as every heron query loads it: the header, its type, its
// type text and its pretty form.
#include <cstddef>
#include <cstdint>

#include "FuzzSupport.h"
#include "SharedMem/OwnerFile.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  HeronFuzz::writeTableFile("owner", data, size);
  const Mem::RootPath root(HeronFuzz::tableDir().path());
  SharedMem::OwnerFile owner(HeronFuzz::handler(), root, false);
  HeronFuzz::NullStream out;
  out << owner.typeName() << static_cast<int>(owner.sharedMemType()) << static_cast<int>(owner.status());
  SharedMem::OwnerFile::Header header{};
  if (owner.header(header)) {
    out << header.toPrettyString();
  }
  return 0;
}
