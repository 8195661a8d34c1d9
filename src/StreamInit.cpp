// Makes sure the standard streams exist before any ordinary (unprioritised)
// static object of the library that might print while it is built. The shared
// "HeronScanner" handler (priority 60000) is built just before this; it traces
// through stdio, not the streams, so it needs nothing from here.
#include <iostream>

namespace {
__attribute__((init_priority(60001))) std::ios_base::Init streamsInit;
}  // namespace
