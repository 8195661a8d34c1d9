# libmicrohttpd from Debian (libmicrohttpd-dev), found with pkg-config, for
# heron-stat's HTTP server: the target `heron_microhttpd`. Native builds
# only: there is no 32-bit library.
include_guard(GLOBAL)
find_package(PkgConfig REQUIRED)
pkg_check_modules(HERON_MICROHTTPD REQUIRED IMPORTED_TARGET GLOBAL libmicrohttpd)
find_package(Threads REQUIRED)
add_library(heron_microhttpd INTERFACE)
target_link_libraries(heron_microhttpd INTERFACE PkgConfig::HERON_MICROHTTPD Threads::Threads)
