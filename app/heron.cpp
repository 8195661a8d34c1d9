// The heron launcher: everything lives in libheron.so.
//
// Heron::main lets an exception from a platform call pass out after its stack
// objects are destroyed (for example when a process maps heron files that lie
// directly in the collection root, so no table name follows the root path).
// The launcher turns that into one line on standard error and status 1, so an
// operator never sees an abort.
#include <exception>
#include <iostream>

#include "HeronScanner.h"

int main(int argc, char** argv) {
  try {
    return Heron::main(argc, argv);
  } catch (const std::exception& error) {
    std::cout.flush();
    std::cerr << "heron: unexpected error: " << error.what() << std::endl;
  } catch (...) {
    std::cout.flush();
    std::cerr << "heron: unexpected error" << std::endl;
  }
  return 1;
}
