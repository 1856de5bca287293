# The Debian packages, made by CPack (`cpack -G DEB`) from the components of
# the install rules. scripts/package.sh configures a Release tree with the
# prefix /usr and runs it. The split is a library's usual one:
#   runtime  libkorvsdkdevicetool<SOVERSION>  the shared library and the udev
#            rules that give its programs access to the devices
#   dev      libkorvsdkdevicetool-dev  headers, the .so link, the CMake
#            package and the pkg-config file
#   tools    korvsdk-tools  korvtool and hidcaps with their manual pages
# The dev and tools packages depend on the runtime package of exactly their
# own version; dpkg-shlibdeps adds what the binaries need from the system.
# Every package has its /usr/share/doc/<package>/copyright and
# changelog.Debian.gz when the prefix is /usr.
if(NOT CMAKE_SYSTEM_NAME STREQUAL "Linux")
  return()
endif()

set(KORVSDK_DEB_MAINTAINER "KORVSDKDeviceTool developers <korvsdk@example.org>" CACHE STRING
  "The Maintainer field of the Debian packages and their changelog")
set(KORVSDK_DEB_RELEASE 1 CACHE STRING "The Debian revision of the packages (the -N of the version)")
set(KORVSDK_DEB_VERSION ${PROJECT_VERSION}-${KORVSDK_DEB_RELEASE})

set(_runtime_package libkorvsdkdevicetool${PROJECT_VERSION_MAJOR})
set(_packages ${_runtime_package} libkorvsdkdevicetool-dev korvsdk-tools)
set(_components runtime dev tools)

# The manual pages with the version filled in, compressed at build time as
# Debian wants them; installed under any prefix.
set(_man_pages)
foreach(_page korvtool.1 hidcaps.1)
  configure_file(${PROJECT_SOURCE_DIR}/packaging/linux/${_page} ${CMAKE_BINARY_DIR}/packaging/${_page} @ONLY)
  add_custom_command(OUTPUT ${CMAKE_BINARY_DIR}/packaging/${_page}.gz
    COMMAND gzip -9nkf ${CMAKE_BINARY_DIR}/packaging/${_page}
    DEPENDS ${CMAKE_BINARY_DIR}/packaging/${_page} VERBATIM)
  list(APPEND _man_pages ${CMAKE_BINARY_DIR}/packaging/${_page}.gz)
endforeach()
set(_packaging_files ${_man_pages})
install(FILES ${_man_pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)

# What Debian requires of each package's documentation folder. Only for the
# packages' prefix: elsewhere a share/doc/libkorvsdkdevicetool0 would say
# nothing to anyone.
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  string(TIMESTAMP KORVSDK_DEB_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)
  configure_file(${PROJECT_SOURCE_DIR}/packaging/linux/changelog.Debian.in
    ${CMAKE_BINARY_DIR}/packaging/changelog.Debian @ONLY)
  add_custom_command(OUTPUT ${CMAKE_BINARY_DIR}/packaging/changelog.Debian.gz
    COMMAND gzip -9nkf ${CMAKE_BINARY_DIR}/packaging/changelog.Debian
    DEPENDS ${CMAKE_BINARY_DIR}/packaging/changelog.Debian VERBATIM)
  list(APPEND _packaging_files ${CMAKE_BINARY_DIR}/packaging/changelog.Debian.gz)
  foreach(_package _component IN ZIP_LISTS _packages _components)
    install(FILES ${PROJECT_SOURCE_DIR}/packaging/linux/copyright
      ${CMAKE_BINARY_DIR}/packaging/changelog.Debian.gz
      DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${_package} COMPONENT ${_component})
  endforeach()
endif()
add_custom_target(korvsdk_packaging_files ALL DEPENDS ${_packaging_files})

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME korvsdkdevicetool)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/packages)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL ${_components})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${KORVSDK_DEB_RELEASE})
set(CPACK_DEBIAN_PACKAGE_SOURCE korvsdkdevicetool)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${KORVSDK_DEB_MAINTAINER})
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# dpkg-shlibdeps finds the library that korvtool links in the build tree;
# the dependency on its package is the exact one below.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)

foreach(_package _component IN ZIP_LISTS _packages _components)
  string(TOUPPER ${_component} _c)
  set(CPACK_DEBIAN_${_c}_PACKAGE_NAME ${_package})
endforeach()

set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# The runtime package's shlibs file (only it has a shared library): a
# program built against this version runs with any later one of the same
# SOVERSION.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
# ldconfig through dpkg's trigger; udev reloads its rules on installation
# and removal.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
  ${PROJECT_SOURCE_DIR}/packaging/linux/postinst
  ${PROJECT_SOURCE_DIR}/packaging/linux/postrm
  ${PROJECT_SOURCE_DIR}/packaging/linux/triggers)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "SDK for a USB HDMI capture device (shared library)
KORVSDKDeviceTool finds the USB HDMI capture devices that are plugged in,
reads their firmware versions and state, sets their audio controls and
updates their USB and microcontroller firmware, all through HID reports,
behind a C API and a C++ class face.

This package contains the shared library and the udev rules that give the
user logged in at the machine access to the devices' hidraw nodes.")

set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEV_DEPENDS runtime)
set(CPACK_DEBIAN_DEV_DESCRIPTION "SDK for a USB HDMI capture device (development files)
KORVSDKDeviceTool finds the USB HDMI capture devices that are plugged in,
reads their firmware versions and state, sets their audio controls and
updates their USB and microcontroller firmware, all through HID reports.

This package contains the C header KORVSDKDeviceTool.h, the C++ class face
VideoConsoleCore.h, the CMake package (find_package(KORVSDKDeviceTool)) and
the pkg-config file.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_COMPONENT_TOOLS_DEPENDS runtime)
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "console tools for a USB HDMI capture device
korvtool lists the USB HDMI capture devices that are plugged in, shows
their firmware versions, state and audio controls, and updates their USB
and microcontroller firmware with a backup first and a confirmation after
the re-plug. Its --virtual option runs every command on a simulated device.

hidcaps prints the capabilities of a raw HID report descriptor.")

include(CPack)
