# SPDX-License-Identifier: MIT
# Installs the files that contain installation directories. `cmake --install` runs this script, because only then the
# prefix is final: --prefix replaces the configured one. install.cmake sets the other variables.
cmake_path(ABSOLUTE_PATH CMAKE_INSTALL_PREFIX NORMALIZE)  # --prefix can be relative
foreach(name BINDIR INCLUDEDIR LIBDIR)
  cmake_path(ABSOLUTE_PATH CMAKE_INSTALL_${name} BASE_DIRECTORY ${CMAKE_INSTALL_PREFIX}
             OUTPUT_VARIABLE CMAKE_INSTALL_FULL_${name})
endforeach()

# install_configured(FILE DIRECTORY): fills in the file FILE.in of the source tree and installs it in DIRECTORY.
function(install_configured file directory)
  cmake_path(GET file FILENAME name)
  configure_file(${PROJECT_SOURCE_DIR}/${file}.in ${PROJECT_BINARY_DIR}/installed/${name} @ONLY)
  cmake_path(ABSOLUTE_PATH directory BASE_DIRECTORY ${CMAKE_INSTALL_PREFIX})
  file(INSTALL ${PROJECT_BINARY_DIR}/installed/${name} DESTINATION ${directory})
endfunction()

install_configured(systemd/dorve-client.service ${unit_dir})
install_configured(systemd/dorve-server.service ${unit_dir})
install_configured(cmake/dorve.pc ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig)
