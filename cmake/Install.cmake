# Installation and the Debian package.
#
#   cmake --install build [--prefix DIR]
#
# puts in place: bin/heron, bin/heron-sim, lib/libheron.so*, lib/libheronrt.a,
# the runtime headers under include/heron/ and, beside them, Heron/Heron.h
# (what libheron.so exports), the CMake package (heronConfig.cmake, targets
# heron::heronrt and heron::heron) under lib/cmake/heron/, the man pages, the
# bash completions (one file per command, named after it, so that
# bash-completion loads each on demand), the Prometheus alert and recording
# rules with their unit tests under share/heron/prometheus/ and an example
# Prometheus configuration under share/doc/heron/examples/prometheus/.
# When the build has heron-stat it also installs bin/heron-stat, its man page
# and completion, and the systemd unit lib/systemd/system/heron-stat.service.
# A writer project then does:
#
#   find_package(heron REQUIRED)
#   target_link_libraries(mywriter PRIVATE heron::heronrt)
#
# and a program that runs the utility in its own process:
#
#   target_link_libraries(myprogram PRIVATE heron::heron)   # Heron::main
#
# `cpack --config build/CPackConfig.cmake` (from the build directory) makes the
# Debian package.
include(CMakePackageConfigHelpers)

set(HERON_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/heron)

install(TARGETS heron_launcher heron-sim RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
# heron::heron: the shared library and the one header that declares what it
# exports (which includes some of the runtime headers).
target_include_directories(heron INTERFACE
  $<BUILD_INTERFACE:${CMAKE_SOURCE_DIR}/src>
  $<BUILD_INTERFACE:${CMAKE_SOURCE_DIR}/platform/include>
  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/heron>)
install(TARGETS heron EXPORT heronTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT tools)
install(FILES ${CMAKE_SOURCE_DIR}/src/Heron/Heron.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/heron/Heron
  COMPONENT runtime)
install(TARGETS heronrt heron_fmt EXPORT heronTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime)
install(DIRECTORY ${CMAKE_SOURCE_DIR}/platform/include/
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/heron COMPONENT runtime
  FILES_MATCHING PATTERN "*.h")
install(EXPORT heronTargets NAMESPACE heron:: DESTINATION ${HERON_CMAKE_DIR} COMPONENT runtime)

configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/heronConfig.cmake.in
  ${CMAKE_BINARY_DIR}/heronConfig.cmake INSTALL_DESTINATION ${HERON_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/heronConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_BINARY_DIR}/heronConfig.cmake ${CMAKE_BINARY_DIR}/heronConfigVersion.cmake
  DESTINATION ${HERON_CMAKE_DIR} COMPONENT runtime)

# heron-stat is built natively only (and comes with its own sources), so
# everything of it is installed when its target exists.
set(HERON_COMMANDS heron heron-sim)
if(TARGET heron-stat)
  install(TARGETS heron-stat RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  list(APPEND HERON_COMMANDS heron-stat)
  # The unit names the program where this install puts it: made when
  # installing, since `cmake --install --prefix` and the package (/usr) may
  # each choose another prefix than the one configured. Each prefix gets a
  # copy of its own, so that two installs at once cannot mix them up.
  install(CODE "set(HERON_STAT_PROGRAM \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}/heron-stat\")
    string(MD5 prefix_id \"\${CMAKE_INSTALL_PREFIX}\")
    set(unit \"${CMAKE_BINARY_DIR}/systemd/\${prefix_id}/heron-stat.service\")
    configure_file(\"${CMAKE_SOURCE_DIR}/docs/systemd/heron-stat.service.in\" \"\${unit}\" @ONLY)
    file(INSTALL \"\${unit}\" DESTINATION \"\${CMAKE_INSTALL_PREFIX}/lib/systemd/system\")" COMPONENT tools)
endif()
foreach(command ${HERON_COMMANDS})
  if(EXISTS ${CMAKE_SOURCE_DIR}/docs/${command}.1)
    install(FILES ${CMAKE_SOURCE_DIR}/docs/${command}.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
  endif()
  if(EXISTS ${CMAKE_SOURCE_DIR}/completion/${command}.bash)
    install(FILES ${CMAKE_SOURCE_DIR}/completion/${command}.bash
      DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME ${command} COMPONENT tools)
  endif()
endforeach()
install(FILES ${CMAKE_SOURCE_DIR}/docs/prometheus/prometheus.yml
  DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples/prometheus COMPONENT tools)
# The JSON Schema of heron-stat --json.
install(FILES ${CMAKE_SOURCE_DIR}/docs/heron-stat.schema.json DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT tools)
# The rules with their unit tests, which run where they are installed.
install(FILES ${CMAKE_SOURCE_DIR}/docs/prometheus/heron-alerts.yml ${CMAKE_SOURCE_DIR}/docs/prometheus/heron-alerts-idle.yml
  ${CMAKE_SOURCE_DIR}/docs/prometheus/heron-alerts.test.yml
  DESTINATION ${CMAKE_INSTALL_DATADIR}/heron/prometheus COMPONENT tools)

# Debian package: one package holding everything above, installed under /usr.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME heron)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "heron maintainers <heron@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "passive inspector of heron shared-memory collections, with its runtime")
set(CPACK_PACKAGE_DESCRIPTION "heron reads a heron collection (tables of shared-memory region files and
notification queues) without writing to it and reports headers, statistics,
contents and the processes attached. The package also carries heron-sim,
which builds live demo collections, heron-stat (when built), a live view of
every table's health for scripts and Prometheus with a systemd unit and
example alert rules, and the C++ runtime with its headers and CMake package
for writing tables.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
# Installs with CMAKE_INSTALL_PREFIX=/usr under a DESTDIR, so that what is
# made at install time (the systemd unit) names /usr, not the staging area.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libfmt-dev (>= 9)")
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_STRIP_FILES OFF)
include(CPack)
