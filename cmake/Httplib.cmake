# cpp-httplib from Debian (libcpp-httplib-dev): a shared library,
# libcpp-httplib.so, behind a header of declarations only. The library was
# built with TLS, zlib and brotli support, and those switches change the
# layout of structs it shares with its callers, so its pkg-config flags (the
# same -D switches) reach every file that includes httplib.h through the
# target `heron_httplib`. Native builds only: there is no 32-bit library.
include_guard(GLOBAL)
find_package(PkgConfig REQUIRED)
pkg_check_modules(HERON_HTTPLIB REQUIRED IMPORTED_TARGET GLOBAL cpp-httplib)
find_package(Threads REQUIRED)
add_library(heron_httplib INTERFACE)
target_link_libraries(heron_httplib INTERFACE PkgConfig::HERON_HTTPLIB Threads::Threads)
