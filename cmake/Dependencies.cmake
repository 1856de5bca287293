# spdlog and fmt come from Debian's packages and are used header-only on both
# platforms: the library then carries its own logger registry and needs no
# spdlog or fmt shared library at run time.
find_package(Threads REQUIRED)

add_library(korvsdk_spdlog INTERFACE)
target_compile_definitions(korvsdk_spdlog INTERFACE FMT_HEADER_ONLY)
if(CMAKE_CROSSCOMPILING)
  # The cross compiler must not see /usr/include as a whole; a folder with
  # links to just the two header trees gives it spdlog and fmt alone.
  set(_korvsdk_host_headers ${CMAKE_BINARY_DIR}/host-headers)
  file(MAKE_DIRECTORY ${_korvsdk_host_headers})
  foreach(_dir spdlog fmt)
    if(NOT EXISTS /usr/include/${_dir})
      message(FATAL_ERROR "/usr/include/${_dir} is missing: run scripts/install-deps.sh")
    endif()
    file(CREATE_LINK /usr/include/${_dir} ${_korvsdk_host_headers}/${_dir} SYMBOLIC)
  endforeach()
  target_include_directories(korvsdk_spdlog SYSTEM INTERFACE ${_korvsdk_host_headers})
endif()

# CLI11 and nlohmann-json (Debian's libcli11-dev, nlohmann-json3-dev) are
# header-only; korvtool uses them. The cross build sees them through the same
# kind of link folder as spdlog and fmt.
add_library(korvsdk_cli_deps INTERFACE)
if(CMAKE_CROSSCOMPILING)
  foreach(_dir CLI nlohmann)
    if(NOT EXISTS /usr/include/${_dir})
      message(FATAL_ERROR "/usr/include/${_dir} is missing: run scripts/install-deps.sh")
    endif()
    file(CREATE_LINK /usr/include/${_dir} ${_korvsdk_host_headers}/${_dir} SYMBOLIC)
  endforeach()
  target_include_directories(korvsdk_cli_deps SYSTEM INTERFACE ${_korvsdk_host_headers})
endif()
