# The Windows zip, KORVSDKDeviceTool-<version>-win64.zip: what `cmake
# --install` puts into a prefix (bin/ with the DLL, korvtool.exe and
# hidcaps.exe; include/; lib/ with the mingw import library and the CMake
# package), and besides it the C API's module-definition file and an import
# library in Microsoft's format for MSVC's linker, the samples, the README
# and the licence texts of everything linked in. The build links the GCC,
# C++ and threads runtimes statically, so the zip needs nothing but Windows.
# scripts/package-win64.sh builds it with CPack (`cpack -G ZIP`).
#
# Included from the top CMakeLists.txt for cross-builds for Windows only.

find_program(KORVSDK_MINGW_OBJDUMP NAMES x86_64-w64-mingw32-objdump REQUIRED)
find_program(KORVSDK_MINGW_DLLTOOL NAMES x86_64-w64-mingw32-dlltool REQUIRED)

# KORVSDKDeviceTool.def names the DLL's C exports (the class face's C++
# names are of no use to another compiler); dlltool makes the .lib from it.
# The .lib is an ordinary import archive: MSVC's linker and GNU ld read it.
set(_korvsdk_def ${CMAKE_BINARY_DIR}/lib/KORVSDKDeviceTool.def)
set(_korvsdk_lib ${CMAKE_BINARY_DIR}/lib/KORVSDKDeviceTool.lib)
add_custom_command(OUTPUT ${_korvsdk_def} ${_korvsdk_lib}
  COMMAND ${CMAKE_COMMAND} -DOBJDUMP=${KORVSDK_MINGW_OBJDUMP}
    -DDLL=$<TARGET_FILE:KORVSDKDeviceTool> -DDEF=${_korvsdk_def}
    -P ${PROJECT_SOURCE_DIR}/cmake/Win64ModuleDefinition.cmake
  COMMAND ${KORVSDK_MINGW_DLLTOOL} -d ${_korvsdk_def} -l ${_korvsdk_lib}
    -D $<TARGET_FILE_NAME:KORVSDKDeviceTool>
  DEPENDS KORVSDKDeviceTool ${PROJECT_SOURCE_DIR}/cmake/Win64ModuleDefinition.cmake
  COMMENT "Module-definition file and MSVC import library of the C API"
  VERBATIM)
add_custom_target(korvsdk_msvc_import_library ALL DEPENDS ${_korvsdk_def} ${_korvsdk_lib})
install(FILES ${_korvsdk_def} ${_korvsdk_lib} TYPE LIB)

install(FILES ${PROJECT_SOURCE_DIR}/samples/quickstart.c ${PROJECT_SOURCE_DIR}/samples/quickstart.cpp
  ${PROJECT_SOURCE_DIR}/samples/virtual-setting.cfg DESTINATION samples)
install(FILES ${PROJECT_SOURCE_DIR}/README.md DESTINATION .)
if(EXISTS ${PROJECT_SOURCE_DIR}/LICENSE)
  install(FILES ${PROJECT_SOURCE_DIR}/LICENSE DESTINATION . RENAME LICENSE.txt)
endif()

# The licences of what the DLL and the programs carry inside them, as the
# Debian packages they were built from state them: spdlog and fmt (the
# library's log), CLI11 and nlohmann-json (korvtool), the mingw-w64 runtime
# and winpthreads, and GCC's libgcc and libstdc++ under the GCC Runtime
# Library Exception.
set(_korvsdk_licences
  spdlog libspdlog-dev
  fmt libfmt-dev
  CLI11 libcli11-dev
  nlohmann-json nlohmann-json3-dev
  mingw-w64-runtime mingw-w64-x86-64-dev
  gcc-runtime-libraries gcc-mingw-w64-base)
while(_korvsdk_licences)
  list(POP_FRONT _korvsdk_licences _name _package)
  set(_file /usr/share/doc/${_package}/copyright)
  if(NOT EXISTS ${_file})
    message(FATAL_ERROR "${_file} is missing: the zip needs the licence of ${_name} (scripts/install-deps.sh)")
  endif()
  install(FILES ${_file} DESTINATION licenses RENAME ${_name}.txt)
endwhile()

set(CPACK_GENERATOR ZIP)
set(CPACK_PACKAGE_NAME KORVSDKDeviceTool)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_FILE_NAME KORVSDKDeviceTool-${PROJECT_VERSION}-win64)
set(CPACK_PACKAGE_CHECKSUM SHA256)
# The binaries without their debugging information (x86_64-w64-mingw32-strip).
set(CPACK_STRIP_FILES ON)
include(CPack)
