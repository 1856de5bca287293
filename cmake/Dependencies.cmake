# spdlog and fmt come from Debian's packages and are used header-only on both
# platforms: the library then carries its own logger registry and needs no
# spdlog or fmt shared library at run time.
find_package(Threads REQUIRED)

# korvsdk_host_headers(target dir...): the cross compiler must not see
# /usr/include as a whole; a folder in the build tree with links to just the
# named header trees gives it those alone, as SYSTEM headers of `target`.
function(korvsdk_host_headers target)
  set(_folder ${CMAKE_BINARY_DIR}/host-headers)
  file(MAKE_DIRECTORY ${_folder})
  foreach(_dir ${ARGN})
    if(NOT EXISTS /usr/include/${_dir})
      message(FATAL_ERROR "/usr/include/${_dir} is missing: run scripts/install-deps.sh")
    endif()
    file(CREATE_LINK /usr/include/${_dir} ${_folder}/${_dir} SYMBOLIC)
  endforeach()
  target_include_directories(${target} SYSTEM INTERFACE ${_folder})
endfunction()

add_library(korvsdk_spdlog INTERFACE)
target_compile_definitions(korvsdk_spdlog INTERFACE FMT_HEADER_ONLY)

# CLI11 and nlohmann-json (Debian's libcli11-dev, nlohmann-json3-dev) are
# header-only too; korvtool and its tests use them.
add_library(korvsdk_cli_deps INTERFACE)

if(CMAKE_CROSSCOMPILING)
  korvsdk_host_headers(korvsdk_spdlog spdlog fmt)
  korvsdk_host_headers(korvsdk_cli_deps CLI nlohmann)
endif()
