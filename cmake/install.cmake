# SPDX-License-Identifier: MIT
# What `cmake --install` puts where, after GNUInstallDirs. Man pages and units take the version and the paths
# from this build.
include(GNUInstallDirs)
set(unit_dir lib/systemd/system) # where systemd looks, whatever the libraries' folder is

install(TARGETS dorve-client RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS dorve-server RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})

# install_compressed(FILE DESTINATION): without name and time in it, so that the same text gives the same
# bytes.
function(install_compressed file destination)
  execute_process(COMMAND gzip --best --no-name --keep --force ${file} COMMAND_ERROR_IS_FATAL ANY)
  install(FILES ${file}.gz DESTINATION ${destination})
endfunction()

foreach(page dorve-client.1 dorve-server.8 dorve.7)
  configure_file(man/${page} ${PROJECT_BINARY_DIR}/man/${page} @ONLY)
  string(REGEX REPLACE ".*[.]" "" section ${page})
  install_compressed(${PROJECT_BINARY_DIR}/man/${page} ${CMAKE_INSTALL_MANDIR}/man${section})
endforeach()

foreach(program dorve-client dorve-server)
  configure_file(systemd/${program}.service.in ${PROJECT_BINARY_DIR}/systemd/${program}.service @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/systemd/${program}.service DESTINATION ${unit_dir})
endforeach()
install(FILES systemd/dorve-.service.d/sandbox.conf DESTINATION ${unit_dir}/dorve-.service.d)
install(FILES systemd/80-dorve.preset DESTINATION lib/systemd/system-preset)

install(FILES packaging/copyright DESTINATION ${CMAKE_INSTALL_DOCDIR})
