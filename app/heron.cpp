// The heron launcher: everything lives in libheron.so.
#include "HeronScanner.h"

int main(int argc, char** argv) { return Heron::main(argc, argv); }
