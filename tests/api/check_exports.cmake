cmake_minimum_required(VERSION 3.25)
# Compares the exported names of the library with the expected list: every
# expected C name must be exported, and besides them only the class face of
# include/VideoConsoleCore.h (C++ names of its public classes and functions,
# at least those in EXPECTED_CLASS). MODE pe reads a DLL's export table with
# objdump -p, MODE elf the dynamic symbols of a shared object with nm -D.
file(STRINGS ${EXPECTED} expected)
list(LENGTH expected expected_count)

if(MODE STREQUAL "pe")
  include(${CMAKE_CURRENT_LIST_DIR}/../../cmake/PeExportNames.cmake)
  korvsdk_pe_export_names(${TOOL} ${LIBRARY} exported)
  set(rc 0)
else()
  execute_process(COMMAND ${TOOL} -D --defined-only ${LIBRARY} OUTPUT_VARIABLE dump RESULT_VARIABLE rc)
  # Every defined dynamic symbol: "0000000000012340 T KORVSDK_Init".
  string(REGEX MATCHALL "\n[0-9a-fA-F]+ [A-Za-z] [^\n]+" rows "\n${dump}")
  set(exported "")
  foreach(row IN LISTS rows)
    string(REGEX REPLACE "^\n[0-9a-fA-F]+ [A-Za-z] " "" name "${row}")
    list(APPEND exported ${name})
  endforeach()
endif()
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "${TOOL} failed on ${LIBRARY}")
endif()
list(REMOVE_DUPLICATES exported)

# The class face: names in namespace VideoConsoleCore whose first component
# is one of the public types or functions (the length prefix of the mangled
# name makes the match exact); nothing of the library's internals.
set(public_names "3Obj|16NumBaseException|10NUM_ENSURE|10NUM_EXCEPT|14BaseCommandObj|5Final|\
12AudioControl|18DeviceLightControl|19LightControlCommand|15FwUpdateCommand|17DiagnosticRequest|\
14DeviceIdentity|17DeviceInfo_export|31DeviceFirmwareupdateInfo_export|22ControllerCoreCallBack|\
26PropertyObserverWin_Export|25PropertyManagerWin_Export|28GetPropertyManagerWin_Export|\
17ToolCoreInterface|14createToolCore|16SaveSystemReport")
set(class_exports "")
foreach(name IN LISTS exported)
  if(name MATCHES "^_Z[A-Z]*N?K?16VideoConsoleCore(${public_names})")
    list(APPEND class_exports ${name})
  endif()
endforeach()
file(STRINGS ${EXPECTED_CLASS} expected_class)
set(missing ${expected} ${expected_class})
list(REMOVE_ITEM missing ${exported})
set(unexpected ${exported})
list(REMOVE_ITEM unexpected ${expected} ${class_exports})
if(missing OR unexpected)
  message(FATAL_ERROR "export table differs\n  missing: ${missing}\n  unexpected: ${unexpected}")
endif()
list(LENGTH exported exported_count)
message(STATUS "all ${exported_count} of ${expected_count} expected functions exported")
