# SPDX-License-Identifier: MIT
# The Debian package, by CPack. Its name for the architecture is that of the target, its dependencies are
# what dpkg-shlibdeps finds in the programs, and ssh-keygen, which they run.
set(maintainer "The DORVE authors <dorve@example.org>")

file(STRINGS CHANGELOG.md released REGEX "^## " LIMIT_COUNT 1)
if(NOT released MATCHES "^## ${PROJECT_VERSION} - ")
  message(FATAL_ERROR "CHANGELOG.md begins with \"${released}\", this is version ${PROJECT_VERSION}")
endif()
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS CHANGELOG.md packaging/changelog.awk)
execute_process(
  COMMAND awk -v "maintainer=${maintainer}" -f packaging/changelog.awk CHANGELOG.md
  WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
  OUTPUT_FILE ${PROJECT_BINARY_DIR}/changelog
  COMMAND_ERROR_IS_FATAL ANY)
install_compressed(${PROJECT_BINARY_DIR}/changelog ${CMAKE_INSTALL_DOCDIR})

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX}) # the one that the units name
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${maintainer})
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS openssh-client)
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS openssh-server)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
  ${PROJECT_SOURCE_DIR}/packaging/postinst
  ${PROJECT_SOURCE_DIR}/packaging/prerm
  ${PROJECT_SOURCE_DIR}/packaging/postrm)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "pair two devices for SSH over a point-to-point link")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
"dorve-client on one device and dorve-server on the other make a fresh
ed25519 key each, exchange the public halves over the link between them,
and install them, so that root on either device can log in to the other by
SSH. Meant for a link that nobody else can reach: neither side proves who
it is.
.
systemd units that pair when the interface appears are there, disabled.")

# Cross builds: the name that Debian has for a processor.
if(CMAKE_SYSTEM_PROCESSOR STREQUAL aarch64)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
endif()

include(CPack)
