// Makes sure the standard streams exist before any static object of the
// library that might print during its construction.
#include <iostream>

namespace {
__attribute__((init_priority(60001))) std::ios_base::Init streamsInit;
}  // namespace
