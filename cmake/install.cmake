# SPDX-License-Identifier: MIT
# The files that `cmake --install` installs, in the directories of GNUInstallDirs. The man pages get their version from
# this build. The units and the pkg-config file also contain paths, so install_configured.cmake installs them.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)
set(unit_dir lib/systemd/system) # systemd reads units here, even where CMAKE_INSTALL_LIBDIR is not lib
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/dorve)

install(TARGETS dorve-client dorve-doctor dorve-server dorve-unpair RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
# Debian's Wireshark runs all Lua scripts in this directory.
install(FILES wireshark/dorve.lua DESTINATION ${CMAKE_INSTALL_LIBDIR}/wireshark/plugins)
foreach(program dorve-client dorve-doctor dorve-server dorve-unpair)
  install(FILES completions/dorve.bash DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME ${program})
endforeach()

foreach(page dorve-client.1 dorve-doctor.1 dorve-server.1 dorve-unpair.1 dorve.7 libdorve.3)
  configure_file(man/${page} ${PROJECT_BINARY_DIR}/man/${page} @ONLY)
  string(REGEX REPLACE ".*[.]" "" section ${page})
  install(FILES ${PROJECT_BINARY_DIR}/man/${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
endforeach()

foreach(variable PROJECT_SOURCE_DIR PROJECT_BINARY_DIR PROJECT_VERSION
        CMAKE_INSTALL_BINDIR CMAKE_INSTALL_INCLUDEDIR CMAKE_INSTALL_LIBDIR unit_dir)
  install(CODE "set(${variable} \"${${variable}}\")")
endforeach()
install(SCRIPT cmake/install_configured.cmake)
install(FILES systemd/dorve-.service.d/sandbox.conf DESTINATION ${unit_dir}/dorve-.service.d)
install(FILES systemd/80-dorve.preset DESTINATION lib/systemd/system-preset)
install(DIRECTORY docs/examples DESTINATION ${CMAKE_INSTALL_DOCDIR})

# The library, for find_package(dorve CONFIG) and for pkg-config. Headers are included as <dorve/LAYER/header.h>.
install(TARGETS dorve EXPORT dorve
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
foreach(layer IN LISTS library_layers)
  install(DIRECTORY src/${layer}/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
endforeach()
install(EXPORT dorve NAMESPACE dorve:: FILE dorve-targets.cmake DESTINATION ${package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/dorve-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES cmake/dorve-config.cmake ${PROJECT_BINARY_DIR}/dorve-config-version.cmake
  DESTINATION ${package_dir})
