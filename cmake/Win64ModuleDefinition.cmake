cmake_minimum_required(VERSION 3.25)
# Writes the module-definition file of a DLL's C exports, read from its
# export table:
#   cmake -DOBJDUMP=x86_64-w64-mingw32-objdump -DDLL=X.dll -DDEF=X.def -P Win64ModuleDefinition.cmake
# C++ names (mangled, "_Z...") are left out: only GCC could link them.
include(${CMAKE_CURRENT_LIST_DIR}/PeExportNames.cmake)
korvsdk_pe_export_names(${OBJDUMP} ${DLL} exported)
set(names "")
foreach(name IN LISTS exported)
  if(NOT name MATCHES "^_Z")
    list(APPEND names ${name})
  endif()
endforeach()
if(NOT names)
  message(FATAL_ERROR "no C export in ${DLL}")
endif()
list(SORT names)
get_filename_component(dll_name ${DLL} NAME)
list(JOIN names "\n    " text)
file(WRITE ${DEF} "LIBRARY \"${dll_name}\"\nEXPORTS\n    ${text}\n")
