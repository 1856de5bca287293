cmake_minimum_required(VERSION 3.25)
# The Windows DLL and the programs may import only KnownDLLs: DLLs that
# Windows maps from the system folder whatever the search order. Any other
# DLL named in an import table is looked for in the application's folder
# first, and a DLL of that name left there would run inside the program as
# it starts: hid.dll, setupapi.dll and cfgmgr32.dll are loaded at run time
# from the system folder instead. The C runtime, GCC's and the C++ runtime
# are linked in statically.
#   -DTOOL=objdump -DFILES=a.dll;b.exe
# The programs import the library itself, which comes with them.
set(allowed kernel32.dll msvcrt.dll shell32.dll ole32.dll user32.dll advapi32.dll
            korvsdkdevicetool.dll)
set(failed "")
foreach(file IN LISTS FILES)
  execute_process(COMMAND ${TOOL} -p ${file} OUTPUT_VARIABLE dump RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${TOOL} failed on ${file}")
  endif()
  string(REGEX MATCHALL "DLL Name: [^\n]+" rows "${dump}")
  if(NOT rows)
    message(FATAL_ERROR "no import table read from ${file}")
  endif()
  foreach(row IN LISTS rows)
    string(REPLACE "DLL Name: " "" dll "${row}")
    string(STRIP "${dll}" dll)
    string(TOLOWER "${dll}" dll)
    if(NOT dll IN_LIST allowed)
      get_filename_component(name ${file} NAME)
      list(APPEND failed "${name} imports ${dll}")
    endif()
  endforeach()
endforeach()
if(failed)
  list(JOIN failed "\n  " text)
  message(FATAL_ERROR "imports of DLLs that are not KnownDLLs:\n  ${text}")
endif()
