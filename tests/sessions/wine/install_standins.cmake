# Copies the stand-in hid.dll, setupapi.dll and cfgmgr32.dll from SOURCE into
# the system32 folder of the Wine prefix in use (WINEPREFIX, else ~/.wine),
# where the library's System32-only look-ups find them, and sets the
# prefix's default load order for the three to Wine's builtin DLLs: a real
# DLL in system32 would otherwise be taken by every program of the prefix.
# The programs meant to use the stand-ins override that default with
# WINEDLLOVERRIDES=hid,setupapi,cfgmgr32=n,b, which Wine puts before the
# registry. Run by ctest with the prefix's wineserver already up.
cmake_minimum_required(VERSION 3.25)
if(DEFINED ENV{WINEPREFIX} AND NOT "$ENV{WINEPREFIX}" STREQUAL "")
  set(prefix "$ENV{WINEPREFIX}")
else()
  set(prefix "$ENV{HOME}/.wine")
endif()
set(system32 "${prefix}/drive_c/windows/system32")
if(NOT IS_DIRECTORY "${system32}")
  message(FATAL_ERROR "no Wine prefix at ${prefix} (the wine_server_start step makes it)")
endif()
set(dlls hid setupapi cfgmgr32)
foreach(dll IN LISTS dlls)
  if(NOT EXISTS "${SOURCE}/${dll}.dll")
    message(FATAL_ERROR "the stand-in ${SOURCE}/${dll}.dll is not built")
  endif()
  file(COPY_FILE "${SOURCE}/${dll}.dll" "${system32}/${dll}.dll" ONLY_IF_DIFFERENT)
endforeach()

# The registry is the wineserver's while it runs: the default goes in
# through reg.exe, once per prefix (user.reg holds it from the server's
# next save on; a new prefix may have no user.reg yet).
set(user "")
if(EXISTS "${prefix}/user.reg")
  file(READ "${prefix}/user.reg" user)
endif()
set(missing FALSE)
foreach(dll IN LISTS dlls)
  if(NOT user MATCHES "\n\"${dll}\"=\"builtin\"")
    set(missing TRUE)
  endif()
endforeach()
if(missing)
  foreach(dll IN LISTS dlls)
    execute_process(
      COMMAND env WINEDEBUG=-all wine reg add "HKCU\\Software\\Wine\\DllOverrides"
        /v ${dll} /d builtin /f
      RESULT_VARIABLE rc OUTPUT_QUIET ERROR_QUIET INPUT_FILE /dev/null)
    if(NOT rc EQUAL 0)
      message(FATAL_ERROR "cannot set the default load order of ${dll}.dll in ${prefix}")
    endif()
  endforeach()
endif()
