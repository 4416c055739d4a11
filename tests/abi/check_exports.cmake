# Compares three lists of names: the dynamic symbols that LIBRARY defines
# (read with NM), the list in EXPECTED, and the names that the headers in
# HEADER_DIR declare with NODETRACE_API. All three must be equal.
foreach(var NM LIBRARY EXPECTED HEADER_DIR)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "${var} is not set")
  endif()
endforeach()

execute_process(COMMAND ${NM} -D --defined-only -C ${LIBRARY}
  OUTPUT_VARIABLE nm_output RESULT_VARIABLE nm_result)
if(NOT nm_result EQUAL 0)
  message(FATAL_ERROR "${NM} failed on ${LIBRARY}")
endif()
string(REPLACE "\n" ";" nm_lines "${nm_output}")
set(exported "")
foreach(line IN LISTS nm_lines)
  if(line MATCHES "^[0-9a-fA-F]* *[A-Za-z] (.+)$")
    string(REGEX REPLACE "@.*$" "" name "${CMAKE_MATCH_1}")
    # Symbols every linker adds to a shared object, and the indicators that
    # AddressSanitizer adds beside each exported variable.
    if(NOT name MATCHES "^(_init|_fini|__bss_start|_edata|_end|__bss_start__|__bss_end__|_bss_end__|__end__)$"
       AND NOT name MATCHES "^__odr_asan[._]")
      list(APPEND exported "${name}")
    endif()
  endif()
endforeach()
list(SORT exported)

file(STRINGS ${EXPECTED} expected_lines)
set(expected "")
foreach(line IN LISTS expected_lines)
  if(NOT line MATCHES "^#" AND NOT line STREQUAL "")
    list(APPEND expected "${line}")
  endif()
endforeach()
list(SORT expected)

file(GLOB headers ${HEADER_DIR}/*.h)
set(declared "")
foreach(header IN LISTS headers)
  # Declarations start a line with NODETRACE_API.
  file(READ ${header} text)
  string(PREPEND text "\n")
  # A declared name is followed by "(", "[" or ";". Square brackets and
  # semicolons inside the matches would break CMake's lists of them, so all
  # three become "(" first.
  string(REPLACE "[" "(" text "${text}")
  string(REPLACE "]" ")" text "${text}")
  string(REPLACE ";" "(" text "${text}")
  string(REGEX MATCHALL "\nNODETRACE_API[^{(]*[ *&]([A-Za-z_][A-Za-z0-9_]*) *\\(" hits "${text}")
  foreach(hit IN LISTS hits)
    string(REGEX REPLACE "^.*[ *&]([A-Za-z_][A-Za-z0-9_]*) *\\($" "\\1" name "${hit}")
    list(APPEND declared "${name}")
  endforeach()
endforeach()
list(REMOVE_DUPLICATES declared)
list(SORT declared)

# C++ names are compared without their parameter lists against the headers.
set(expected_plain "")
foreach(name IN LISTS expected)
  string(REGEX REPLACE "\\(.*$" "" plain "${name}")
  list(APPEND expected_plain "${plain}")
endforeach()
list(SORT expected_plain)

set(failed FALSE)
if(NOT exported STREQUAL expected)
  message(SEND_ERROR "Exported symbols differ from ${EXPECTED}\n  exported: ${exported}\n  expected: ${expected}")
  set(failed TRUE)
endif()
if(NOT declared STREQUAL expected_plain)
  message(SEND_ERROR "Declared names differ from ${EXPECTED}\n  declared: ${declared}\n  expected: ${expected_plain}")
  set(failed TRUE)
endif()
if(NOT failed)
  list(LENGTH exported count)
  message(STATUS "${count} exported names, all declared and expected")
endif()
