# Installs the build tree into a fresh prefix, builds the consumer project
# against the installed package, and runs its programs on the virtual
# device. On Linux a C program is also built with pkg-config alone.
# The installed korvtool runs from the prefix as it is, with no
# LD_LIBRARY_PATH (under Wine with the DLL beside it).
#   cmake -DBUILD_DIR=... -DREPOSITORY=... -DWORK=... -DVERSION=... [-DTOOLCHAIN=...]
#     -P run_consumer.cmake
function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result ${run_options})
  if(NOT result EQUAL 0)
    string(REPLACE ";" " " command "${ARGN}")
    message(FATAL_ERROR "failed (${result}): ${command}")
  endif()
endfunction()

set(prefix ${WORK}/prefix)
file(REMOVE_RECURSE ${WORK})
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
if(TOOLCHAIN)
  set(launch env WINEDEBUG=-all wine)
  set(exe .exe)
endif()
foreach(file include/KORVSDKDeviceTool.h include/VideoConsoleCore.h bin/korvtool${exe}
    bin/hidcaps${exe})
  if(NOT EXISTS ${prefix}/${file})
    message(FATAL_ERROR "not installed: ${file}")
  endif()
endforeach()
file(GLOB_RECURSE config ${prefix}/*/KORVSDKDeviceToolConfig.cmake)
if(NOT config)
  message(FATAL_ERROR "no CMake package installed")
endif()
get_filename_component(package_dir ${config} DIRECTORY)

unset(ENV{LD_LIBRARY_PATH})
foreach(case "--version|korvtool ${VERSION}" "--virtual;list|VC00000001")
  string(REPLACE "|" ";" case "${case}")
  list(POP_BACK case expected)
  execute_process(COMMAND ${launch} ${prefix}/bin/korvtool${exe} ${case} RESULT_VARIABLE result
    OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT result EQUAL 0 OR NOT out MATCHES "${expected}")
    message(FATAL_ERROR "installed korvtool ${case}: ${result}\n${out}")
  endif()
endforeach()

set(configure ${CMAKE_COMMAND} -S ${REPOSITORY}/tests/install/consumer -B ${WORK}/build
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKORVSDKDeviceTool_DIR=${package_dir}
  -DKORVSDK_REPOSITORY=${REPOSITORY})
if(TOOLCHAIN)
  list(APPEND configure -DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN})
endif()
set(run_options OUTPUT_QUIET)
run(${configure})
run(${CMAKE_COMMAND} --build ${WORK}/build -j2)
set(run_options)

# The programs run in a folder of their own; Windows finds the DLL beside them.
set(bin ${WORK}/build)
if(TOOLCHAIN)
  file(COPY ${prefix}/bin/KORVSDKDeviceTool.dll DESTINATION ${bin})
endif()
file(COPY ${REPOSITORY}/samples/virtual-setting.cfg DESTINATION ${WORK}/run)
set(run_options WORKING_DIRECTORY ${WORK}/run)
run(${launch} ${bin}/quickstart${exe} virtual-setting.cfg)
run(${launch} ${bin}/quickstart_cpp${exe} virtual-setting.cfg 40)
run(${launch} ${bin}/toolcore_session_client${exe})

if(NOT TOOLCHAIN)
  find_program(pkg_config pkg-config REQUIRED)
  set(ENV{PKG_CONFIG_PATH} "")
  file(GLOB_RECURSE pc ${prefix}/*/KORVSDKDeviceTool.pc)
  get_filename_component(pc_dir ${pc} DIRECTORY)
  set(ENV{PKG_CONFIG_PATH} ${pc_dir})
  execute_process(COMMAND ${pkg_config} --cflags --libs KORVSDKDeviceTool
    OUTPUT_VARIABLE flags OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "pkg-config does not know the package")
  endif()
  separate_arguments(flags UNIX_COMMAND "${flags}")
  set(run_options)
  run(cc ${REPOSITORY}/samples/quickstart.c ${flags} -o ${WORK}/quickstart_pc)
  set(ENV{LD_LIBRARY_PATH} ${prefix}/lib)
  set(run_options WORKING_DIRECTORY ${WORK}/run)
  run(${WORK}/quickstart_pc virtual-setting.cfg)
endif()
