# Runs hidcaps on every golden case and compares its output with what the
# case's .pp_data says Windows reports; then checks that a broken
# descriptor gives exit status 1 and no output.
#
#   cmake -DHIDCAPS=<program> [-DEMULATOR=<list>] -DGOLDEN_DIR=<dir>
#         -DWORK_DIR=<dir> -P hidcaps_check.cmake
#
# EMULATOR is CMAKE_CROSSCOMPILING_EMULATOR (Wine for the Windows build).

foreach(var HIDCAPS GOLDEN_DIR WORK_DIR)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "${var} is not set")
  endif()
endforeach()

# Runs hidcaps with the given arguments; sets <prefix>_OUT (carriage
# returns removed), <prefix>_ERR and <prefix>_RC.
function(run_hidcaps prefix)
  execute_process(COMMAND ${EMULATOR} ${HIDCAPS} ${ARGN}
    OUTPUT_VARIABLE out ERROR_VARIABLE err RESULT_VARIABLE rc)
  string(REPLACE "\r" "" out "${out}")
  set(${prefix}_OUT "${out}" PARENT_SCOPE)
  set(${prefix}_ERR "${err}" PARENT_SCOPE)
  set(${prefix}_RC "${rc}" PARENT_SCOPE)
endfunction()

# Reads the "pp_data->NAME = VALUE" lines of a dump into variables
# PP_<NAME> (NAME with "[", "]", "->" and "." turned into "_"), numbers
# converted to decimal.
function(read_pp_data file)
  file(STRINGS "${file}" lines REGEX "^pp_data->")
  foreach(line IN LISTS lines)
    if(line MATCHES "^pp_data->([^ =]+) *= *(-?[0-9]+|0x[0-9A-Fa-f]+) *$")
      set(name "${CMAKE_MATCH_1}")
      math(EXPR value "${CMAKE_MATCH_2}")
      string(REGEX REPLACE "(->|\\[|\\]|\\.)+" "_" name "${name}")
      set(PP_${name} "${value}" PARENT_SCOPE)
    endif()
  endforeach()
endfunction()

function(hex4 value out)
  math(EXPR hex "${value}" OUTPUT_FORMAT HEXADECIMAL)
  string(SUBSTRING "${hex}" 2 -1 digits)
  string(TOUPPER "${digits}" digits)
  string(LENGTH "${digits}" len)
  while(len LESS 4)
    string(PREPEND digits "0")
    math(EXPR len "${len} + 1")
  endwhile()
  set(${out} "0x${digits}" PARENT_SCOPE)
endfunction()

# The output hidcaps must print for one case.
function(expected_output out)
  set(types Input Output Feature)
  set(text "")
  set(capLines "")
  foreach(t RANGE 2)
    list(GET types ${t} type)
    set(first ${PP_caps_info_${t}_FirstCap})
    set(last ${PP_caps_info_${t}_LastCap})
    set(values 0)
    set(i ${first})
    while(i LESS last)
      if(PP_cap_${i}_IsButtonCap EQUAL 0)
        math(EXPR values "${values} + 1")
        if(PP_cap_${i}_IsRange)
          set(usage ${PP_cap_${i}_Range_UsageMin})
        else()
          set(usage ${PP_cap_${i}_NotRange_Usage})
        endif()
        hex4(${PP_cap_${i}_UsagePage} page)
        hex4(${usage} usage)
        string(APPEND capLines "${type} ValueCap ReportID=${PP_cap_${i}_ReportID} "
          "UsagePage=${page} Usage=${usage} LinkCollection=${PP_cap_${i}_LinkCollection} "
          "BitSize=${PP_cap_${i}_BitSize} ReportCount=${PP_cap_${i}_ReportCount}\n")
      endif()
      math(EXPR i "${i} + 1")
    endwhile()
    string(APPEND text
      "${type} ReportByteLength=${PP_caps_info_${t}_ReportByteLength} ValueCaps=${values}\n")
  endforeach()
  string(APPEND text "LinkCollectionNodes=${PP_NumberLinkCollectionNodes}\n${capLines}")
  set(${out} "${text}" PARENT_SCOPE)
endfunction()

file(GLOB cases RELATIVE "${GOLDEN_DIR}" "${GOLDEN_DIR}/*.pp_data")
list(LENGTH cases caseCount)
if(caseCount EQUAL 0)
  message(FATAL_ERROR "no golden cases in ${GOLDEN_DIR}")
endif()

set(failures 0)
foreach(ppFile IN LISTS cases)
  string(REGEX REPLACE "\\.pp_data$" "" case "${ppFile}")
  # VID_PID_USAGE_USAGEPAGE
  string(REGEX MATCH "^[0-9A-Fa-f]+_[0-9A-Fa-f]+_([0-9A-Fa-f]+)_([0-9A-Fa-f]+)$" _ "${case}")
  set(selection "0x${CMAKE_MATCH_2}:0x${CMAKE_MATCH_1}")
  read_pp_data("${GOLDEN_DIR}/${ppFile}")
  expected_output(expected)
  run_hidcaps(R --collection ${selection} "${GOLDEN_DIR}/${case}.bin")
  if(NOT R_RC EQUAL 0 OR NOT R_OUT STREQUAL expected)
    message(SEND_ERROR "${case}: exit ${R_RC} ${R_ERR}\n--- expected\n${expected}--- got\n${R_OUT}")
    math(EXPR failures "${failures} + 1")
  endif()
endforeach()
message(STATUS "hidcaps matched ${caseCount} golden case(s), ${failures} failure(s)")

# A descriptor cut inside an item: Usage Page (1), then a 2-byte Logical
# Maximum with only one data byte.
file(MAKE_DIRECTORY "${WORK_DIR}")
string(ASCII 5 1 38 127 broken)
file(WRITE "${WORK_DIR}/broken.bin" "${broken}")
run_hidcaps(B "${WORK_DIR}/broken.bin")
if(NOT B_RC EQUAL 1 OR NOT B_OUT STREQUAL "" OR B_ERR STREQUAL "")
  message(SEND_ERROR "broken descriptor: exit ${B_RC}, stdout '${B_OUT}', stderr '${B_ERR}'")
endif()

# A collection the descriptor does not have, and a bad command line.
run_hidcaps(N --collection 0xFFFF:0x0001 "${GOLDEN_DIR}/${case}.bin")
if(NOT N_RC EQUAL 1 OR NOT N_OUT STREQUAL "")
  message(SEND_ERROR "missing collection: exit ${N_RC}, stdout '${N_OUT}'")
endif()
run_hidcaps(U --collection nonsense "${GOLDEN_DIR}/${case}.bin")
if(NOT U_RC EQUAL 2 OR NOT U_OUT STREQUAL "" OR NOT U_ERR MATCHES "usage:")
  message(SEND_ERROR "bad argument: exit ${U_RC}, stderr '${U_ERR}'")
endif()
